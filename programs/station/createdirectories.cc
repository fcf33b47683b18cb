#include "createdirectories.h"

#include <sys/stat.h>

namespace {

constexpr mode_t kDirectoryMode = 0770;
constexpr mode_t kDirectoryMask = 0007;  // Instead of the umask, which may take the group's rights.

}  // namespace

void CreateDirectories(const std::string& path_) {
  const mode_t mask = umask(kDirectoryMask);
  for (size_t end = path_.find('/', 1); end != std::string::npos; end = path_.find('/', end + 1)) {
    const std::string directory = path_.substr(0, end);
    // The confinement of a service may refuse calls that set the bit. So mkdir does not set it: a
    // new directory has it from its parent. Elsewhere, chmod sets it.
    if (mkdir(directory.c_str(), kDirectoryMode) == 0) {
      chmod(directory.c_str(), S_ISGID | kDirectoryMode);
    }
  }
  umask(mask);
}

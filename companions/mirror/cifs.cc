// The helper for CIFS (SMB) shares: mirrors one directory of a share for the daemon.
#include <unistd.h>

#include "arguments.h"
#include "helper.h"
#include "smbremote.h"

namespace {

// Bytes: twice the need of the largest listing that the mirror accepts.
constexpr size_t kMemory = 128 << 20;

}  // namespace

int main(int argc, char** argv) {
  const Program program = {
      "cifs",
      2,
      "Usage: cifs PATH USERNAME PASSWORD SUBDIR WATCH-DIRECTORY MOUNT-OPTS AUTO-DELETE\n"
      "Mirrors a directory of an SMB share for vocastra.\n",
      {},
      "vocastra-helpers(1) explains the arguments.\n"};
  SmbArguments arguments;
  const int status = RunHelper(
      program, kSmbArgumentCount, argc, argv,
      [&arguments](const std::vector<std::string>& texts_) {
        ReadSmbArguments(texts_, &arguments);
      },
      &arguments.settings,
      [&arguments](std::function<bool()> go_on_) {
        LimitMemory(kMemory);
        return std::make_unique<SmbRemote>(arguments.place, std::move(go_on_));
      });
  // No destructors run, as a thread may still use the library.
  _exit(status);
}

#include "messagecopy.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "descriptor.h"
#include "format.h"

namespace {

constexpr char kPrefix[] = ".station-";
constexpr size_t kPrefixLength = sizeof(kPrefix) - 1;
constexpr size_t kDigits = 19;  // Of the arrival, in each name, so that names sort by arrival.
constexpr size_t kNameStart = kPrefixLength + 2 + kDigits + 1;
constexpr off_t kMaxBytes = 1 << 20;

bool CopyBytes(const std::string& from_, const std::string& to_) {
  const Descriptor from(open(from_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  if (from.fd < 0 || fstat(from.fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    return false;
  }
  const Descriptor to(
      open(to_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (to.fd < 0 || fchmod(to.fd, status.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO)) != 0) {
    return false;
  }
  char block[16384];
  ssize_t length = 0;
  off_t copied = 0;
  while ((length = read(from.fd, block, sizeof(block))) > 0) {
    copied += length;
    if (copied > kMaxBytes || !WriteWhole(to.fd, block, static_cast<size_t>(length))) {
      return false;
    }
  }
  return length == 0;
}

}  // namespace

std::string FormatCopyName(const CopyName& copy_) {
  const std::string name = Format("%s%c-%0*" PRId64 "-%s", kPrefix, copy_.is_speaking ? 's' : 'w',
                                  static_cast<int>(kDigits), copy_.arrival, copy_.name.c_str());
  return name.substr(0, NAME_MAX);
}

bool ParseCopyName(const std::string& file_, CopyName& copy_) {
  const char kind = file_.size() > kNameStart ? file_[kPrefixLength] : '\0';
  if ((kind != 's' && kind != 'w') || file_.compare(0, kPrefixLength, kPrefix) != 0 ||
      file_.find_first_not_of("0123456789", kPrefixLength + 2) != kNameStart - 1 ||
      file_[kPrefixLength + 1] != '-' || file_[kNameStart - 1] != '-') {
    return false;
  }
  copy_.is_speaking = kind == 's';
  copy_.arrival = strtoll(file_.c_str() + kPrefixLength + 2, nullptr, 10);
  copy_.name = file_.substr(kNameStart);
  return true;
}

bool CopyMessage(const std::string& from_, const std::string& to_, const std::string& temporary_) {
  unlink(temporary_.c_str());
  if (CopyBytes(from_, temporary_) && rename(temporary_.c_str(), to_.c_str()) == 0) {
    return true;
  }
  unlink(temporary_.c_str());
  return false;
}

bool ShowCopy(const std::string& copy_, const std::string& to_, bool& is_kept_) {
  is_kept_ = link(copy_.c_str(), to_.c_str()) == 0;
  return is_kept_ || (errno != EEXIST && rename(copy_.c_str(), to_.c_str()) == 0);
}

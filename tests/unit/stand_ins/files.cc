#include "stand_ins/files.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "stand_ins/real.h"

using stand_ins::files;
using stand_ins::Real;

stand_ins::Files stand_ins::files;

namespace {

bool LeadsTo(int fd_, const std::string& path_) {
  struct stat wanted {};
  struct stat found {};
  return !path_.empty() && stat(path_.c_str(), &wanted) == 0 && fstat(fd_, &found) == 0 &&
         found.st_dev == wanted.st_dev && found.st_ino == wanted.st_ino;
}

}  // namespace

ssize_t read(int fd_, void* buffer_, size_t size_) {
  ++files.reads;
  if (files.read_interruptions > 0) {
    --files.read_interruptions;
    errno = EINTR;
    return -1;
  }
  return Real<ssize_t(int, void*, size_t)>("read")(fd_, buffer_, std::min(size_, files.read_piece));
}

ssize_t write(int fd_, const void* data_, size_t size_) {
  if (files.write_interruptions > 0) {
    --files.write_interruptions;
    errno = EINTR;
    return -1;
  }
  if (LeadsTo(fd_, files.full_file)) {
    errno = ENOSPC;
    return -1;
  }
  const ssize_t written = Real<ssize_t(int, const void*, size_t)>("write")(
      fd_, data_, std::min(size_, files.write_piece));
  if (fd_ == STDOUT_FILENO) {
    files.writes_to_stdout.push_back(static_cast<size_t>(written));
  }
  return written;
}

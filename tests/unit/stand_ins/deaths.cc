#include "stand_ins/deaths.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include "stand_ins/real.h"

using stand_ins::deaths;
using stand_ins::Real;

stand_ins::Deaths stand_ins::deaths;

namespace {

// Counts a call. True if the process must end in it.
bool IsLast() { return deaths.are_counted && deaths.calls_to_live-- == 0; }

void Live() {
  if (!deaths.are_in_write && IsLast()) {
    _exit(stand_ins::kDeath);
  }
}

}  // namespace

int open(const char* path_, int flags_, ...) {
  va_list arguments;
  va_start(arguments, flags_);
  const mode_t mode = (flags_ & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  Live();
  return Real<int(const char*, int, ...)>("open")(path_, flags_, mode);
}

ssize_t write(int fd_, const void* data_, size_t size_) {
  if (IsLast()) {
    if (deaths.are_in_write) {
      Real<ssize_t(int, const void*, size_t)>("write")(fd_, data_, size_ / 2);
    }
    _exit(stand_ins::kDeath);
  }
  return Real<ssize_t(int, const void*, size_t)>("write")(fd_, data_, size_);
}

int rename(const char* from_, const char* to_) noexcept {
  Live();
  return Real<int(const char*, const char*)>("rename")(from_, to_);
}

int renameat2(int from_at_, const char* from_, int to_at_, const char* to_,
              unsigned int flags_) noexcept {
  Live();
  using Function = int(int, const char*, int, const char*, unsigned int);
  return Real<Function>("renameat2")(from_at_, from_, to_at_, to_, flags_);
}

int unlink(const char* path_) noexcept {
  Live();
  return Real<int(const char*)>("unlink")(path_);
}

// A file descriptor that is closed by its destructor.
#pragma once

#include <unistd.h>

class Descriptor {
 public:
  // Owns fd_; -1: no descriptor, as failed system calls return it.
  explicit Descriptor(int fd_) : fd(fd_) {}
  ~Descriptor() {
    if (fd >= 0) {
      close(fd);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  const int fd;
};

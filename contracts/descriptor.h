// A file descriptor that is closed at the end of its owner.
#pragma once

#include <unistd.h>

class Descriptor {
 public:
  // fd_: taken over; -1: none, as system calls return it on failure.
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

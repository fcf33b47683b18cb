#include "stand_ins/temporaries.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "stand_ins/real.h"

using stand_ins::Real;
using stand_ins::temporaries;

stand_ins::Temporaries stand_ins::temporaries;

int mkostemp(char* path_, int flags_) {
  if (path_ == temporaries.failing_template) {
    errno = EACCES;
    return -1;
  }
  const int fd = Real<int(char*, int)>("mkostemp")(path_, flags_);
  if (fd >= 0) {
    temporaries.files.emplace_back(path_);
  }
  return fd;
}

char* mkdtemp(char* path_) noexcept {
  if (path_ == temporaries.failing_template) {
    errno = EACCES;
    return nullptr;
  }
  if (temporaries.mkdtemp_goes_astray) {
    path_[strlen("/tmp/")] = 'X';
  }
  return Real<char*(char*)>("mkdtemp")(path_);
}

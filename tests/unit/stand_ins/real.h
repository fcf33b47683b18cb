// The function of a library that a stand-in wraps.
#pragma once

#include <dlfcn.h>

namespace stand_ins {

template <typename Function>
Function* Real(const char* name_) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name_));
}

}  // namespace stand_ins

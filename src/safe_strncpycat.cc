#include "safe_strncpycat.h"

#include <string.h>

char* safe_strncpy(char* dst_, size_t n_, const char* src_) {
  if (dst_ == nullptr || n_ == 0) {
    return dst_;
  }
  if (src_ == nullptr) {
    dst_[0] = '\0';
    return dst_;
  }
  strncpy(dst_, src_, n_ - 1);
  dst_[n_ - 1] = '\0';
  return dst_;
}

char* safe_strncat(char* dst_, size_t n_, const char* src_) {
  if (dst_ == nullptr || n_ == 0) {
    return dst_;
  }
  dst_[n_ - 1] = '\0';
  if (src_ != nullptr) {
    const size_t length = strlen(dst_);
    strncpy(dst_ + length, src_, n_ - 1 - length);
  }
  return dst_;
}

#include "stand_ins/clock.h"

time_t stand_ins::now = 1000000;

time_t time(time_t* result_) noexcept {
  if (result_ != nullptr) {
    *result_ = stand_ins::now;
  }
  return stand_ins::now;
}

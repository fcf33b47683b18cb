#include "stand_ins/pauses.h"

stand_ins::Pauses stand_ins::pauses;

unsigned int sleep(unsigned int seconds_) {
  stand_ins::pauses.sleeps.push_back(seconds_);
  stand_ins::pauses.on_sleep();
  return 0;
}

int usleep(useconds_t microseconds_) {
  stand_ins::pauses.usleeps.push_back(microseconds_);
  stand_ins::pauses.on_usleep();
  return 0;
}

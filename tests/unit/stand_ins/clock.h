// Replaces time(): only the test moves this clock.
#pragma once

#include <time.h>

namespace stand_ins {

extern time_t now;

}  // namespace stand_ins

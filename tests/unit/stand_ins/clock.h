// In place of time(): a clock that only the test moves.
#pragma once

#include <time.h>

namespace stand_ins {

extern time_t now;

}  // namespace stand_ins

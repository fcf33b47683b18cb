// In place of operator new: one that fails for large requests.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace stand_ins {

inline size_t failing_request = SIZE_MAX;  // In bytes; larger ones fail, too.

}  // namespace stand_ins

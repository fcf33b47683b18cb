// Replaces operator new: fails for large requests.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace stand_ins {

inline size_t failing_request = SIZE_MAX;  // In bytes; larger ones fail, too.

}  // namespace stand_ins

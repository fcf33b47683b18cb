// Wraps posix_spawn(), which starts the shell.
#pragma once

namespace stand_ins {

extern bool processes_can_start;

}  // namespace stand_ins

// Replaces the function of libsmbclient that opens a directory, which reads the whole listing.
#pragma once

#include <functional>

namespace stand_ins {

// Called in the library's thread. False: fails with errno; true: the directory is empty.
extern std::function<bool()> open_directory;

}  // namespace stand_ins

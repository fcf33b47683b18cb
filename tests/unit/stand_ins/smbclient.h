// Replaces the function of libsmbclient that opens a directory, where a listing is read.
#pragma once

#include <functional>

namespace stand_ins {

// In the library's thread. False: it fails with errno; true: the directory is empty.
extern std::function<bool()> open_directory;

}  // namespace stand_ins

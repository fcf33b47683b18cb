// Wraps rename(), link() and unlink(), and notes changes that a listing of the daemon could meet.
#pragma once

#include <string>
#include <vector>

namespace stand_ins {

// The names that have appeared or disappeared in the directory while nobody had its lock.
std::vector<std::string> UnlockedChanges(const std::string& directory_);

}  // namespace stand_ins

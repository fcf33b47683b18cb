// Wraps readdir(), rewinddir() and unlink().
#pragma once

#include <dirent.h>

#include <functional>
#include <string>

namespace stand_ins {

// Each function runs if it is set.
struct Listing {
  std::function<const dirent*()> next_entry;  // Instead of readdir().
  std::function<void()> before_readdir;
  std::function<void()> before_rewinddir;  // That is, between two passes.
  std::function<void(const std::string&)> before_unlink;
};
extern Listing listing;

}  // namespace stand_ins

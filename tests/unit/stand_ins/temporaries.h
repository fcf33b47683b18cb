// Wraps mkostemp() and mkdtemp().
#pragma once

#include <string>
#include <vector>

namespace stand_ins {

struct Temporaries {
  std::string failing_template;      // Nothing is made for it.
  bool mkdtemp_goes_astray = false;  // Makes a directory under a wrong name.
  std::vector<std::string> files;    // Made, oldest first.
};
extern Temporaries temporaries;

}  // namespace stand_ins

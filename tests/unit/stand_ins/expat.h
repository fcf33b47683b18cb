// Wraps expat: records its calls, and fails in ways that the real one never does.
#pragma once

#include <expat.h>

#include <functional>
#include <string>
#include <vector>

namespace stand_ins {

struct Expat {
  std::vector<std::string> encodings;
  std::vector<int> feeds;  // Their lengths.
  int final_feeds = 0;
  int parsers = 0;                   // Created and not yet freed.
  std::vector<std::string> started;  // Elements that it has delivered.
  XML_StartElementHandler start = nullptr;
  XML_EndElementHandler end = nullptr;
  // While set, runs in place of XML_Parse, with the first argument of the handlers.
  std::function<void(void* data_)> script;
  std::string astray_at;  // After the start of this element, too many elements end.
  bool out_of_memory = false;
};
extern Expat expat;

}  // namespace stand_ins

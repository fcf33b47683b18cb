// How texts begin and end.
#pragma once

#include <string_view>

inline bool StartsWith(std::string_view text_, std::string_view start_) {
  return text_.substr(0, start_.size()) == start_;
}

inline bool EndsWith(std::string_view text_, std::string_view end_) {
  return text_.size() >= end_.size() && text_.substr(text_.size() - end_.size()) == end_;
}

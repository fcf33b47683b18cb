#include "outputname.h"

#include <stdlib.h>

#include <algorithm>

#include "affix.h"

namespace {

constexpr size_t kMaxDigits = 10;

}  // namespace

bool ParseOutputName(const std::string& name_, OutputName& result_) {
  const size_t digits = std::min(name_.find_first_not_of("0123456789"), name_.size());
  if (digits == 0 || digits > kMaxDigits || name_.compare(digits, 1, "_") != 0) {
    return false;
  }
  result_.number = strtoull(name_.c_str(), nullptr, 10);
  const std::string rest = name_.substr(digits + 1);
  // An id may hold dots.
  const size_t kind = std::max(rest.rfind(".text_") + 1, rest.rfind(".warn_") + 1);
  result_.id = rest.substr(0, kind > 0 ? kind - 1 : rest.find('.'));
  result_.is_clip = kind > 0 && rest[kind] == 'w';
  result_.is_first = EndsWith(rest, "_first.wav") || EndsWith(rest, "_first.raw");
  return true;
}

#include "unsafenames.h"

#include <string.h>

#include <algorithm>

#include "known.h"

namespace {

constexpr uint64_t kReported = 1;
constexpr size_t kMaxName = 255;  // Bytes; no file can have a longer one.

bool IsAlphanumeric(char c_) {
  return (c_ >= '0' && c_ <= '9') || (c_ >= 'A' && c_ <= 'Z') || (c_ >= 'a' && c_ <= 'z') ||
         c_ == '_';
}

}  // namespace

bool IsSafeName(const std::string& name_) {
  return !name_.empty() && name_.size() <= kMaxName && IsAlphanumeric(name_[0]) &&
         std::all_of(name_.begin(), name_.end(), [](char c_) {
           return IsAlphanumeric(c_) || (c_ != '\0' && strchr(".+=@-", c_) != nullptr);
         });
}

bool UnsafeNames::Take(const std::string& name_) {
  const uint64_t mark = Fingerprint(0, name_) & ~kReported;
  const auto before = std::lower_bound(names_before.begin(), names_before.end(), mark);
  if (before == names_before.end() || (*before & ~kReported) != mark) {
    names.push_back(mark);
    return false;
  }
  names.push_back(mark | kReported);
  const bool is_new = (*before & kReported) == 0;
  *before |= kReported;  // A listing may have the name twice.
  return is_new;
}

void UnsafeNames::EndListing() {
  std::sort(names.begin(), names.end());
  names.swap(names_before);
}

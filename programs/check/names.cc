#include "names.h"

#include <ctype.h>
#include <stddef.h>

#include <algorithm>
#include <numeric>

#include "findings.h"

namespace {

// Longer names are not compared, as the time grows with the product of the lengths.
constexpr size_t kMaxLength = 40;

constexpr size_t kFar = 100;

// Letters and digits in lower case: "Bumper_Path" and "bumper-path" are alike.
std::string Simplified(const std::string& name_) {
  std::string text;
  for (const char c : name_) {
    if (isalnum(static_cast<unsigned char>(c)) != 0) {
      text += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
  }
  return text;
}

// The number of characters to insert, remove or replace to turn one name into the other.
size_t Edits(const std::string& a_, const std::string& b_) {
  std::vector<size_t> row(b_.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (const char c : a_) {
    size_t diagonal = row[0]++;
    for (size_t j = 0; j < b_.size(); ++j) {
      const size_t replaced = diagonal + (c == b_[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

// True if a_ is the beginning of b_, or a long end of it. Short ends are not sure enough.
bool IsShortFor(const std::string& a_, const std::string& b_) {
  constexpr size_t kMinStart = 3;
  constexpr size_t kMinEnd = 5;
  const bool is_shorter = a_.size() < b_.size();
  return is_shorter &&
         ((a_.size() >= kMinStart && b_.compare(0, a_.size(), a_) == 0) ||
          (a_.size() >= kMinEnd && b_.compare(b_.size() - a_.size(), a_.size(), a_) == 0));
}

// 0: the names are alike; kFar: one is no misspelling of the other.
size_t Distance(const std::string& name_, const std::string& known_) {
  const std::string a = Simplified(name_);
  const std::string b = Simplified(known_);
  const size_t edits = Edits(a, b);
  const size_t allowed = (std::min(a.size(), b.size()) + 1) / 3;
  if (a.empty() || (std::min(a.size(), b.size()) <= 2 && edits > 0)) {
    return kFar;
  }
  return edits <= allowed || IsShortFor(a, b) || IsShortFor(b, a) ? edits : kFar;
}

}  // namespace

std::string NearestName(const std::string& name_, const std::vector<std::string>& known_) {
  std::string nearest;
  size_t least = kFar;
  for (const std::string& known : known_) {
    const size_t distance = name_.size() > kMaxLength ? kFar : Distance(name_, known);
    if (distance < least) {
      least = distance;
      nearest = known;
    }
  }
  return nearest;
}

std::string DidYouMean(const std::string& name_) {
  return "Did you mean " + Quoted(name_) + "? If not, remove it";
}

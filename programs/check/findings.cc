#include "findings.h"

#include <stdio.h>

#include <algorithm>

#include "charencoding.h"
#include "format.h"

std::string Quoted(const std::string& value_) { return "\"" + value_ + "\""; }

void Findings::Error(const Place& place_, const std::string& problem_, const std::string& remedy_) {
  Add(place_, "error", problem_, remedy_);
  verdict = Verdict::kErrors;
}

void Findings::Warning(const Place& place_, const std::string& problem_,
                       const std::string& remedy_) {
  Add(place_, "warning", problem_, remedy_);
  verdict = std::max(verdict, Verdict::kWarnings);
}

Verdict Findings::Print() {
  std::stable_sort(lines.begin(), lines.end(),
                   [](const auto& a_, const auto& b_) { return a_.first < b_.first; });
  for (const auto& [key, text] : lines) {
    fprintf(stderr, "%s\n", text.c_str());
  }
  return verdict;
}

void Findings::Add(const Place& place_, const char* kind_, const std::string& problem_,
                   const std::string& remedy_) {
  const size_t rank = ranks.emplace(place_.file, ranks.size()).first->second;
  std::string text = Format("%s:%d: %s: %s: %s. %s.", place_.file.c_str(), place_.line, kind_,
                            place_.item.c_str(), problem_.c_str(), remedy_.c_str());
  // Control characters of the file must not break the line.
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c_) { return Utf8IsControl(c_) && c_ < 0x80; },
      '?');
  lines.emplace_back(std::make_tuple(rank, place_.line), text);
}

// The findings of a check: one line each, with the place and a remedy.
#pragma once

#include <stddef.h>

#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// Also the exit status.
enum class Verdict { kClean = 0, kWarnings = 1, kErrors = 2 };

struct Place {
  std::string file;
  int line = 0;      // 0: the command line.
  std::string item;  // The element or option.
};

// value_ in quotes, as findings show it.
std::string Quoted(const std::string& value_);

class Findings {
 public:
  // An error: messages are not spoken, or files are destroyed that are not the daemon's own.
  void Error(const Place& place_, const std::string& problem_, const std::string& remedy_);
  // A warning: the daemon does something else than the text says.
  void Warning(const Place& place_, const std::string& problem_, const std::string& remedy_);

  // Writes "FILE:LINE: error|warning: ITEM: PROBLEM. REMEDY." for each to standard error, files in
  // the order of their first findings, each by lines. Returns the worst verdict.
  Verdict Print();

 private:
  void Add(const Place& place_, const char* kind_, const std::string& problem_,
           const std::string& remedy_);

  std::map<std::string, size_t> ranks;                                 // Of the files.
  std::vector<std::pair<std::tuple<size_t, int>, std::string>> lines;  // Rank, line; text.
  Verdict verdict = Verdict::kClean;
};

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

// value_ in quotes, as in findings.
std::string Quoted(const std::string& value_);

class Findings {
 public:
  // Adds an error: messages are not spoken, or files of others are destroyed.
  void Error(const Place& place_, const std::string& problem_, const std::string& remedy_);
  // Adds a warning: the daemon does something else than the text says.
  void Warning(const Place& place_, const std::string& problem_, const std::string& remedy_);

  // Writes each finding to standard error as "FILE:LINE: error|warning: ITEM: PROBLEM. REMEDY.".
  // The files are in the order of their first findings, and the findings of a file in the order of
  // lines. Returns the worst verdict.
  Verdict Print();

 private:
  void Add(const Place& place_, const char* kind_, const std::string& problem_,
           const std::string& remedy_);

  std::map<std::string, size_t> ranks;                                 // Of the files.
  std::vector<std::pair<std::tuple<size_t, int>, std::string>> lines;  // Rank, line; text.
  Verdict verdict = Verdict::kClean;
};

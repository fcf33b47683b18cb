// The daemon's status at one moment, and how it is shown.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "xml.h"

struct Report {
  std::unique_ptr<XMLElement> status;  // As ReadStatus returns it. Null: there is none.
  std::vector<std::string> problems;
};

// A report that there is no daemon.
Report NoDaemon(const std::string& why_);

// The report on a status with its problems. is_stale_: it is older than limit_ seconds.
Report MakeReport(std::unique_ptr<XMLElement> status_, bool is_stale_, int limit_);

// One line of JSON. The counter may be left out, so that reports that differ in nothing else are
// equal.
std::string ToJson(const Report& report_, bool has_counter_);

// A table for people. Control characters are replaced.
std::string ToTable(const Report& report_);

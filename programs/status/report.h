// What is known about the service at one moment, and how it is shown.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "health.h"
#include "playerstate.h"
#include "xml.h"

struct Report {
  bool is_running = false;             // The daemon runs and is not hung.
  std::unique_ptr<XMLElement> status;  // As ReadStatus returns it. Null: there is none.
  std::optional<Health> health;        // Of a station.
  std::optional<PlayerState> player;
  std::vector<Problem> problems;
};

// A report that there is no daemon.
Report NoDaemon(const std::string& why_);

// The report on a daemon without a station, with the problems that its status tells. is_stale_: it
// is older than limit_ seconds.
Report MakeReport(std::unique_ptr<XMLElement> status_, bool is_stale_, int limit_);

// The report on a daemon with a station. status_ may be null.
Report MakeReport(Health health_, std::unique_ptr<XMLElement> status_,
                  std::optional<PlayerState> player_);

// One line of JSON. The time and the status's counter may be left out, so that reports that differ
// in nothing else are equal.
std::string ToJson(const Report& report_, bool has_time_);

// A table for people. Control characters are replaced.
std::string ToTable(const Report& report_);

// A time as people read it; local time.
std::string TimeText(long long time_);

// The same facts as OpenMetrics text.
std::string ToMetrics(const Report& report_);

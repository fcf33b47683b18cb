// A report on the service at one moment, and its formats.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "health.h"
#include "playerstate.h"
#include "xml.h"

struct Report {
  bool is_running = false;             // The daemon runs and is not hung, nor is the station.
  std::unique_ptr<XMLElement> status;  // The tree of ReadStatus; null: there is no status.
  std::optional<Health> health;        // Of a station.
  std::map<std::string, PlayerState> players;  // By zone; empty: the player without a zone.
  std::vector<Problem> problems;
};

// A report that there is no daemon.
Report NoDaemon(const std::string& why_);

// The report on a daemon without a station, with the problems in its status. is_stale_: the status
// is older than limit_ seconds.
Report MakeReport(std::unique_ptr<XMLElement> status_, bool is_stale_, int limit_);

// The report on a daemon with a station. status_ may be null.
Report MakeReport(Health health_, std::unique_ptr<XMLElement> status_,
                  std::map<std::string, PlayerState> players_);

// One line of JSON. has_time_: with the time and the status's counter. Without these, reports with
// the same facts are equal.
std::string ToJson(const Report& report_, bool has_time_);

// A table for people. Control characters are replaced.
std::string ToTable(const Report& report_);

// A time for people, in local time.
std::string TimeText(long long time_);

// The same facts as OpenMetrics text.
std::string ToMetrics(const Report& report_);

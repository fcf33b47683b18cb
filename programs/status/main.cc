// vocastra-status: shows the state of the service to a person, a program or a monitor.

#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "clock.h"
#include "commandline.h"
#include "debug.h"
#include "format.h"
#include "health.h"
#include "playerstate.h"
#include "report.h"
#include "statusfile.h"

namespace {

constexpr int kPollPause = 50;  // Milliseconds.
constexpr int kDefaultLimit = 5;
// Seconds to wait for a complete status; the daemon may be hung.
constexpr double kShortPatience = 0.5;

enum ExitStatus { kFine = 0, kTrouble = 1, kNoDaemon = 2, kWrongUse = 3 };

struct Options {
  bool is_following = false;
  bool is_json = false;
  bool is_metrics = false;
  int limit = kDefaultLimit;  // Seconds without a new status that make it stale.
  std::string run = VOCASTRA_RUN_DIR;
  std::string path;  // Of a status file; empty: the run directory is used.

  std::string StatusPath() const { return path.empty() ? run + "/status.xml" : path; }
};

ExitStatus Judge(const Report& report_) {
  if (!report_.is_running) {
    return kNoDaemon;
  }
  return report_.problems.empty() ? kFine : kTrouble;
}

std::string ToText(const Options& options_, const Report& report_) {
  return options_.is_metrics ? ToMetrics(report_)
         : options_.is_json  ? ToJson(report_, true)
                             : ToTable(report_);
}

// The station's report, without waiting. Nothing if there is no station.
std::optional<Report> AskStation(const Options& options_) {
  const std::string path = options_.run + "/health";
  if (!options_.path.empty() || access(path.c_str(), F_OK) != 0) {
    return std::nullopt;
  }
  try {
    Health health = ReadHealth(path);
    std::unique_ptr<XMLElement> status;
    try {
      status = ReadStatus(options_.StatusPath(), kShortPatience);
    } catch (const std::string&) {
      // The health file has the reason.
    }
    return MakeReport(std::move(health), std::move(status), ReadPlayerStates(options_.run));
  } catch (const std::string& why) {
    return NoDaemon(path + ": " + why);
  }
}

// Without a station: waits until the status's counter changes, or for the limit.
Report LookOnce(const Options& options_) {
  if (std::optional<Report> report = AskStation(options_)) {
    return std::move(*report);
  }
  try {
    const std::string path = options_.StatusPath();
    std::unique_ptr<XMLElement> status = ReadStatus(path);
    const int first = status->GetAttributeInteger("timestamp");
    const double deadline = Now() + options_.limit;
    bool is_stale = true;
    while (is_stale && Now() < deadline) {
      Nap(kPollPause);
      status = ReadStatus(path);
      is_stale = status->GetAttributeInteger("timestamp") == first;
    }
    return MakeReport(std::move(status), is_stale, options_.limit);
  } catch (const std::string& why) {
    return NoDaemon(why);
  }
}

// Ends the program if standard output is closed, so that "--follow" ends with its reader.
void Print(const std::string& text_) {
  if (fputs(text_.c_str(), stdout) == EOF || fflush(stdout) == EOF) {
    perror("vocastra-status: standard output");
    exit(kWrongUse);
  }
}

// Reads the status and notes when it last changed.
class Watcher {
 public:
  explicit Watcher(const Options& options_) : options(options_) {}

  Report Look() {
    if (std::optional<Report> report = AskStation(options)) {
      return std::move(*report);
    }
    try {
      std::unique_ptr<XMLElement> status = ReadStatus(options.StatusPath());
      const int counter = status->GetAttributeInteger("timestamp");
      if (counter != last_counter) {
        last_counter = counter;
        last_change = Now();
      }
      return MakeReport(std::move(status), Now() - last_change > options.limit, options.limit);
    } catch (const std::string& why) {
      return NoDaemon(why);
    }
  }

 private:
  const Options& options;
  int last_counter = -1;
  double last_change = Now();
};

// Prints a report with the time when more than the counter has changed.
[[noreturn]] void Follow(const Options& options_) {
  Watcher watcher(options_);
  std::string last_key;
  for (;;) {
    const Report report = watcher.Look();
    const std::string key = ToJson(report, false);
    if (key != last_key) {
      const std::string head =
          (last_key.empty() ? "" : "\n") + ("time:    " + TimeText(time(nullptr))) + "\n";
      Print((options_.is_json ? "" : head) + ToText(options_, report));
      last_key = key;
    }
    Nap(kPollPause);
  }
}

Options ParseOptions(int argc_, char** argv_) {
  Options options;
  Program program = {
      "vocastra-status",
      kWrongUse,
      "Usage: vocastra-status [-f] [--json | --metrics] [-l SECONDS] [-r DIR | FILE]\n"
      "Shows the state of the vocastra service, and problems with their remedies.\n\n",
      {{'f', "follow", "", "Show every change until a signal", Set(options.is_following)},
       {'j', "json", "", "One line of JSON instead of a table", Set(options.is_json)},
       {'m', "metrics", "", "OpenMetrics text instead of a table", Set(options.is_metrics)},
       {'r', "run", "DIR", "The station's run directory (default " VOCASTRA_RUN_DIR ")",
        Keep(options.run)}},
      "FILE is the status file of a daemon without a station.\n"
      "Exit status: 0 no problem; 1 a problem; 2 the daemon does not run or hangs, or its status\n"
      "is stale; 3 wrong use, or standard output is gone.\n"};
  program.options.push_back(
      {'l', "limit", "SECONDS",
       Format("Time without a new status that counts as stale (default %d)", kDefaultLimit),
       [&](const char* text_) {
         options.limit = ParseSeconds(text_, 1);
         if (options.limit < 0) {
           FailUsage(program, Format("-l \"%s\": not a number of seconds above 0", text_));
         }
       }});
  const std::vector<std::string> operands = ParseCommandLine(program, argc_, argv_);
  if (operands.size() > 1) {
    FailUsage(program, "more than one status file");
  }
  if (options.is_metrics && (options.is_json || options.is_following)) {
    FailUsage(program, "--metrics cannot be used with --json or --follow");
  }
  if (!operands.empty()) {
    options.path = operands.front();
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  SetDebugMask(0);
  if (options.is_following) {
    Follow(options);
  }
  const Report report = LookOnce(options);
  Print(ToText(options, report));
  return Judge(report);
}

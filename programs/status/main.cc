// vocastra-status: shows the daemon's status file to a person, a program or a monitor.

#include <stdio.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "clock.h"
#include "commandline.h"
#include "debug.h"
#include "format.h"
#include "report.h"
#include "statusfile.h"

namespace {

constexpr int kPollPause = 50;  // Milliseconds.
constexpr int kDefaultLimit = 5;

enum ExitStatus { kFine = 0, kTrouble = 1, kNoDaemon = 2, kWrongUse = 3 };

struct Options {
  bool is_following = false;
  bool is_json = false;
  int limit = kDefaultLimit;  // Seconds without a new status that make it stale.
  std::string path = VOCASTRA_STATUS_FILE;
};

ExitStatus Judge(const Report& report_) {
  if (!report_.status) {
    return kNoDaemon;
  }
  return report_.problems.empty() ? kFine : kTrouble;
}

// Waits until the counter has moved, or for the limit.
Report LookOnce(const Options& options_) {
  try {
    std::unique_ptr<XMLElement> status = ReadStatus(options_.path);
    const int first = status->GetAttributeInteger("timestamp");
    const double deadline = Now() + options_.limit;
    bool is_stale = true;
    while (is_stale && Now() < deadline) {
      Nap(kPollPause);
      status = ReadStatus(options_.path);
      is_stale = status->GetAttributeInteger("timestamp") == first;
    }
    return MakeReport(std::move(status), is_stale, options_.limit);
  } catch (const std::string& why) {
    return NoDaemon(why);
  }
}

// Ends the program if standard output is gone, so that a follower ends with its reader.
void Print(const std::string& text_) {
  if (fputs(text_.c_str(), stdout) == EOF || fflush(stdout) == EOF) {
    perror("vocastra-status: standard output");
    exit(kWrongUse);
  }
}

// Looks at the status; notes when it last changed.
class Watcher {
 public:
  explicit Watcher(const Options& options_) : options(options_) {}

  Report Look() {
    try {
      std::unique_ptr<XMLElement> status = ReadStatus(options.path);
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

// Prints a report whenever more than the counter has changed.
[[noreturn]] void Follow(const Options& options_) {
  Watcher watcher(options_);
  std::string last_key;
  for (;;) {
    const Report report = watcher.Look();
    const std::string key = ToJson(report, false);
    if (key != last_key) {
      const bool is_first = last_key.empty();
      Print(options_.is_json ? ToJson(report, true) : (is_first ? "" : "\n") + ToTable(report));
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
      "Usage: vocastra-status [-f] [--json] [-l SECONDS] [FILE]\n"
      "Shows the status of the vocastra daemon.\n\n",
      {{'f', "follow", "", "Go on and show every change", Set(options.is_following)},
       {'j', "json", "", "One line of JSON instead of a table", Set(options.is_json)}},
      "FILE is the daemon's status file (default " VOCASTRA_STATUS_FILE
      ").\n"
      "Exit status: 0 fine; 1 stale, output-bound or a directory without updates; 2 no daemon;\n"
      "3 wrong use, or standard output is gone.\n"};
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
  Print(options.is_json ? ToJson(report, true) : ToTable(report));
  return Judge(report);
}

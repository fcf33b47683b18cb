// The daemon's log on its way to the station's standard error: lines that come with every scan are
// left out, and lines that repeat are counted.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "logevent.h"

enum class Severity { kRoutine, kError = 3, kWarning = 4, kInformation = 6 };

// The event that a line of the daemon or of its helpers reports. Sets severity_; kRoutine: the line
// is to be left out.
LogEvent ParseLogLine(const std::string& line_, Severity& severity_);

class Log {
 public:
  // write_ gets each line that is passed on, without its end. is_raw_: pass every line as it is.
  // has_prefix_: put the severity in front, "<3>" for an error.
  Log(std::function<void(const std::string&)> write_, bool is_raw_, bool has_prefix_);

  // Takes a line of the daemon. now_: seconds, as of Now().
  LogEvent Take(const std::string& line_, double now_);

  // Writes a line of the station itself. Repetitions are counted as well.
  void Say(Severity severity_, const std::string& text_, double now_);

  // Passes on the counts that are due. To be called once a second or so.
  void Tick(double now_);

 private:
  struct Seen {
    double last = 0;
    double since = 0;  // When the count began.
    int count = 0;     // Repetitions that were not written yet.
    int told = 0;      // The number of counts that were written.
    Severity severity = Severity::kRoutine;
  };

  void Count(Severity severity_, std::string_view line_, double now_);
  void Tell(std::string_view line_, Seen& seen_, double now_);
  void Write(Severity severity_, const std::string& line_) const;

  std::function<void(const std::string&)> write;
  bool is_raw;
  bool has_prefix;
  double next_look = 0;
  std::map<std::string, Seen, std::less<>> lines;
};

#include "log.h"

#include <string.h>

#include <utility>

#include "format.h"

namespace {

constexpr double kForget = 3600;     // Seconds; a line that was silent for so long counts as new.
constexpr size_t kMaxLines = 500;    // Different lines that are remembered.
constexpr double kCrowdForget = 60;  // The same while nearly too many lines are remembered.
constexpr double kLook = 1;          // Seconds.
constexpr char kOtherLines[] = "More different lines than are remembered";

// Seconds until the first count of a line is written, the second, and each later one.
constexpr double kPeriods[] = {60, 3600, 86400};

// The beginning and the end of a kind of line; its subject is between them. The first entry that
// matches a line counts.
struct Text {
  const char* begin;
  const char* end;
  LogEvent::Kind kind;
  Severity severity;
};

constexpr Severity kRoutine = Severity::kRoutine;
constexpr Severity kError = Severity::kError;
constexpr Severity kWarning = Severity::kWarning;
constexpr Severity kInformation = Severity::kInformation;

constexpr Text kTexts[] = {
    {"From ", "", LogEvent::kOther, kRoutine},
    {"Original is valid UTF-8", "", LogEvent::kOther, kRoutine},
    {"re-encode", "", LogEvent::kOther, kRoutine},
    {"extract attr value", "", LogEvent::kOther, kRoutine},
    {"Adding ", " to file_map", LogEvent::kIndexed, kRoutine},
    {"Updating ", " in file_map", LogEvent::kIndexed, kRoutine},
    {"calling engine", "", LogEvent::kEngineStarted, kRoutine},
    {"done calling engine", "", LogEvent::kEngineDone, kRoutine},
    {"copying ", "", LogEvent::kCopying, kRoutine},
    {"Could not execute \"", "\"", LogEvent::kCommandFailed, kError},
    {"Could not remove ", "", LogEvent::kNotRemoved, kError},
    {"Reading glossary ", "", LogEvent::kGlossary, kError},
    {"Processing configuration ", "", LogEvent::kOther, kInformation},
    {"Created new input directory ", "", LogEvent::kOther, kInformation},
    {"Deleted input directory ", "", LogEvent::kOther, kInformation},
    {"Removing ", "", LogEvent::kOther, kInformation},
    {"Sending SIGTERM to PID ", "", LogEvent::kOther, kInformation},
    {"Now ", "", LogEvent::kOther, kInformation},
    {"No longer output-bound", "", LogEvent::kOther, kInformation},
    {"Directory \"", "\"", LogEvent::kOther, kError},  // It uses a parser that does not exist.
    {"Directory \"", "", LogEvent::kOther, kInformation},
    {"Directory ", " is receiving updates", LogEvent::kOther, kInformation},
    {"Could not ", "", LogEvent::kOther, kError},
    {"Unable to ", "", LogEvent::kOther, kError},
    {"Error ", "", LogEvent::kOther, kError},
    {"Skipped ", "", LogEvent::kOther, kError},
    {"Duplicate ", "", LogEvent::kOther, kError},
    {"Element ", "", LogEvent::kOther, kError},
    {"While processing ", "", LogEvent::kOther, kError},
    {"No \"", "", LogEvent::kOther, kError},
    {"Lock failed", "", LogEvent::kOther, kError},
};

bool Matches(const std::string& line_, const Text& text_) {
  const size_t begin = strlen(text_.begin);
  const size_t end = strlen(text_.end);
  return line_.size() >= begin + end && line_.compare(0, begin, text_.begin) == 0 &&
         line_.compare(line_.size() - end, end, text_.end) == 0;
}

// The rest of the text after the first occurrence of the mark; the text itself if it has none.
std::string After(const std::string& text_, const char* mark_) {
  const size_t position = text_.find(mark_);
  return position == std::string::npos ? text_ : text_.substr(position + strlen(mark_));
}

std::string Subject(const std::string& line_, const Text& text_) {
  const size_t begin = strlen(text_.begin);
  std::string subject = line_.substr(begin, line_.size() - begin - strlen(text_.end));
  if (text_.kind == LogEvent::kGlossary) {
    return After(subject, ": ");
  }
  if (text_.kind == LogEvent::kIndexed && *text_.begin == 'A') {
    return subject.substr(0, subject.rfind(' '));  // The checksum follows.
  }
  return subject;
}

// A helper's line begins with one word, its kind, and " helper: ".
bool IsFromHelper(const std::string& line_) {
  constexpr char kMark[] = " helper: ";
  const size_t blank = line_.find(' ');
  return blank != std::string::npos && line_.compare(blank, strlen(kMark), kMark) == 0;
}

}  // namespace

LogEvent ParseLogLine(const std::string& line_, Severity& severity_) {
  severity_ = kWarning;
  for (const Text& text : kTexts) {
    if (Matches(line_, text)) {
      severity_ = text.severity;
      if (text.kind == LogEvent::kOther) {
        return {text.kind, "", line_};
      }
      LogEvent event = {text.kind, Subject(line_, text), line_};
      // A directory that is emptied at the start may have been empty.
      if (event.kind == LogEvent::kCommandFailed && event.subject.compare(0, 3, "rm ") == 0) {
        severity_ = kInformation;
      }
      return event;
    }
  }
  if (IsFromHelper(line_)) {
    return {LogEvent::kFromHelper, After(line_, "helper: "), line_};
  }
  if (line_.find(" at line ") != std::string::npos) {  // Malformed XML.
    severity_ = kError;
  }
  return {LogEvent::kOther, "", line_};
}

Log::Log(std::function<void(const std::string&)> write_, bool is_raw_, bool has_prefix_)
    : write(std::move(write_)), is_raw(is_raw_), has_prefix(has_prefix_) {}

LogEvent Log::Take(const std::string& line_, double now_) {
  Severity severity = kRoutine;
  LogEvent event = ParseLogLine(line_, severity);
  if (is_raw) {
    Write(severity == kRoutine ? kInformation : severity, line_);
  } else if (severity != kRoutine) {
    Count(severity, line_, now_);
  }
  return event;
}

void Log::Say(Severity severity_, const std::string& text_, double now_) {
  Count(severity_, text_, now_);
}

// Passes on a new line, and counts one that repeats.
void Log::Count(Severity severity_, std::string_view line_, double now_) {
  auto found = lines.find(line_);
  if (found == lines.end()) {
    if (lines.size() >= kMaxLines && line_ != kOtherLines) {
      Count(kWarning, kOtherLines, now_);
      return;
    }
    found = lines.emplace(line_, Seen()).first;
    found->second.severity = severity_;
    Write(severity_, found->first);
  } else if (found->second.count++ == 0) {
    found->second.since = found->second.told == 0 ? found->second.last : found->second.since;
  }
  found->second.last = now_;
}

void Log::Tell(std::string_view line_, Seen& seen_, double now_) {
  Write(seen_.severity, Format("%.*s (%d more in %.0f seconds)", static_cast<int>(line_.size()),
                               line_.data(), seen_.count, now_ - seen_.since));
  seen_.count = 0;
  seen_.since = now_;
  ++seen_.told;
}

void Log::Tick(double now_) {
  if (now_ < next_look) {
    return;
  }
  next_look = now_ + kLook;
  const double forget = lines.size() > kMaxLines * 3 / 4 ? kCrowdForget : kForget;
  for (auto next = lines.begin(); next != lines.end();) {
    auto& [line, seen] = *next;
    const bool is_silent = now_ - seen.last > forget;
    const double period = kPeriods[seen.told < 2 ? seen.told : 2];
    if (seen.count > 0 && (is_silent || now_ - seen.since >= period)) {
      Tell(line, seen, is_silent ? seen.last : now_);
    }
    next = is_silent ? lines.erase(next) : std::next(next);
  }
}

void Log::Write(Severity severity_, const std::string& line_) const {
  write(has_prefix ? Format("<%d>%s", static_cast<int>(severity_), line_.c_str()) : line_);
}

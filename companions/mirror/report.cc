#include "report.h"

#include <algorithm>
#include <utility>

#include "debug.h"

namespace {

constexpr int kFileLines = 20;  // In a minute.
// For one part, in one outage: reasons that differ by a number only count as different.
constexpr size_t kTroubles = 4;
constexpr size_t kTextSize = 1000;  // Bytes: a line must go through a pipe in one piece.
constexpr const char* kOver[] = {"works again", "can write files again"};

}  // namespace

Report::Report(const std::string& kind_, const std::string& source_, std::function<double()> now_)
    : head(kind_ + " helper: " + source_ + ": "), now(std::move(now_)) {}

void Report::Say(const std::string& text_) const {
  std::string line = head + text_.substr(0, kTextSize);
  std::replace_if(
      line.begin(), line.end(), [](char c_) { return c_ < ' ' || c_ > '~'; }, '?');
  Debug(kDebugNormal, "%s", line.c_str());
}

void Report::SayOfFile(const std::string& text_) {
  if (now() >= minute_end) {
    minute_end = now() + 60;
    lines_in_minute = 0;
  }
  ++lines_in_minute;
  if (lines_in_minute <= kFileLines) {
    Say(text_);
  } else if (lines_in_minute == kFileLines + 1) {
    Say("more messages about files are left out for a minute");
  }
}

void Report::Complain(Part part_, const std::string& text_) {
  std::vector<std::string>& said = troubles[part_];
  if (said.size() < kTroubles && std::find(said.begin(), said.end(), text_) == said.end()) {
    said.push_back(text_);
    Say(text_);
  }
}

void Report::Over(Part part_) {
  if (!troubles[part_].empty()) {
    troubles[part_].clear();
    Say(kOver[part_]);
  }
}

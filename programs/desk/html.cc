#include "html.h"

#include <math.h>
#include <time.h>

#include "charencoding.h"
#include "format.h"

namespace {

constexpr double kSecondsPerMinute = 60;
constexpr int kShort = 90;  // From so many seconds on, a duration is written in minutes.

struct tm LocalTime(long long time_) {
  const auto time = static_cast<time_t>(time_);
  struct tm parts = {};
  localtime_r(&time, &parts);
  return parts;
}

bool IsBlank(char c_) {
  const auto byte = static_cast<unsigned char>(c_);
  return byte <= ' ' || byte == 0x7F;
}

}  // namespace

std::string Html(const std::string& text_) {
  std::string result;
  for (const char c : Utf8ReplaceInvalid(text_)) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      case '\'':
        result += "&#39;";
        break;
      default:
        result += IsBlank(c) && c != '\n' ? ' ' : c;
    }
  }
  return result;
}

std::string OneLineOf(const std::string& text_) {
  std::string result;
  bool is_after_blank = true;
  for (const char c : text_) {
    if (!IsBlank(c)) {
      result += c;
    } else if (!is_after_blank) {
      result += ' ';
    }
    is_after_blank = IsBlank(c);
  }
  if (!result.empty() && result.back() == ' ') {
    result.pop_back();
  }
  return result;
}

std::string TimeElement(long long time_, long long now_) {
  if (time_ == 0) {
    return "";
  }
  const struct tm parts = LocalTime(time_);
  const struct tm now = LocalTime(now_);
  const bool is_today = parts.tm_year == now.tm_year && parts.tm_yday == now.tm_yday;
  char exact[64];
  char date[64];
  char of_day[64];
  strftime(exact, sizeof(exact), "%FT%T%z", &parts);
  strftime(date, sizeof(date), "%F ", &parts);
  strftime(of_day, sizeof(of_day), "%T", &parts);
  return Format("<time datetime=\"%s\">%s%s</time>", exact, is_today ? "" : date, of_day);
}

std::string HiddenField(const std::string& name_, const std::string& value_) {
  return "<input type=\"hidden\" name=\"" + Html(name_) + "\" value=\"" + Html(value_) + "\">";
}

std::string AboutSeconds(double seconds_) {
  const int seconds = static_cast<int>(lround(seconds_ < 1 ? 1 : seconds_));
  if (seconds < kShort) {
    return Format("About %d second%s", seconds, seconds == 1 ? "" : "s");
  }
  return Format("About %d minutes", static_cast<int>(lround(seconds / kSecondsPerMinute)));
}

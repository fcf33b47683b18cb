// Turns text into HTML.
#pragma once

#include <string>

// The text escaped for use as text or as a quoted attribute value. Control characters become
// blanks, invalid UTF-8 becomes U+FFFD.
std::string Html(const std::string& text_);

// The text in one line, not escaped, with one blank between words and none at the ends.
std::string OneLineOf(const std::string& text_);

// The element "time" with the local time, such as "10:32:05", and the date before it unless it is
// that of now_. time_: seconds since 1970; the result is empty for 0.
std::string TimeElement(long long time_, long long now_);

// A hidden field of a form.
std::string HiddenField(const std::string& name_, const std::string& value_);

// "About 4 seconds", "About 2 minutes".
std::string AboutSeconds(double seconds_);

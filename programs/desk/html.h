// Text on its way into a page.
#pragma once

#include <string>

// As text or as a quoted value of an attribute. Control characters become blanks, invalid UTF-8
// becomes U+FFFD.
std::string Html(const std::string& text_);

// The same in one line, with one blank for all white space between words and none at the ends.
std::string OneLineOf(const std::string& text_);

// Of seconds since 1970, in local time: the element "time" with "10:32:05", after the date unless
// that is of now_. Empty for 0.
std::string TimeElement(long long time_, long long now_);

// An element of a form that is not shown.
std::string HiddenField(const std::string& name_, const std::string& value_);

// "About 4 seconds", "About 2 minutes".
std::string AboutSeconds(double seconds_);

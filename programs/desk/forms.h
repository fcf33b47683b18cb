// Parses the texts that a browser sends: path, form and cookies. Each function accepts any bytes.
#pragma once

#include <stddef.h>

#include <map>
#include <string>

constexpr size_t kMaxFields = 64;
constexpr size_t kMaxFieldName = 64;  // Bytes.

// True if text_ is valid UTF-8 without control characters. Line ends ("\n") and tabs are allowed in
// a text of several lines.
bool IsCleanText(const std::string& text_, bool has_lines_);

// The path of a request without its percent-encoding.
// Throws a string unless it begins with "/" and is a clean text of one line.
std::string DecodePath(const std::string& path_);

// The fields of a body of type application/x-www-form-urlencoded. "\r\n" and "\r" become "\n". Of
// two fields with the same name, the last counts.
// Throws a string if the encoding is wrong, a name or a value is no clean text, or there are more
// fields, or longer names, than allowed.
std::map<std::string, std::string> ParseForm(const std::string& body_);

// The value of the cookie name_ in a header "Cookie"; empty if there is none.
std::string FindCookie(const std::string& header_, const std::string& name_);

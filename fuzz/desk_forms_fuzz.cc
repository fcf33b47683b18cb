// The texts that a browser sends. The input is a path, a header with cookies, and a body, a line
// each.
//
// Accepted values are UTF-8 without control characters and within the limits, and the same when
// they are encoded and parsed again.
#include <string.h>

#include "forms.h"
#include "fuzz.h"

namespace {

void RequireClean(const std::string& text_, const char* allowed_) {
  fuzz::Require(fuzz::IsUtf8(text_), "accepted text is UTF-8", text_);
  for (const char c : text_) {
    const auto code = static_cast<unsigned char>(c);
    const bool is_control = code < ' ' || code == 0x7F;
    fuzz::Require(!is_control || (c != '\0' && strchr(allowed_, c) != nullptr),
                  "accepted text has no control characters", text_);
  }
}

std::string Encoded(const std::string& text_) {
  std::string encoded;
  for (const char c : text_) {
    char piece[4];
    snprintf(piece, sizeof(piece), "%%%02x", static_cast<unsigned int>(static_cast<uint8_t>(c)));
    encoded += piece;
  }
  return encoded;
}

void TryPath(const std::string& path_) {
  std::string path;
  try {
    path = DecodePath(path_);
  } catch (const std::string&) {
    return;
  }
  RequireClean(path, "");
  fuzz::Require(path[0] == '/', "a path begins at the root", path);
  fuzz::Require(DecodePath(Encoded(path)) == path, "a path is found again", path);
}

void TryForm(const std::string& body_) {
  std::map<std::string, std::string> form;
  try {
    form = ParseForm(body_);
  } catch (const std::string&) {
    return;
  }
  fuzz::Require(form.size() <= kMaxFields, "there are not too many fields");
  std::string again;
  for (const auto& [name, value] : form) {
    fuzz::Require(!name.empty() && name.size() <= kMaxFieldName, "names are bounded", name);
    RequireClean(name, "");
    RequireClean(value, "\n\t");
    again += (again.empty() ? "" : "&") + Encoded(name) + "=" + Encoded(value);
  }
  fuzz::Require(ParseForm(again) == form, "the fields are found again", again);
}

void TryCookies(const std::string& header_) {
  for (const std::string name : {"desk", "__Host-desk", ""}) {
    const std::string value = FindCookie(header_, name);
    fuzz::Require(value.find(';') == std::string::npos, "a value has no semicolon", value);
    fuzz::Require(value.empty() || header_.find(name + "=" + value) != std::string::npos,
                  "the value is in the header", value);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  fuzz::Input input(data_, size_);
  TryPath(input.Line());
  TryCookies(input.Line());
  TryForm(input.Rest());
  return 0;
}

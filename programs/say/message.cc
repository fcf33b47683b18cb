#include "message.h"

#include <stdint.h>
#include <string.h>
#include <utf8.h>

#include <iterator>
#include <map>
#include <vector>

#include "charencoding.h"
#include "format.h"

namespace {

constexpr size_t kMaxMessageBytes = 65536;  // The daemon ignores the rest of a text file.

std::string ToUtf16(const std::string& text_) {
  std::vector<uint16_t> units;
  utf8::utf8to16(text_.begin(), text_.end(), std::back_inserter(units));
  std::string bytes;
  for (const uint16_t unit : units) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8);
  }
  return bytes;
}

// The inverse of the daemon's own table of extended ASCII.
std::map<std::string, char> ExtAsciiBytes() {
  std::map<std::string, char> bytes;
  for (int byte = 1; byte < 256; ++byte) {
    const std::string character = ExtAsciiToUtf8Char(static_cast<char>(byte));
    if (Utf8IsValid(character)) {
      bytes.emplace(character, static_cast<char>(byte));
    }
  }
  return bytes;
}

std::string ToExtAscii(const std::string& text_) {
  const std::map<std::string, char> bytes = ExtAsciiBytes();
  std::string result;
  for (auto next = text_.begin(); next != text_.end();) {
    const auto start = next;
    const uint32_t cp = utf8::next(next, text_.end());
    const std::string character(start, next);
    const auto found = bytes.find(character);
    if (found == bytes.end()) {
      throw Format("\"%s\" (U+%04X) cannot be expressed in \"ascii\"", character.c_str(), cp);
    }
    result += found->second;
  }
  return result;
}

}  // namespace

bool HasWords(const std::string& text_) {
  for (auto next = text_.begin(); next != text_.end();) {
    const uint32_t cp = utf8::next(next, text_.end());
    if (!Utf8IsBreak(cp) && !Utf8IsControl(cp)) {
      return true;
    }
  }
  return false;
}

std::string Encode(std::string text_, const std::string& encoding_) {
  constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";
  if (!Utf8IsValid(text_)) {
    throw std::string("the text is not valid UTF-8");
  }
  // The daemon would treat the mark as a part of the first word.
  if (text_.compare(0, strlen(kByteOrderMark), kByteOrderMark) == 0) {
    text_.erase(0, strlen(kByteOrderMark));
  }
  if (!HasWords(text_)) {
    throw std::string("there is nothing to say");
  }
  if (encoding_ == "utf16") {
    text_ = ToUtf16(text_);
  } else if (encoding_ == "ascii") {
    text_ = ToExtAscii(text_);
  }
  if (text_.size() > kMaxMessageBytes) {
    throw Format("the message is too long: %zu bytes in \"%s\", of which the daemon reads %zu",
                 text_.size(), encoding_.c_str(), kMaxMessageBytes);
  }
  return text_;
}

#include "charencoding.h"

#include <utf8.h>

#include <iterator>

namespace {

bool IsBetween(uint32_t cp, uint32_t first, uint32_t last) { return cp >= first && cp <= last; }

}  // namespace

bool Utf8IsLetterOrNum(uint32_t cp) {
  return IsBetween(cp, 0x30, 0x3F) || IsBetween(cp, 0x41, 0x5A) || IsBetween(cp, 0x61, 0x7A) ||
         IsBetween(cp, 0xC0, 0xD6) || IsBetween(cp, 0xD8, 0xF6) || IsBetween(cp, 0xF8, 0xFF);
}

bool Utf8IsBreak(uint32_t cp) {
  switch (cp) {
    case ' ':
    case '!':
    case ',':
    case '.':
    case ':':
    case ';':
    case '?':
    case 0xA0:
      return true;
    default:
      return false;
  }
}

bool Utf8IsSpace(uint32_t cp) { return cp == 0x20 || cp == 0xA0; }

bool Utf8IsControl(uint32_t cp) { return cp <= 0x1F || IsBetween(cp, 0x7F, 0x9F); }

std::string ExtAsciiToUtf8Char(char c) {
  const unsigned char byte = static_cast<unsigned char>(c);
  if (byte == 0x00) {
    return "";
  }
  if (byte < 0x80) {
    return std::string(1, c);
  }
  if (byte >= 0xC0) {
    return {'\xC3', static_cast<char>(byte - 0x40)};
  }
  switch (byte) {
    case 0xA0:
      return "\xC3\xA1";  // a with acute
    case 0xA1:
      return "\xC3\xAD";  // i with acute
    case 0xA2:
      return "\xC3\xB3";  // o with acute
    case 0xA3:
      return "\xC3\xBA";  // u with acute
    case 0xA4:
      return "\xC3\xB1";  // n with tilde
    case 0xA5:
      return "\xC3\x91";  // N with tilde
    case 0xA8:
      return "\xC2\xBF";  // inverted question mark
    case 0xAD:
      return "\xC2\xA1";  // inverted exclamation mark
    default:
      return {'\xC2', static_cast<char>(byte - 0x20)};
  }
}

std::string ExtAsciiToUtf8String(const std::string& orig) {
  std::string text;
  for (const char c : orig) {
    text += ExtAsciiToUtf8Char(c);
  }
  return text;
}

bool Utf8IsValid(const std::string& text_) {
  return utf8::find_invalid(text_.begin(), text_.end()) == text_.end();
}

std::string Utf8ReplaceInvalid(const std::string& text_) {
  std::string mended;
  utf8::replace_invalid(text_.begin(), text_.end(), std::back_inserter(mended), 0xFFFD);
  return mended;
}

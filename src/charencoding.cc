#include "charencoding.h"

#include <string.h>
#include <utf8.h>

#include <iterator>

namespace {

constexpr uint64_t kNotAscii = 0x8080808080808080;  // The bits that no ASCII byte has.

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Where the ASCII bytes from p on end. In blocks, whose bytes the compiler takes all at once:
// message texts are mostly ASCII, and at a step a byte the check would cost more than the reading.
const unsigned char* SkipAscii(const unsigned char* p, const unsigned char* end) {
  uint64_t words[4];
  while (static_cast<size_t>(end - p) >= sizeof(words)) {
    memcpy(words, p, sizeof(words));
    if (((words[0] | words[1] | words[2] | words[3]) & kNotAscii) != 0) {
      break;
    }
    p += sizeof(words);
  }
  while (static_cast<size_t>(end - p) >= sizeof(words[0])) {
    memcpy(words, p, sizeof(words[0]));
    if ((words[0] & kNotAscii) != 0) {
      break;
    }
    p += sizeof(words[0]);
  }
  while (p < end && *p < 0x80) {
    ++p;
  }
  return p;
}

// The length of the valid sequence of two to four bytes at p; 0 if there is none. Overlong forms,
// surrogates and code points above U+10FFFF show in the second byte at the latest.
size_t SequenceLength(const unsigned char* p, size_t available) {
  const unsigned char lead = p[0];
  if (lead < 0xE0) {
    return lead >= 0xC2 && available >= 2 && IsContinuation(p[1]) ? 2 : 0;
  }
  if (lead < 0xF0) {
    const unsigned char lowest = lead == 0xE0 ? 0xA0 : 0x80;
    const unsigned char highest = lead == 0xED ? 0x9F : 0xBF;
    return available >= 3 && p[1] >= lowest && p[1] <= highest && IsContinuation(p[2]) ? 3 : 0;
  }
  if (lead < 0xF5) {
    const unsigned char lowest = lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char highest = lead == 0xF4 ? 0x8F : 0xBF;
    return available >= 4 && p[1] >= lowest && p[1] <= highest && IsContinuation(p[2]) &&
                   IsContinuation(p[3])
               ? 4
               : 0;
  }
  return 0;
}

void AppendExtAscii(std::string& text, char c) {
  const unsigned char byte = static_cast<unsigned char>(c);
  if (byte < 0x80) {
    if (byte != 0x00) {
      text += c;
    }
    return;
  }
  if (byte >= 0xC0) {
    text += '\xC3';
    text += static_cast<char>(byte - 0x40);
    return;
  }
  switch (byte) {
    case 0xA0:
      text += "\xC3\xA1";  // a with acute
      break;
    case 0xA1:
      text += "\xC3\xAD";  // i with acute
      break;
    case 0xA2:
      text += "\xC3\xB3";  // o with acute
      break;
    case 0xA3:
      text += "\xC3\xBA";  // u with acute
      break;
    case 0xA4:
      text += "\xC3\xB1";  // n with tilde
      break;
    case 0xA5:
      text += "\xC3\x91";  // N with tilde
      break;
    case 0xA8:
      text += "\xC2\xBF";  // inverted question mark
      break;
    case 0xAD:
      text += "\xC2\xA1";  // inverted exclamation mark
      break;
    default:
      text += '\xC2';
      text += static_cast<char>(byte - 0x20);
  }
}

}  // namespace

std::string ExtAsciiToUtf8Char(char c) {
  std::string text;
  AppendExtAscii(text, c);
  return text;
}

std::string ExtAsciiToUtf8String(const std::string& orig) {
  std::string text;
  text.reserve(orig.size());
  for (const char c : orig) {
    AppendExtAscii(text, c);
  }
  return text;
}

bool Utf8IsValid(const std::string& text_) {
  const auto* p = reinterpret_cast<const unsigned char*>(text_.data());
  const unsigned char* const end = p + text_.size();
  while ((p = SkipAscii(p, end)) < end) {
    do {
      const size_t length = SequenceLength(p, static_cast<size_t>(end - p));
      if (length == 0) {
        return false;
      }
      p += length;
    } while (p < end && *p >= 0x80);
  }
  return true;
}

std::string Utf8ReplaceInvalid(const std::string& text_) {
  std::string mended;
  utf8::replace_invalid(text_.begin(), text_.end(), std::back_inserter(mended), 0xFFFD);
  return mended;
}

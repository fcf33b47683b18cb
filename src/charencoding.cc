#include "charencoding.h"

#include <string.h>
#include <utf8.h>

#include <iterator>

#include "debug.h"

namespace {

constexpr uint64_t kNotAscii = 0x8080808080808080;  // The bits that no ASCII byte has.

bool IsContinuation(unsigned char byte_) { return (byte_ & 0xC0) == 0x80; }

// The number of ASCII bytes before the first other one in memory. REQUIRES: there is another one.
size_t LeadingAscii(uint64_t word_) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  // NOMUTATE(constant): 7, 15, ... 63 divided by 9 give the same.
  return static_cast<size_t>(__builtin_ctzll(word_ & kNotAscii)) / 8;
#else
  // NOMUTATE(operator, constant): compiled on other machines only.
  return static_cast<size_t>(__builtin_clzll(word_ & kNotAscii)) / 8;
#endif
}

// The end of the ASCII bytes from p_ on. Checks 16 bytes at once: message texts are mostly ASCII,
// and a step for each byte would take more time than reading the file.
const unsigned char* SkipAscii(const unsigned char* p_, const unsigned char* end_) {
  uint64_t words[2];
  // NOMUTATE(condition): steps over all that it reads; asan notices.
  while (static_cast<size_t>(end_ - p_) >= sizeof(words)) {
    memcpy(words, p_, sizeof(words));
    // NOMUTATE(constant): asan notices what is outside the array.
    if (((words[0] | words[1]) & kNotAscii) != 0) {
      // NOMUTATE(constant): compilers warn that it is always true.
      return (words[0] & kNotAscii) != 0 ? p_ + LeadingAscii(words[0])
                                         // NOMUTATE(operator): asan notices; it comes here again.
                                         : p_ + sizeof(words[0]) + LeadingAscii(words[1]);
    }
    p_ += sizeof(words);
  }
  // NOMUTATE(operator): only steps over the zero byte after the text.
  while (p_ < end_ && *p_ < 0x80) {
    ++p_;
  }
  return p_;
}

// Steps over one valid sequence of three or four bytes. False if there is none at p_. Overlong
// forms, surrogates and code points above U+10FFFF show in the second byte at the latest.
//
// Each length has its own return, so that the branch predictor knows where the next sequence
// starts.
bool SkipLongSequence(const unsigned char*& p_, const unsigned char* end_) {
  const unsigned char lead = p_[0];
  const auto available = end_ - p_;
  if (lead < 0xE0) {  // NOMUTATE(constant): 0xDF without its second byte fails in any case.
    return false;
  }
  if (lead < 0xF0) {
    const unsigned char lowest = lead == 0xE0 ? 0xA0 : 0x80;
    const unsigned char highest = lead == 0xED ? 0x9F : 0xBF;
    // NOMUTATE(constant): the zero byte after the text continues nothing.
    if (available < 3 || p_[1] < lowest || p_[1] > highest || !IsContinuation(p_[2])) {
      return false;
    }
    p_ += 3;
    return true;
  }
  const unsigned char lowest = lead == 0xF0 ? 0x90 : 0x80;
  const unsigned char highest = lead == 0xF4 ? 0x8F : 0xBF;
  // NOMUTATE(constant): the zero byte after the text continues nothing.
  if (lead > 0xF4 || available < 4 || p_[1] < lowest || p_[1] > highest || !IsContinuation(p_[2]) ||
      !IsContinuation(p_[3])) {
    return false;
  }
  p_ += 4;
  return true;
}

void AppendExtAscii(std::string& text_, char c_) {
  const unsigned char byte = static_cast<unsigned char>(c_);
  if (byte < 0x80) {
    if (byte != 0x00) {
      text_ += c_;
    }
    return;
  }
  if (byte >= 0xC0) {
    text_ += '\xC3';
    text_ += static_cast<char>(byte - 0x40);
    return;
  }
  switch (byte) {
    case 0xA0:
      text_ += "\xC3\xA1";  // a with acute
      break;
    case 0xA1:
      text_ += "\xC3\xAD";  // i with acute
      break;
    case 0xA2:
      text_ += "\xC3\xB3";  // o with acute
      break;
    case 0xA3:
      text_ += "\xC3\xBA";  // u with acute
      break;
    case 0xA4:
      text_ += "\xC3\xB1";  // n with tilde
      break;
    case 0xA5:
      text_ += "\xC3\x91";  // N with tilde
      break;
    case 0xA8:
      text_ += "\xC2\xBF";  // inverted question mark
      break;
    case 0xAD:
      text_ += "\xC2\xA1";  // inverted exclamation mark
      break;
    default:
      text_ += '\xC2';
      text_ += static_cast<char>(byte - 0x20);
  }
}

}  // namespace

std::string ExtAsciiToUtf8Char(char c_) {
  std::string text;
  AppendExtAscii(text, c_);
  return text;
}

std::string ExtAsciiToUtf8String(const std::string& orig_) {
  std::string text;
  text.reserve(orig_.size());  // NOMUTATE(call): only saves requests to the heap.
  for (const char c : orig_) {
    AppendExtAscii(text, c);
  }
  return text;
}

bool Utf8IsValid(const std::string& text_) {
  const auto* p = reinterpret_cast<const unsigned char*>(text_.data());
  const unsigned char* const end = p + text_.size();
  while ((p = SkipAscii(p, end)) < end) {
    // Texts in other scripts are mostly two-byte sequences with single spaces between words.
    // SkipAscii would slow these texts down.
    bool is_run = true;
    while (is_run) {
      while (end - p >= 2 && p[0] >= 0xC2 && p[0] < 0xE0 && IsContinuation(p[1])) {
        p += 2;
      }
      // NOMUTATE(operator, constant): a short cut to the same place.
      if (end - p >= 2 && p[0] < 0x80 && p[1] >= 0x80) {
        ++p;
      } else if (p < end && *p >= 0x80) {
        if (!SkipLongSequence(p, end)) {
          return false;
        }
      } else {
        is_run = false;
      }
    }
  }
  return true;
}

std::string Utf8ReplaceInvalid(const std::string& text_) {
  std::string valid;
  utf8::replace_invalid(text_.begin(), text_.end(), std::back_inserter(valid), 0xFFFD);
  return valid;
}

std::string ToValidUtf8(std::string text_, unsigned int mask_, const char* reencoding_,
                        void (*inspect_)(const std::string&)) {
  try {
    if (Utf8IsValid(text_)) {
      Debug(mask_, "Original is valid UTF-8");
      return text_;
    }
    Debug(mask_, "%s", reencoding_);
    text_ = Utf8ReplaceInvalid(text_);
    if (inspect_ != nullptr) {
      inspect_(text_);
    }
    if (Utf8IsValid(text_)) {
      return text_;
    }
    Debug(kDebugNormal, "Unable to re-encode as UTF-8");  // NOMUTATE(call, text): not reached.
  } catch (const utf8::exception& e) {
    // NOMUTATE(call, text): not reached.
    Debug(kDebugNormal, "Error checking encoding: %s", e.what());
  }
  return "";
}

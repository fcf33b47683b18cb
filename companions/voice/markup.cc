#include "markup.h"

#include <locale.h>
#include <stdint.h>
#include <string.h>
#include <utf8.h>
#include <wctype.h>

#include <algorithm>
#include <iterator>

namespace {

// The length of the pause tag at position_ of text_; 0 if there is none.
size_t TagLength(const std::string& text_, size_t position_) {
  constexpr char kHead[] = "\\pau=";
  constexpr size_t kHeadLength = sizeof(kHead) - 1;
  constexpr size_t kMostDigits = 4;
  if (text_.compare(position_, kHeadLength, kHead) != 0) {
    return 0;
  }
  size_t end = position_ + kHeadLength;
  while (end < text_.size() && text_[end] >= '0' && text_[end] <= '9') {
    ++end;
  }
  const size_t digits = end - position_ - kHeadLength;
  const bool is_tag = digits >= 1 && digits <= kMostDigits && text_[end] == '\\';
  return is_tag ? end + 1 - position_ : 0;
}

// text_ with its pause tags replaced by of_tag_ and its other bytes by of_byte_.
std::string Rewritten(const std::string& text_, std::string (*of_tag_)(const std::string&),
                      std::string (*of_byte_)(char)) {
  std::string result;
  for (size_t i = 0; i < text_.size();) {
    const size_t length = TagLength(text_, i);
    result += length > 0 ? of_tag_(text_.substr(i, length)) : of_byte_(text_[i]);
    i += length > 0 ? length : 1;
  }
  return result;
}

// A pause tag in SSML. Without a strength, the engine drops a break at the start of the text.
std::string Break(const std::string& tag_) {
  const size_t digits = tag_.find('=') + 1;
  return "<break time=\"" + tag_.substr(digits, tag_.size() - digits - 1) +
         "ms\" strength=\"weak\"/>";
}

std::string Escaped(char c_) {
  return c_ == '&' ? "&amp;" : c_ == '<' ? "&lt;" : c_ == '>' ? "&gt;" : std::string(1, c_);
}

}  // namespace

std::string Cleaned(const std::string& text_) {
  std::string text;
  utf8::replace_invalid(text_.begin(), text_.end(), std::back_inserter(text), ' ');
  for (char& c : text) {
    const auto code = static_cast<unsigned char>(c);
    c = code < ' ' || code == 0x7f ? ' ' : c;
  }
  text.resize(text.find_last_not_of(' ') + 1);
  return text;
}

std::string MarkedUp(const std::string& text_) { return Rewritten(text_, Break, Escaped); }

bool HasWords(const std::string& text_) {
  const std::string plain = Rewritten(
      text_, [](const std::string& /*tag*/) { return std::string(" "); },
      [](char c_) { return std::string(1, c_); });
  // In the locale "C", only ASCII has letters.
  const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const bool has_words = std::any_of(
      utf8::iterator<std::string::const_iterator>(plain.begin(), plain.begin(), plain.end()),
      utf8::iterator<std::string::const_iterator>(plain.end(), plain.begin(), plain.end()),
      [locale](uint32_t code_) { return iswalnum_l(static_cast<wint_t>(code_), locale) != 0; });
  freelocale(locale);
  return has_words;
}

int PauseAfter(const std::string& text_) {
  const char last = text_.empty() ? ' ' : text_.back();
  return strchr(".!?", last) != nullptr ? 250 : strchr(",:;", last) != nullptr ? 120 : 40;
}

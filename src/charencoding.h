// Character classes, conversion of single-byte message files, and the checking and repair of UTF-8.
//
// The classifiers take a code point; none above 0xFF belongs to any class.
#pragma once

#include <stdint.h>

#include <string>

// 0x30-0x3F (digits, but also : ; < = > ?), A-Z, a-z and the Latin-1 letters without the
// multiplication sign 0xD7 and the division sign 0xF7.
constexpr bool Utf8IsLetterOrNum(uint32_t cp_) {
  return (cp_ >= 0x30 && cp_ <= 0x3F) || (cp_ >= 0x41 && cp_ <= 0x5A) ||
         (cp_ >= 0x61 && cp_ <= 0x7A) || (cp_ >= 0xC0 && cp_ <= 0xFF && cp_ != 0xD7 && cp_ != 0xF7);
}

// Blank, no-break space and ! , . : ; ?
constexpr bool Utf8IsBreak(uint32_t cp_) {
  return cp_ == ' ' || cp_ == '!' || cp_ == ',' || cp_ == '.' || cp_ == ':' || cp_ == ';' ||
         cp_ == '?' || cp_ == 0xA0;
}

// Blank and no-break space.
constexpr bool Utf8IsSpace(uint32_t cp_) { return cp_ == ' ' || cp_ == 0xA0; }

// 0x00-0x1F (tab and line ends among them) and 0x7F-0x9F.
constexpr bool Utf8IsControl(uint32_t cp_) { return cp_ <= 0x1F || (cp_ >= 0x7F && cp_ <= 0x9F); }

// The UTF-8 text of one byte of an extended-ASCII file: ISO 8859-1 in 0xC0-0xFF, the Spanish
// characters of code page 437 at 0xA0-0xA5, 0xA8 and 0xAD. A zero byte yields nothing. The other
// bytes 0x80-0xBF become 0xC2 and the byte less 0x20. For 0x80-0x9F that is not valid UTF-8:
// readers replace the 0xC2 by U+FFFD and keep the second byte, an ASCII character.
std::string ExtAsciiToUtf8Char(char c_);

// ExtAsciiToUtf8Char of every byte, in order.
std::string ExtAsciiToUtf8String(const std::string& orig_);

// True if text_ holds no invalid UTF-8 sequence.
bool Utf8IsValid(const std::string& text_);

// text_ with every invalid sequence replaced by U+FFFD. May throw utf8::exception.
std::string Utf8ReplaceInvalid(const std::string& text_);

// text_ if it is valid UTF-8, else Utf8ReplaceInvalid of it; empty, with the reason logged, if that
// is not possible. Logs at class mask_ that the text is valid, or reencoding_ before it replaces
// anything. inspect_, if given, is called with the text after the replacement.
std::string ToValidUtf8(std::string text_, unsigned int mask_, const char* reencoding_,
                        void (*inspect_)(const std::string&) = nullptr);

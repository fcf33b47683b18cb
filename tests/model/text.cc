#include "model/text.h"

#include <string.h>
#include <utf8.h>

#include <iterator>
#include <set>

namespace model {

namespace {

constexpr int kMaxMessageChars = 65536;
constexpr int kMaxWordChars = 100;

bool IsSpace(uint32_t cp_) { return cp_ == 0x20 || cp_ == 0xA0; }

bool IsControl(uint32_t cp_) { return cp_ < 0x20 || (cp_ >= 0x7F && cp_ < 0xA0); }

bool IsPunctuation(uint32_t cp_) {
  return cp_ > 0 && cp_ < 0x80 && strchr("!,.:;?", static_cast<int>(cp_)) != nullptr;
}

bool IsPointOrComma(char c_) { return c_ == '.' || c_ == ','; }

}  // namespace

uint16_t CRC(uint16_t crc_, const std::string& bytes_) {
  for (const char byte : bytes_) {
    crc_ = static_cast<uint16_t>(crc_ ^ static_cast<unsigned char>(byte));
    for (int bit = 0; bit < 8; ++bit) {
      crc_ = static_cast<uint16_t>((crc_ & 1) != 0 ? (crc_ >> 1) ^ 0x8408 : crc_ >> 1);
    }
  }
  return crc_;
}

std::string Encode(uint32_t cp_) {
  const auto trail = [cp_](int shift_) { return static_cast<char>(0x80 | (cp_ >> shift_ & 0x3F)); };
  if (cp_ < 0x80) {
    return {static_cast<char>(cp_)};
  }
  if (cp_ < 0x800) {
    return {static_cast<char>(0xC0 | cp_ >> 6), trail(0)};
  }
  if (cp_ < 0x10000) {
    return {static_cast<char>(0xE0 | cp_ >> 12), trail(6), trail(0)};
  }
  return {static_cast<char>(0xF0 | cp_ >> 18), trail(12), trail(6), trail(0)};
}

std::string Encode(const std::vector<uint32_t>& text_) {
  std::string encoded;
  for (const uint32_t cp : text_) {
    encoded += Encode(cp);
  }
  return encoded;
}

std::vector<uint32_t> Decode(const std::string& text_) {
  const std::string valid = ReplaceInvalid(text_);
  std::vector<uint32_t> text;
  for (auto next = valid.begin(); next != valid.end();) {
    text.push_back(utf8::next(next, valid.end()));
  }
  return text;
}

bool IsUtf8(const std::string& text_) {
  return utf8::find_invalid(text_.begin(), text_.end()) == text_.end();
}

std::string ReplaceInvalid(const std::string& text_) {
  std::string valid;
  utf8::replace_invalid(text_.begin(), text_.end(), std::back_inserter(valid), 0xFFFD);
  return valid;
}

std::string FromExtendedAscii(unsigned char byte_) {
  static const std::map<unsigned char, std::string> spanish = {
      {0xA0, "á"}, {0xA1, "í"}, {0xA2, "ó"}, {0xA3, "ú"},
      {0xA4, "ñ"}, {0xA5, "Ñ"}, {0xA8, "¿"}, {0xAD, "¡"}};
  if (const auto found = spanish.find(byte_); found != spanish.end()) {
    return found->second;
  }
  if (byte_ == 0) {
    return "";
  }
  if (byte_ >= 0x80 && byte_ < 0xC0) {
    return {'\xC2', static_cast<char>(byte_ - 0x20)};
  }
  return Encode(byte_);
}

Splitting::Splitting(const std::vector<uint32_t>& text_) {
  for (const uint32_t cp : text_) {
    Take(cp);
  }
  if (!word.empty()) {
    words.push_back(word);
  }
}

void Splitting::Take(uint32_t cp_) {
  if (++message_chars > kMaxMessageChars) {
    log += "Too many characters\n";
    return;
  }
  const bool is_gap = IsSpace(cp_) || IsControl(cp_);
  if (!is_gap) {
    if (++word_chars > kMaxWordChars) {
      log += "Word too long\n";
    } else {
      word += Encode(cp_);
    }
  }
  if ((is_gap || IsPunctuation(cp_)) && !word.empty()) {
    const bool is_lone_mark = IsPunctuation(cp_) && word_chars == 1;
    if (!is_lone_mark || !follows_punctuation) {
      words.push_back(word);
    }
    word.clear();
    word_chars = 0;
  }
  follows_punctuation = IsPunctuation(cp_);
}

std::vector<Words> Snippets(const Words& words_, int limit_, int loops_) {
  std::vector<Words> snippets;
  for (int plays = 0; plays == 0 || plays < loops_; ++plays) {
    Words snippet;
    for (const std::string& word : words_) {
      snippet.push_back(word);
      const auto count = static_cast<int64_t>(snippet.size());
      if (limit_ <= 0 || count >= int64_t{2} * limit_ ||
          (count > limit_ && IsPointOrComma(word.back()))) {
        snippets.push_back(snippet);
        snippet.clear();
      }
    }
    if (!snippet.empty()) {
      snippets.push_back(snippet);
    }
  }
  return snippets;
}

std::string Speech(const std::map<std::string, std::string>& entries_, const std::string& word_) {
  std::string key = word_;
  while (key.size() >= 2 && IsPointOrComma(key.front())) {
    key.erase(0, 1);
  }
  while (key.size() >= 2 && IsPointOrComma(key.back())) {
    key.pop_back();
  }
  const auto found = entries_.find(key);
  if (found == entries_.end()) {
    return word_;
  }
  // The speech replaces as many bytes as the key has, from the first byte that is in the key.
  const size_t before = key.empty() ? std::string::npos : word_.find_first_of(key);
  if (before == std::string::npos) {
    return found->second;
  }
  const size_t after = std::min(before + key.size(), word_.size());
  return word_.substr(0, before) + found->second + word_.substr(after);
}

}  // namespace model

// The rules for words, snippets and glossary told a second time: plainly, step by step, and
// without any of the daemon's code, for tests and fuzzers to hold the daemon against.
#pragma once

#include <stdint.h>
#include <string.h>

#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace retelling {

using Words = std::list<std::string>;

inline std::string Encode(uint32_t cp) {
  const auto trail = [cp](int shift) { return static_cast<char>(0x80 | (cp >> shift & 0x3F)); };
  if (cp < 0x80) {
    return {static_cast<char>(cp)};
  }
  if (cp < 0x800) {
    return {static_cast<char>(0xC0 | cp >> 6), trail(0)};
  }
  if (cp < 0x10000) {
    return {static_cast<char>(0xE0 | cp >> 12), trail(6), trail(0)};
  }
  return {static_cast<char>(0xF0 | cp >> 18), trail(12), trail(6), trail(0)};
}

inline std::string EncodeText(const std::vector<uint32_t>& text) {
  std::string encoded;
  for (const uint32_t cp : text) {
    encoded += Encode(cp);
  }
  return encoded;
}

// The words of a text, and what the log says of them.
class Splitting {
 public:
  explicit Splitting(const std::vector<uint32_t>& text) {
    for (const uint32_t cp : text) {
      Take(cp);
    }
    if (!word_.empty()) {
      words.push_back(word_);
    }
  }
  Words words;
  std::string log;

 private:
  static bool IsSpace(uint32_t cp) { return cp == 0x20 || cp == 0xA0; }
  static bool IsControl(uint32_t cp) { return cp < 0x20 || (cp >= 0x7F && cp < 0xA0); }
  static bool IsBreak(uint32_t cp) {
    return IsSpace(cp) ||
           (cp < 0x80 && strchr("!,.:;?", static_cast<int>(cp)) != nullptr && cp != 0);
  }

  void Take(uint32_t cp) {
    message_chars_ += 1;
    if (message_chars_ > 65536) {
      log += "Too many characters\n";
      return;
    }
    if (!IsSpace(cp) && !IsControl(cp)) {
      word_chars_ += 1;
      if (word_chars_ == 2) {
        word_is_single_char_ = false;
      }
      if (word_chars_ > 100) {
        log += "Word too long\n";
      } else {
        word_ += Encode(cp);
      }
    }
    if ((IsBreak(cp) || IsControl(cp)) && !word_.empty()) {
      if (!(word_is_single_char_ && last_char_not_break_ && IsBreak(cp))) {
        words.push_back(word_);
      }
      word_.clear();
      word_is_single_char_ = true;
      word_chars_ = 0;
    }
    last_char_not_break_ = IsBreak(cp) && !IsSpace(cp);
  }

  std::string word_;
  int message_chars_ = 0;
  int word_chars_ = 0;
  bool word_is_single_char_ = true;
  bool last_char_not_break_ = true;
};

// All snippets that the plays of a message yield.
inline std::vector<Words> Snippets(const std::vector<std::string>& words, int limit, int loops) {
  std::vector<Words> snippets;
  for (int plays = 0; plays == 0 || plays < loops; ++plays) {
    size_t position = 0;
    while (position < words.size()) {
      Words snippet;
      for (int64_t number = 1; position < words.size(); ++number) {
        const std::string& word = words[position];
        ++position;
        snippet.push_back(word);
        if (limit <= 0) {
          break;
        }
        if (number <= limit) {
          continue;
        }
        const char last = word[word.size() - 1];
        if (last == '.' || last == ',' || number == int64_t{2} * limit) {
          break;
        }
      }
      snippets.push_back(snippet);
    }
  }
  return snippets;
}

// A word as a glossary with these entries has it spoken.
inline std::string Speech(const std::map<std::string, std::string>& entries,
                          const std::string& word) {
  std::string key = word;
  while (key.size() >= 2 && (key[0] == '.' || key[0] == ',')) {
    key = key.substr(1);
  }
  while (key.size() >= 2 && (key[key.size() - 1] == '.' || key[key.size() - 1] == ',')) {
    key.pop_back();
  }
  if (entries.count(key) == 0) {
    return word;
  }
  const std::set<char> key_bytes(key.begin(), key.end());
  std::string before;
  size_t i = 0;
  while (i < word.size() && key_bytes.count(word[i]) == 0) {
    before += word[i++];
  }
  if (i == word.size()) {
    return entries.at(key);
  }
  std::string after;
  for (i += key.size(); i < word.size(); ++i) {
    after += word[i];
  }
  return before + entries.at(key) + after;
}

}  // namespace retelling

// The rules for bytes, characters, words, snippets and speech, in their plainest form and without
// any of the daemon's code, for tests and fuzzers to compare the daemon with.
#pragma once

#include <stdint.h>

#include <list>
#include <map>
#include <string>
#include <vector>

namespace model {

using Words = std::list<std::string>;

// The checksum, continued over the bytes one bit at a time.
uint16_t CRC(uint16_t crc_, const std::string& bytes_);

// UTF-8 of code points, and the code points of a text, with U+FFFD for what is invalid.
std::string Encode(uint32_t cp_);
std::string Encode(const std::vector<uint32_t>& text_);
std::vector<uint32_t> Decode(const std::string& text_);
bool IsUtf8(const std::string& text_);
std::string ReplaceInvalid(const std::string& text_);

// The UTF-8 of an extended-ASCII byte. For 0x80 to 0x9F it is invalid, as the rule says.
std::string FromExtendedAscii(unsigned char byte_);

// The words of a text, and the lines that the log has about them.
struct Splitting {
  explicit Splitting(const std::vector<uint32_t>& text_);

  Words words;
  std::string log;

 private:
  void Take(uint32_t cp_);

  std::string word;
  int message_chars = 0;
  int word_chars = 0;
  bool follows_punctuation = true;
};

// All snippets that the plays of a message yield.
std::vector<Words> Snippets(const Words& words_, int limit_, int loops_);

// A word after replacement by a glossary with these entries.
std::string Speech(const std::map<std::string, std::string>& entries_, const std::string& word_);

}  // namespace model

// Plain text message files in one of three encodings.
#pragma once

#include <string>

#include "fileparser.h"

class TextFileParser : public FileParser {
 public:
  // encoding_ is "utf16" (little-endian; a byte-order mark is a character like any other),
  // "ascii" (see ExtAsciiToUtf8Char), or anything else for UTF-8.
  explicit TextFileParser(const std::string& encoding_);

  // The text of the first 65536 bytes of the file. Invalid UTF-8 is replaced by U+FFFD;
  // undecodable UTF-16 and an unreadable file yield the empty string. Never throws a string.
  std::string ParseFile(const std::string& path_) const override;

 private:
  std::string encoding;
};

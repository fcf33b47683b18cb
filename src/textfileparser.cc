#include "textfileparser.h"

#include <stdint.h>
#include <stdio.h>
#include <utf8.h>

#include <iterator>
#include <utility>
#include <vector>

#include "charencoding.h"
#include "debug.h"
#include "format.h"

namespace {

constexpr size_t kMaxFileBytes = 65536;

std::string ReadContent(const std::string& path) {
  char buffer[kMaxFileBytes];
  const size_t length = InputFile(path).Read(buffer, sizeof(buffer));
  return std::string(buffer, length);
}

std::string FromUtf16(const std::string& content) {
  Debug(kDebugTrace, "Encoding from UTF-16 to UTF-8");
  std::vector<uint16_t> units((content.size() + 1) / 2);
  for (size_t i = 0; i < content.size(); ++i) {
    const unsigned int byte = static_cast<unsigned char>(content[i]);
    units[i / 2] = static_cast<uint16_t>(units[i / 2] | (i % 2 == 0 ? byte : byte << 8));
  }
  try {
    std::string text;
    utf8::utf16to8(units.begin(), units.end(), std::back_inserter(text));
    return text;
  } catch (const utf8::exception& e) {
    Debug(kDebugNormal, "Error converting from UTF-16 to UTF-8: %s", e.what());
    return "";
  }
}

// On standard output, whatever the debug mask; flushed so that it keeps its place among the time
// stamps that a child process writes there.
void DumpBytes(const std::string& text) {
  for (const char c : text) {
    printf("0x%02x ", static_cast<unsigned int>(static_cast<unsigned char>(c)));
  }
  printf("\n\r");
  fflush(stdout);
}

std::string ToValidUtf8(std::string content) {
  try {
    if (Utf8IsValid(content)) {
      Debug(kDebugNormal, "Original is valid UTF-8");
      return content;
    }
    Debug(kDebugNormal, "Re-encoding file to UTF-8");
    std::string text = Utf8ReplaceInvalid(content);
    Debug(kDebugNormal, "re-encode");
    DumpBytes(text);
    if (Utf8IsValid(text)) {
      return text;
    }
    Debug(kDebugNormal, "Unable to re-encode as UTF-8");
  } catch (const utf8::exception& e) {
    Debug(kDebugNormal, "Error checking encoding: %s", e.what());
  }
  return "";
}

}  // namespace

TextFileParser::TextFileParser(const std::string& encoding_) : encoding(encoding_) {}

std::string TextFileParser::ParseFile(const std::string& path_) const {
  std::string text = ReadContent(path_);
  if (encoding == "utf16") {
    text = FromUtf16(text);
  } else {
    if (encoding == "ascii") {
      text = ExtAsciiToUtf8String(text);
    }
    text = ToValidUtf8(std::move(text));
  }
  Debug(kDebugNormal, "From %s: %s", path_.c_str(), text.c_str());
  return text;
}

#include "textfileparser.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <utf8.h>

#include <exception>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include "charencoding.h"
#include "debug.h"
#include "format.h"

namespace {

constexpr size_t kMaxFileBytes = 65536;

std::string ReadContent(const std::string& path_) {
  char buffer[kMaxFileBytes];
  const size_t length = InputFile(path_).Read(buffer, sizeof(buffer));
  return std::string(buffer, length);
}

std::string FromUtf16(const std::string& content_) {
  Debug(kDebugTrace, "Encoding from UTF-16 to UTF-8");
  std::vector<uint16_t> units((content_.size() + 1) / 2);
  for (size_t i = 0; i < content_.size(); ++i) {
    const unsigned int byte = static_cast<unsigned char>(content_[i]);
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

// Prints on standard output, with any debug mask. In one write: the buffered stream would need 80
// for 64 KiB of text. The stream is flushed first, so that the output stays in order.
void DumpBytes(const std::string& text_) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string dump;
  dump.reserve(text_.size() * strlen("0x00 ") + strlen("\n\r"));
  for (const char c : text_) {
    const unsigned int byte = static_cast<unsigned char>(c);
    dump += {'0', 'x', kDigits[byte / 16], kDigits[byte % 16], ' '};
  }
  dump += "\n\r";
  fflush(stdout);
  WriteWhole(STDOUT_FILENO, dump.data(), dump.size());  // A failure cannot be reported anywhere.
}

void ShowReencoded(const std::string& text_) {
  Debug(kDebugNormal, "re-encode");
  DumpBytes(text_);
}

std::string ReadText(const std::string& path_, const std::string& encoding_) {
  std::string content = ReadContent(path_);
  if (encoding_ == std::string_view("utf16")) {
    return FromUtf16(content);
  }
  if (encoding_ == std::string_view("ascii")) {
    content = ExtAsciiToUtf8String(content);
  }
  return ToValidUtf8(std::move(content), kDebugNormal, "Re-encoding file to UTF-8", ShowReencoded);
}

}  // namespace

TextFileParser::TextFileParser(const std::string& encoding_) : encoding(encoding_) {}

std::string TextFileParser::ParseFile(const std::string& path_) const {
  std::string text;
  try {
    text = ReadText(path_, encoding);
  } catch (const std::exception& e) {
    Debug(kDebugNormal, "Unable to read %s: %s", path_.c_str(), e.what());
    return "";
  }
  Debug(kDebugNormal, "From %s: %s", path_.c_str(), text.c_str());
  return text;
}

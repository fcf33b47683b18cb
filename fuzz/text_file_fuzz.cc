// Text files in the three encodings, chosen by the first byte.
//
// The text is valid UTF-8 whatever the file holds; valid UTF-8 passes unchanged.
#include "charencoding.h"
#include "debug.h"
#include "fuzz.h"
#include "textfileparser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  static const fuzz::Scratch scratch;
  static FILE* const silenced = freopen("/dev/null", "w", stdout);  // The dump of replaced bytes.
  fuzz::Require(silenced != nullptr, "standard output can be silenced");
  SetDebugMask(0);
  fuzz::Input input(data_, size_);
  const char* const encodings[] = {"utf8", "ascii", "utf16"};
  const std::string encoding = encodings[input.Byte() % 3];
  const std::string content = input.Rest();
  const std::string text = TextFileParser(encoding).ParseFile(scratch.Write("message", content));
  fuzz::Require(fuzz::IsUtf8(text), "the text is UTF-8", text);
  fuzz::Require(Utf8IsValid(content) == fuzz::IsUtf8(content), "both checks of UTF-8 agree",
                content);
  const std::string head = content.substr(0, 65536);
  if (encoding == "utf8" && fuzz::IsUtf8(head)) {
    fuzz::Require(text == head, "valid UTF-8 passes unchanged", text);
  }
  return 0;
}

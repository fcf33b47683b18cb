// The conversion of a snippet's text to markup for the speech engine.
//
// The markup of any text is well-formed, has no elements except breaks, and holds the text.
#include <expat.h>

#include "fuzz.h"
#include "markup.h"

namespace {

// The text in a markup, with breaks as pause tags.
struct Reading {
  std::string text;

  static void XMLCALL Start(void* reading_, const XML_Char* name_, const XML_Char** attributes_) {
    std::string& text = static_cast<Reading*>(reading_)->text;
    if (name_ == std::string("speak")) {
      return;
    }
    fuzz::Require(name_ == std::string("break"), "no element but breaks", name_);
    const std::string time = attributes_[1];
    text += "\\pau=" + time.substr(0, time.size() - 2) + "\\";
  }
  static void XMLCALL Text(void* reading_, const XML_Char* text_, int length_) {
    static_cast<Reading*>(reading_)->text.append(text_, static_cast<size_t>(length_));
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  const std::string text = Cleaned(std::string(reinterpret_cast<const char*>(data_), size_));
  fuzz::Require(text.size() <= size_ && fuzz::IsUtf8(text), "cleaned text is UTF-8", text);
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    fuzz::Require(code >= ' ' && code != 0x7f, "cleaned text has no control characters", text);
  }
  fuzz::Require(Cleaned(text) == text, "cleaning once is enough", text);
  HasWords(text);
  PauseAfter(text);

  const std::string document = "<speak>" + MarkedUp(text) + "</speak>";
  Reading reading;
  const XML_Parser parser = XML_ParserCreate("UTF-8");
  XML_SetUserData(parser, &reading);
  XML_SetStartElementHandler(parser, Reading::Start);
  XML_SetCharacterDataHandler(parser, Reading::Text);
  const bool is_parsed =
      XML_Parse(parser, document.data(), static_cast<int>(document.size()), 1) == XML_STATUS_OK;
  // Two code points are UTF-8 and cannot be in XML; the engine reads them as any other.
  const bool is_xml = text.find("\xef\xbf\xbe") == std::string::npos &&
                      text.find("\xef\xbf\xbf") == std::string::npos;
  XML_ParserFree(parser);
  fuzz::Require(is_parsed || !is_xml, "the markup is well-formed", document);
  fuzz::Require(reading.text == text || !is_xml, "the markup holds the text", document);
  return 0;
}

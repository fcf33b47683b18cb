// XML messages with a field configuration. First line: mode and fields (see Configuration below),
// the rest is the document (see document.h).
//
// The text is valid UTF-8, not longer than its limit, and equals the model's. Loading keeps its
// limits of memory and reads no other file.
#include <memory>
#include <vector>

#include "debug.h"
#include "document.h"
#include "fuzz.h"
#include "model/xml.h"
#include "xml.h"
#include "xmlfileparser.h"

namespace {

constexpr size_t kBound = 65536;
constexpr int kMaxDepth = 300;  // The model is recursive.

const fuzz::Scratch kScratch;

// Words of four letters each: parent, tag, attribute, value; '-' is none, other letters
// are themselves. The first byte chooses mode and encoding.
struct Configuration {
  explicit Configuration(const std::string& line_) {
    const unsigned int choice = line_.empty() ? 0 : static_cast<unsigned char>(line_[0]);
    attribute_mode = (choice & 1) != 0;
    const char* const encodings[] = {"utf8", "ascii", "utf16"};
    encoding = encodings[choice / 2 % 3];
    const auto letter = [&line_](size_t i_) {
      const char c = line_[i_];
      return c >= 'a' && c <= 'z' ? std::string(1, c) : std::string();
    };
    for (size_t i = 1; i + 4 <= line_.size() && fields.size() < 8; i += 4) {
      fields.push_back({letter(i), letter(i + 1), letter(i + 2), letter(i + 3)});
    }
  }
  bool attribute_mode;
  std::string encoding;
  std::vector<model::Field> fields;
};

XMLFileParser MakeParser(const Configuration& configuration_) {
  XMLElement element("parser");
  element.SetAttributeString("id", "fuzz");
  element.SetAttributeString("type", "xml");
  element.SetAttributeInteger("attr-mode", configuration_.attribute_mode ? 1 : 0);
  for (const model::Field& field : configuration_.fields) {
    auto* child = new XMLElement("field");
    child->SetAttributeString("parent", field.parent);
    child->SetAttributeString("tag", field.tag);
    child->SetAttributeString("attr", field.attr);
    child->SetAttributeString("attr_value", field.attr_value);
    element.AddChild(child);
  }
  return XMLFileParser(&element, configuration_.encoding);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  SetDebugMask(0);
  fuzz::Input input(data_, size_);
  const Configuration configuration(input.Line());
  const std::string content = fuzz::Unfold(input.Rest());
  const std::string path = kScratch.Write("message.xml", content);
  const std::string text = MakeParser(configuration).ParseFile(path);
  fuzz::Require(fuzz::IsUtf8(text), "the text is UTF-8", text);
  fuzz::Require(text.size() <= kBound + 1, "the text keeps its bound");

  fuzz::RequireNoSecret(text, content);

  bool is_valid = false;
  const auto root = fuzz::Load(path, configuration.encoding, content.size(), is_valid);
  if (!is_valid || !root) {
    return 0;
  }
  const model::Document document(content, configuration.encoding);
  if (document.Depth() <= kMaxDepth) {
    const model::Extraction expected(configuration.fields, configuration.attribute_mode,
                                     document.nodes.front());
    fuzz::Require(text == expected.text, "the text is that of the rules",
                  text + "\n" + expected.text);
  }
  return 0;
}

// XML messages with a field configuration. First line: mode and fields (see Configuration below),
// the rest is the document (see document.h).
//
// The text is valid UTF-8, never longer than its bound, and what a plain recursive telling of the
// field rules yields. Loading keeps its limits of memory and reads no other file.
#include <memory>
#include <vector>

#include "debug.h"
#include "document.h"
#include "fuzz.h"
#include "xml.h"
#include "xmlfileparser.h"

namespace {

constexpr size_t kBound = 65536;

const fuzz::Scratch scratch;

struct Field {
  std::string parent, tag, attr, attr_value;
};

// Words of four letters each: parent, tag, attribute, value; '-' stands for none, other letters
// for themselves. The first byte chooses mode and encoding.
struct Configuration {
  explicit Configuration(const std::string& line) {
    const unsigned int choice = line.empty() ? 0 : static_cast<unsigned char>(line[0]);
    attribute_mode = (choice & 1) != 0;
    const char* const encodings[] = {"utf8", "ascii", "utf16"};
    encoding = encodings[choice / 2 % 3];
    const auto letter = [&line](size_t i) {
      const char c = line[i];
      return c >= 'a' && c <= 'z' ? std::string(1, c) : std::string();
    };
    for (size_t i = 1; i + 4 <= line.size() && fields.size() < 8; i += 4) {
      fields.push_back({letter(i), letter(i + 1), letter(i + 2), letter(i + 3)});
    }
  }
  bool attribute_mode;
  std::string encoding;
  std::vector<Field> fields;
};

XMLFileParser MakeParser(const Configuration& configuration) {
  XMLElement element("parser");
  element.SetAttributeString("id", "fuzz");
  element.SetAttributeString("type", "xml");
  element.SetAttributeInteger("attr-mode", configuration.attribute_mode ? 1 : 0);
  for (const Field& field : configuration.fields) {
    auto* child = new XMLElement("field");
    child->SetAttributeString("parent", field.parent);
    child->SetAttributeString("tag", field.tag);
    child->SetAttributeString("attr", field.attr);
    child->SetAttributeString("attr_value", field.attr_value);
    element.AddChild(child);
  }
  return XMLFileParser(&element, configuration.encoding);
}

int Depth(const XMLElement* element) {
  int depth = 0;
  for (; element != nullptr; element = element->GetParent()) {
    ++depth;
  }
  return depth;
}

// False if the tree is too deep for a recursive telling.
bool Retell(const Configuration& configuration, const XMLElement& element, std::string& text) {
  if (Depth(&element) > 300) {
    return false;
  }
  for (const Field& field : configuration.fields) {
    if (field.tag.empty()) {
      continue;
    }
    for (const XMLElement* child : element.GetChildren(field.tag)) {
      const bool is_placed = field.parent.empty() || element.IsChildOf(field.parent) ||
                             element.GetName() == field.parent;
      const std::string value = child->GetAttributeString(field.attr, "");
      std::string piece = child->GetText();
      if (!is_placed || text.size() + piece.size() + 1 > kBound) {
        continue;
      }
      if (configuration.attribute_mode) {
        if (field.attr.empty() || text.size() + value.size() + 1 > kBound) {
          continue;
        }
        piece = value;
      } else if (!field.attr.empty() && value != field.attr_value) {
        continue;
      }
      if (!text.empty() && std::string(" \t\n\v\f\r").find(text.back()) == std::string::npos) {
        text += ". ";
      }
      text += piece;
    }
  }
  for (const XMLElement* child : element.GetChildren("")) {
    if (!Retell(configuration, *child, text)) {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SetDebugMask(0);
  fuzz::Input input(data, size);
  const Configuration configuration(input.Line());
  const std::string content = fuzz::Unfold(input.Rest());
  const std::string path = scratch.Write("message.xml", content);
  const std::string text = MakeParser(configuration).ParseFile(path);
  fuzz::Require(fuzz::IsUtf8(text), "the text is UTF-8", text);
  fuzz::Require(text.size() <= kBound + 1, "the text keeps its bound");

  fuzz::RequireNoSecret(text, content);

  bool is_valid = false;
  const auto root = fuzz::Load(path, configuration.encoding, content.size(), is_valid);
  std::string retold;
  if (is_valid && root && Retell(configuration, *root, retold)) {
    fuzz::Require(text == retold, "the text is that of the rules", text + "\n" + retold);
  }
  return 0;
}

#include "model/xml.h"

#include <dlfcn.h>
#include <expat.h>

#include <algorithm>

#include "model/text.h"

namespace model {

namespace {

constexpr size_t kFeedBytes = 1024;
constexpr size_t kMaxTextBytes = 65536;

void Start(void* document_, const char* name_, const char** attributes_) {
  auto* const document = static_cast<Document*>(document_);
  Node& node = document->nodes.emplace_back();
  node.name = name_;
  for (; *attributes_ != nullptr; attributes_ += 2) {
    node.attributes.emplace(attributes_[0], attributes_[1]);
  }
  node.parent = document->open;
  if (node.parent != nullptr) {
    node.parent->children.push_back(&node);
    node.depth = node.parent->depth + 1;
  }
  document->open = &node;
}

void End(void* document_, const char* name_) {
  auto* const document = static_cast<Document*>(document_);
  document->log += std::string("EndElement: ") + name_ + "\n";
  document->open = document->open->parent;
}

void Text(void* document_, const char* text_, int length_) {
  auto* const document = static_cast<Document*>(document_);
  if (document->open != nullptr) {
    document->open->text.append(text_, static_cast<size_t>(length_));
  }
}

// An expat without this function does not defer.
void SwitchDeferralOff(XML_Parser parser_) {
  void* const found = dlsym(RTLD_DEFAULT, "XML_SetReparseDeferralEnabled");
  if (found != nullptr) {
    reinterpret_cast<XML_Bool (*)(XML_Parser, XML_Bool)>(found)(parser_, XML_FALSE);
  }
}

std::string ToUtf8(const std::string& content_, const std::string& encoding_, std::string& log_) {
  std::string text = content_;
  if (encoding_ == "ascii") {
    text.clear();
    for (const char byte : content_) {
      text += FromExtendedAscii(static_cast<unsigned char>(byte));
    }
  }
  log_ +=
      IsUtf8(text) ? "Original is valid UTF-8\n" : "Re-encoding invalid parser output to UTF-8\n";
  return ReplaceInvalid(text);
}

std::string DumpNode(const Node& node_, const std::string& indent_) {
  std::string dump = indent_ + "<" + node_.name;
  for (const auto& [name, value] : node_.attributes) {
    dump += " " + name + "=\"" + value + "\"";
  }
  if (node_.children.empty()) {
    return dump + "/>\n";
  }
  dump += ">\n";
  for (const Node* child : node_.children) {
    dump += DumpNode(*child, indent_ + "    ");
  }
  return dump + indent_ + "</" + node_.name + ">\n";
}

bool HasAncestor(const Node& node_, const std::string& name_) {
  return node_.parent != nullptr &&
         (node_.parent->name == name_ || HasAncestor(*node_.parent, name_));
}

}  // namespace

Document::Document(const std::string& content_, const std::string& encoding_) {
  const bool is_utf16 = encoding_ == "utf16";
  const std::string text = is_utf16 ? content_ : ToUtf8(content_, encoding_, log);
  const XML_Parser parser = XML_ParserCreate(is_utf16 ? "UTF-16" : "UTF-8");
  SwitchDeferralOff(parser);
  XML_SetUserData(parser, this);
  XML_SetElementHandler(parser, Start, End);
  XML_SetCharacterDataHandler(parser, Text);
  for (size_t fed = 0; fed < text.size() && error.empty(); fed += kFeedBytes) {
    const std::string feed = text.substr(fed, kFeedBytes);
    if (XML_Parse(parser, feed.data(), static_cast<int>(feed.size()), XML_FALSE) != XML_STATUS_OK) {
      error = std::string(XML_ErrorString(XML_GetErrorCode(parser))) + " at line " +
              std::to_string(XML_GetCurrentLineNumber(parser));
      log += error + "\n";
    }
  }
  XML_ParserFree(parser);
}

std::string Document::Dump() const { return nodes.empty() ? "" : DumpNode(nodes.front(), ""); }

std::string Document::Texts() const {
  std::string texts;
  for (const Node& node : nodes) {
    texts += node.text + "|";
  }
  return texts;
}

int Document::Depth() const {
  int depth = 0;
  for (const Node& node : nodes) {
    depth = std::max(depth, node.depth);
  }
  return depth;
}

Extraction::Extraction(const std::vector<Field>& fields_, bool attribute_mode_, const Node& root_)
    : fields(fields_), attribute_mode(attribute_mode_) {
  ParseElement(root_);
}

void Extraction::ParseElement(const Node& element_) {
  log += "Checking Element " + element_.name + "\n";
  for (const Field& field : fields) {
    log += "Checking Field " + field.parent + "/" + field.tag + "\n";
    if (field.tag.empty()) {
      log += "Skipping due to empty tag\n";
      continue;
    }
    for (const Node* child : element_.children) {
      if (child->name == field.tag) {
        ProcessChild(field, element_, *child);
      }
    }
  }
  for (const Node* child : element_.children) {
    ParseElement(*child);
  }
}

void Extraction::ProcessChild(const Field& field_, const Node& element_, const Node& child_) {
  log += "Processing child \"" + child_.name + "\"\n";
  if (!field_.parent.empty() && !HasAncestor(child_, field_.parent)) {
    log += "Skipping due to parent mismatch " + element_.name + " " + field_.parent + "\n";
    return;
  }
  if (!HasRoom(child_.text)) {
    return;
  }
  if (!child_.text.empty()) {
    log += "found text\n";
  }
  std::string piece = child_.text;
  const auto found = child_.attributes.find(field_.attr);
  const std::string value = found == child_.attributes.end() ? "" : found->second;
  if (attribute_mode) {
    log += "extract attr value\n";
    if (field_.attr.empty() || !HasRoom(value)) {
      return;
    }
    piece = value;
  } else if (!field_.attr.empty() && value != field_.attr_value) {
    log += "Skipping due to attr mismatch key " + field_.attr_value + " act " + value + "\n";
    return;
  }
  const std::string white_space = " \t\n\v\f\r";
  if (!text.empty() && white_space.find(text.back()) == std::string::npos) {
    text += ". ";
  }
  text += piece;
}

// With one byte for the separator, which has two.
bool Extraction::HasRoom(const std::string& piece_) {
  const bool has_room = text.size() + piece_.size() + 1 <= kMaxTextBytes;
  log += has_room ? "" : "Too many characters, truncating\n";
  return has_room;
}

}  // namespace model

#include "directories.h"

#include <initializer_list>

#include "statefile.h"

namespace {

using Names = std::initializer_list<const char*>;

constexpr Names kOfRoot = {"state"};
constexpr Names kOfRemote = {"display-id", "id", "priority", "type"};
// Attributes needed to hand a message over, to make a preview, and to follow the message.
constexpr Names kOfLocal = {"auto-delete", "conv-opts",        "dir-mode", "display-id", "encoding",
                            "id",          "last-played-path", "loops",    "parser",     "path",
                            "preview",     "priority",         "subdir",   "type"};
constexpr Names kOfParser = {"attr-mode", "id", "type"};
constexpr Names kOfField = {"attr", "attr_value", "parent", "tag"};

std::unique_ptr<XMLElement> Copied(const XMLElement& element_, const Names& names_) {
  auto copy = std::make_unique<XMLElement>(element_.GetName().c_str());
  for (const char* name : names_) {
    // An absent attribute must stay absent. Two different defaults show that it is absent.
    const std::string value = element_.GetAttributeString(name, "");
    if (!value.empty() || element_.GetAttributeString(name, "-").empty()) {
      copy->SetAttributeString(name, Escaped(value));
    }
  }
  return copy;
}

}  // namespace

std::unique_ptr<XMLElement> PublicPart(const XMLElement& configuration_) {
  std::unique_ptr<XMLElement> root = Copied(configuration_, kOfRoot);
  for (const XMLElement* directory : configuration_.GetChildren("directory")) {
    const bool is_local = directory->GetAttributeString("type", "") == "local";
    root->AddChild(Copied(*directory, is_local ? kOfLocal : kOfRemote).release());
  }
  for (const XMLElement* parser : configuration_.GetChildren("parser")) {
    std::unique_ptr<XMLElement> copy = Copied(*parser, kOfParser);
    for (const XMLElement* field : parser->GetChildren("field")) {
      copy->AddChild(Copied(*field, kOfField).release());
    }
    root->AddChild(copy.release());
  }
  return root;
}

#include "schema.h"

#include <stddef.h>

#include "attributes.h"

namespace {

std::string Patterns(const std::string& element_, const std::string& types_, size_t indent_) {
  std::string text;
  for (const Attribute& attribute : AttributesOf(element_)) {
    const std::string types = attribute.directories == nullptr ? "" : attribute.directories;
    if (attribute.is_single && types == types_) {
      text += text.empty() ? "" : ",\n" + std::string(indent_, ' ');
      text += std::string("attribute ") + attribute.name + " { " + attribute.type + " }";
      text += attribute.default_value == nullptr ? "" : "?";
    }
  }
  return text;
}

}  // namespace

std::string MakeSchema(const std::string& frame_) {
  std::string text;
  size_t position = 0;
  for (size_t start = 0; (start = frame_.find('@', position)) != std::string::npos;) {
    const size_t end = frame_.find('@', start + 1);
    const std::string name = frame_.substr(start + 1, end - start - 1);
    const size_t blank = name.find(' ');
    const std::string types = blank == std::string::npos ? "" : name.substr(blank + 1);
    text += frame_.substr(position, start - position);
    text += Patterns(name.substr(0, blank), types, text.size() - text.rfind('\n') - 1);
    position = end + 1;
  }
  return text + frame_.substr(position);
}

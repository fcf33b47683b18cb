#include "document.h"

#include <algorithm>

#include "format.h"
#include "html.h"

namespace {

// The root's name must not be a parent in the configuration: the parser would extract fields from
// the root.
constexpr char kRoot[] = "vocastra-desk";

struct Field {
  std::string tag;
  std::string attribute;
  std::string value;  // The attribute's value.
  std::string parent;
};

bool IsAttrMode(const XMLElement& parser_) {
  return parser_.GetAttributeInteger("attr-mode", 0) != 0;
}

std::vector<Field> FieldsOf(const XMLElement& parser_) {
  std::vector<Field> fields;
  for (const XMLElement* element : parser_.GetChildren("field")) {
    fields.push_back(
        {element->GetAttributeString("tag", ""), element->GetAttributeString("attr", ""),
         element->GetAttributeString("attr_value", ""), element->GetAttributeString("parent", "")});
  }
  return fields;
}

// False if the daemon finds nothing with this field.
bool IsUsable(const Field& field_, bool is_attr_mode_) {
  return !field_.tag.empty() && !(is_attr_mode_ && field_.attribute.empty());
}

bool IsNameByte(char c_) {
  const auto byte = static_cast<unsigned char>(c_);
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || byte == '_' ||
         byte >= 0x80;
}

std::string RequireName(const std::string& name_) {
  const bool is_name =
      !name_.empty() && IsNameByte(name_[0]) &&
      std::all_of(name_.begin(), name_.end(), [](char c_) {
        return IsNameByte(c_) || (c_ >= '0' && c_ <= '9') || c_ == '-' || c_ == '.' || c_ == ':';
      });
  if (!is_name) {
    throw Format("The configured field \"%s\" cannot be filled in here.", name_.c_str());
  }
  return name_;
}

std::string Attribute(const std::string& name_, const std::string& value_) {
  return " " + RequireName(name_) + "=\"" + Html(value_) + "\"";
}

std::string Within(const std::string& parent_, const std::string& content_) {
  return parent_.empty() ? content_
                         : "<" + RequireName(parent_) + ">" + content_ + "</" + parent_ + ">";
}

struct Element {
  std::string tag;
  std::string parent;
  std::string attributes;
  std::string text;
};

// Puts all attributes of one kind of element into one element: an element without the attribute of
// a field would add an empty piece to the text.
void Add(const Field& field_, const std::string& value_, bool is_attr_mode_,
         std::vector<Element>& elements_) {
  if (!is_attr_mode_) {
    const bool has_attribute = !field_.attribute.empty() && !field_.value.empty();
    elements_.push_back({field_.tag, field_.parent,
                         has_attribute ? Attribute(field_.attribute, field_.value) : "",
                         Html(value_)});
    return;
  }
  for (Element& element : elements_) {
    if (element.tag == field_.tag && element.parent == field_.parent &&
        element.attributes.find(" " + field_.attribute + "=") == std::string::npos) {
      element.attributes += Attribute(field_.attribute, value_);
      return;
    }
  }
  elements_.push_back({field_.tag, field_.parent, Attribute(field_.attribute, value_), ""});
}

}  // namespace

std::string DocumentField(size_t number_) { return Format("field-%zu", number_); }

std::vector<std::string> FieldLabels(const XMLElement& parser_) {
  const bool is_attr_mode = IsAttrMode(parser_);
  std::vector<std::string> labels;
  for (const Field& field : FieldsOf(parser_)) {
    if (!IsUsable(field, is_attr_mode)) {
      labels.emplace_back();
      continue;
    }
    std::string label = is_attr_mode ? field.attribute : field.tag;
    const std::string detail = is_attr_mode ? field.tag : field.attribute;
    if (!detail.empty()) {
      label += " (" + detail + (is_attr_mode ? "" : " " + field.value) + ")";
    }
    labels.push_back(label);
  }
  return labels;
}

std::string MakeDocument(const XMLElement& parser_,
                         const std::map<std::string, std::string>& form_) {
  const bool is_attr_mode = IsAttrMode(parser_);
  const std::vector<Field> fields = FieldsOf(parser_);
  std::vector<Element> elements;
  for (size_t i = 0; i < fields.size(); ++i) {
    const auto found = form_.find(DocumentField(i));
    const std::string value = found == form_.end() ? "" : OneLineOf(found->second);
    if (!value.empty() && IsUsable(fields[i], is_attr_mode)) {
      Add(fields[i], value, is_attr_mode, elements);
    }
  }
  std::string content;
  for (const Element& element : elements) {
    const std::string tag = RequireName(element.tag);
    content +=
        Within(element.parent, Format("<%s%s>%s</%s>", tag.c_str(), element.attributes.c_str(),
                                      element.text.c_str(), tag.c_str()));
  }
  return Format("<%s>%s</%s>\n", kRoot, content.c_str(), kRoot);
}

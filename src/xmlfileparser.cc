#include "xmlfileparser.h"

#include <ctype.h>

#include <exception>
#include <list>
#include <memory>
#include <vector>

#include "debug.h"
#include "xml.h"

namespace {

constexpr size_t kMaxTextBytes = 65536;

// A rule: which children of an element are extracted.
struct Field {
  explicit Field(const XMLElement& element_)
      : parent(element_.GetAttributeString("parent", "")),
        tag(element_.GetAttributeString("tag")),
        attr(element_.GetAttributeString("attr")),
        attr_value(element_.GetAttributeString("attr_value")) {}

  std::string parent;  // If not empty, the holder of the child or an ancestor of it is so named.
  std::string tag;     // The child's name. A rule without one is skipped.
  std::string attr;    // Text mode: a condition, if not empty. Attribute mode: the source.
  std::string attr_value;  // Text mode: the value that attr must have.
};

// A field while a tree is walked.
struct ActiveField {
  const Field* field;
  int parents_on_path;  // Elements from the root to the current one that are named field->parent.
};

// False, with a log line, if the text has no room for so many further bytes. One byte is counted
// for the separator, though it has two.
bool HasRoom(const std::string& text_, size_t bytes_) {
  if (text_.size() + bytes_ + 1 > kMaxTextBytes) {
    Debug(kDebugNormal, "Too many characters, truncating");
    return false;
  }
  return true;
}

void AppendPiece(std::string& text_, const std::string& piece_) {
  if (!text_.empty() && isspace(static_cast<unsigned char>(text_.back())) == 0) {
    text_ += ". ";
  }
  text_ += piece_;
}

void LogUnreadable(const std::string& path_, const char* reason_) {
  Debug(kDebugNormal, "Unable to read %s as XML document: %s", path_.c_str(), reason_);
}

}  // namespace

struct XMLFileParser::Impl {
  Impl(const XMLElement& element_, const std::string& encoding_);

  void ParseElement(std::string& text_, const XMLElement* element_) const;
  void ExtractFields(std::string& text_, const XMLElement& element_,
                     const std::vector<ActiveField>& fields_) const;
  void ExtractChild(std::string& text_, const XMLElement& child_, const Field& field_) const;

  std::string id;
  std::string type;
  bool extractAttrValue;  // Fields yield attribute values instead of text.
  std::list<Field> field_list;
  std::string encoding;
};

XMLFileParser::Impl::Impl(const XMLElement& element_, const std::string& encoding_)
    : id(element_.GetAttributeString("id")),
      type(element_.GetAttributeString("type")),
      extractAttrValue(element_.GetAttributeInteger("attr-mode", 0) != 0),
      encoding(encoding_) {
  for (const XMLElement* field : element_.GetChildren("field")) {
    field_list.emplace_back(*field);
  }
}

// Walks the tree in document order, parents before children. A document may be as deep as it is
// long, so the walk does not recurse; it counts the ancestors' names on its way down and up.
void XMLFileParser::Impl::ParseElement(std::string& text_, const XMLElement* element_) const {
  if (element_ == nullptr) {
    Debug(kDebugNormal, "NULL element");
    return;
  }
  std::vector<ActiveField> fields;
  for (const Field& field : field_list) {
    fields.push_back({&field, 0});
  }
  const auto count_on_path = [&fields](const XMLElement& visited_, int difference_) {
    for (ActiveField& field : fields) {
      field.parents_on_path += visited_.HasName(field.field->parent) ? difference_ : 0;
    }
  };
  const XMLElement* element = element_;
  while (element != nullptr) {
    count_on_path(*element, 1);
    ExtractFields(text_, *element, fields);
    if (element->GetFirstChild() != nullptr) {
      element = element->GetFirstChild();
      continue;
    }
    // Leaves elements, up to one that has a next sibling.
    while (element != element_ && element->GetNextSibling() == nullptr) {
      count_on_path(*element, -1);
      element = element->GetParent();
    }
    count_on_path(*element, -1);
    element = element == element_ ? nullptr : element->GetNextSibling();
  }
}

// Appends what the fields extract from the children of element_.
void XMLFileParser::Impl::ExtractFields(std::string& text_, const XMLElement& element_,
                                        const std::vector<ActiveField>& fields_) const {
  const bool is_traced = IsDebugEnabled(kDebugTrace);  // The names are copies.
  if (is_traced) {
    Debug(kDebugTrace, "Checking Element %s", element_.GetName().c_str());
  }
  for (const auto& [field, parents_on_path] : fields_) {
    Debug(kDebugTrace, "Checking Field %s/%s", field->parent.c_str(), field->tag.c_str());
    if (field->tag.empty()) {
      Debug(kDebugTrace, "Skipping due to empty tag");
      continue;
    }
    for (const XMLElement* child = element_.GetFirstChild(); child != nullptr;
         child = child->GetNextSibling()) {
      if (!child->HasName(field->tag)) {
        continue;
      }
      if (is_traced) {
        Debug(kDebugTrace, "Processing child \"%s\"", child->GetName().c_str());
      }
      if (!field->parent.empty() && parents_on_path == 0) {
        Debug(kDebugTrace, "Skipping due to parent mismatch %s %s", element_.GetName().c_str(),
              field->parent.c_str());
        continue;
      }
      ExtractChild(text_, *child, *field);
    }
  }
}

// Appends the piece that field_ yields for child_, if any.
void XMLFileParser::Impl::ExtractChild(std::string& text_, const XMLElement& child_,
                                       const Field& field_) const {
  const std::string child_text = child_.GetText();
  // This applies to attribute mode too, where the text is not used: both modes have the same limit.
  if (!HasRoom(text_, child_text.size())) {
    return;
  }
  if (!child_text.empty()) {
    Debug(kDebugTrace, "found text");
  }
  if (extractAttrValue) {
    Debug(kDebugNormal, "extract attr value");
    if (field_.attr.empty()) {
      return;
    }
    const std::string found_attr_value = child_.GetAttributeString(field_.attr, "");
    if (HasRoom(text_, found_attr_value.size())) {
      AppendPiece(text_, found_attr_value);
    }
    return;
  }
  if (!field_.attr.empty()) {
    const std::string found_attr_value = child_.GetAttributeString(field_.attr, "");
    if (found_attr_value != field_.attr_value) {
      Debug(kDebugTrace, "Skipping due to attr mismatch key %s act %s", field_.attr_value.c_str(),
            found_attr_value.c_str());
      return;
    }
  }
  AppendPiece(text_, child_text);
}

XMLFileParser::XMLFileParser(const XMLElement* element_, const std::string& encoding_)
    : impl(new Impl(*element_, encoding_)) {}

XMLFileParser::~XMLFileParser() { delete impl; }

std::string XMLFileParser::ParseFile(const std::string& path_) const {
  std::string text;
  try {
    const XMLDocument document(path_, impl->encoding);
    const std::unique_ptr<XMLElement> root(document.GetRoot());
    if (document.IsValidXML()) {
      impl->ParseElement(text, root.get());
    } else {
      Debug(kDebugNormal, "Unable to read %s as XML document", path_.c_str());
    }
  } catch (const std::string& e) {
    LogUnreadable(path_, e.c_str());
    return "";
  } catch (const std::exception& e) {
    LogUnreadable(path_, e.what());
    return "";
  }
  return text;
}

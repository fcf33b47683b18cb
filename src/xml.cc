#include "xml.h"

#include <expat.h>

#include <algorithm>
#include <exception>
#include <map>
#include <new>
#include <type_traits>
#include <utility>

#include "charencoding.h"
#include "debug.h"
#include "format.h"

namespace {

constexpr size_t kFeedBytes = 1024;  // What expat gets at once.
constexpr char kIndent[] = "    ";   // One level.

// Logs text and hands it back to be thrown.
std::string Logged(const std::string& text) {
  Debug(kDebugNormal, "%s", text.c_str());
  return text;
}

}  // namespace

struct XMLElement::Impl {
  Impl(XMLElement* self_, const char* name_) : self(self_), name(name_) {}

  const std::string* FindAttribute(const std::string& attribute) const;
  const std::string& RequireAttribute(const std::string& attribute) const;
  int ToInteger(const std::string& attribute, const std::string& value) const;
  void DumpStartTag(FILE* file, const std::string& indent) const;

  XMLElement* self;  // What a child's parent is set to.
  std::string name;
  std::string text;
  std::map<std::string, std::string> attrs;
  XMLElement* parent = nullptr;
  std::list<XMLElement*> children;  // Owned.
};

const std::string* XMLElement::Impl::FindAttribute(const std::string& attribute) const {
  const auto found = attrs.find(attribute);
  return found == attrs.end() ? nullptr : &found->second;
}

const std::string& XMLElement::Impl::RequireAttribute(const std::string& attribute) const {
  const std::string* value = FindAttribute(attribute);
  if (value == nullptr) {
    throw Logged(Format("Element %s has no attribute %s", name.c_str(), attribute.c_str()));
  }
  return *value;
}

int XMLElement::Impl::ToInteger(const std::string& attribute, const std::string& value) const {
  try {
    return ParseInteger(value);
  } catch (const std::string& e) {
    throw Logged(Format("While processing attribute \"%s\" of \"%s\": %s", attribute.c_str(),
                        name.c_str(), e.c_str()));
  }
}

void XMLElement::Impl::DumpStartTag(FILE* file, const std::string& indent) const {
  fprintf(file, "%s<%s", indent.c_str(), name.c_str());
  for (const auto& [attribute, value] : attrs) {
    fprintf(file, " %s=\"%s\"", attribute.c_str(), value.c_str());
  }
  fputs(children.empty() ? "/>\n" : ">\n", file);
}

XMLElement::XMLElement() : XMLElement("") {}

XMLElement::XMLElement(const char* name_) : impl(new Impl(this, name_)) {}

XMLElement::XMLElement(const char* name_, const char** attrs_) : XMLElement(name_) {
  if (attrs_ == nullptr) {
    return;
  }
  for (; attrs_[0] != nullptr && attrs_[1] != nullptr; attrs_ += 2) {
    impl->attrs.emplace(attrs_[0], attrs_[1]);
  }
}

XMLElement::~XMLElement() {
  // Each descendant gives up its children before it is deleted, so that no destructor finds any.
  std::list<XMLElement*> doomed;
  doomed.splice(doomed.end(), impl->children);
  while (!doomed.empty()) {
    XMLElement* element = doomed.front();
    doomed.pop_front();
    doomed.splice(doomed.begin(), element->impl->children);
    delete element;
  }
  delete impl;
}

XMLElement& XMLElement::operator=(const XMLElement& rhs_) {
  if (this != &rhs_) {
    impl->name = rhs_.impl->name;
    impl->attrs = rhs_.impl->attrs;
  }
  return *this;
}

bool XMLElement::operator==(const XMLElement& rhs_) const {
  return impl->name == rhs_.impl->name && impl->attrs == rhs_.impl->attrs;
}

void XMLElement::AddChild(XMLElement* child_) {
  impl->children.push_back(child_);
  child_->impl->parent = impl->self;
}

void XMLElement::AppendText(const std::string& s_) { impl->text += s_; }

std::string XMLElement::GetText() const { return impl->text; }

std::string XMLElement::GetName() const { return impl->name; }

XMLElement* XMLElement::GetParent() { return impl->parent; }

const XMLElement* XMLElement::GetParent() const { return impl->parent; }

bool XMLElement::IsChildOf(const std::string& parent_name_) const {
  if (parent_name_.empty()) {
    return false;
  }
  const XMLElement* ancestor = impl->parent;
  while (ancestor != nullptr && ancestor->impl->name != parent_name_) {
    ancestor = ancestor->impl->parent;
  }
  return ancestor != nullptr;
}

std::list<const XMLElement*> XMLElement::GetChildren(const std::string& name_) const {
  std::list<const XMLElement*> matches;
  for (const XMLElement* child : impl->children) {
    if (name_.empty() || child->impl->name == name_) {
      matches.push_back(child);
    }
  }
  return matches;
}

std::string XMLElement::GetAttributeString(const std::string& name_) const {
  return impl->RequireAttribute(name_);
}

std::string XMLElement::GetAttributeString(const std::string& name_,
                                           const std::string& default_) const {
  const std::string* value = impl->FindAttribute(name_);
  return value == nullptr ? default_ : *value;
}

int XMLElement::GetAttributeInteger(const std::string& name_) const {
  return impl->ToInteger(name_, impl->RequireAttribute(name_));
}

int XMLElement::GetAttributeInteger(const std::string& name_, int default_) const {
  const std::string* value = impl->FindAttribute(name_);
  return value == nullptr || value->empty() ? default_ : impl->ToInteger(name_, *value);
}

void XMLElement::SetAttributeString(const std::string& name_, const std::string& value_) {
  impl->attrs.emplace(name_, value_);
}

void XMLElement::SetAttributeInteger(const std::string& name_, int value_) {
  SetAttributeString(name_, Format("%d", value_));
}

void XMLElement::Dump(FILE* file_, std::string indent_) const {
  // The open elements, outermost first, each with its next child to write.
  using Children = std::list<XMLElement*>;
  std::list<std::pair<const Impl*, Children::const_iterator>> open;
  const auto start = [&](const Impl* element) {
    element->DumpStartTag(file_, indent_);
    if (!element->children.empty()) {
      open.emplace_back(element, element->children.begin());
      indent_ += kIndent;
    }
  };
  start(impl);
  while (!open.empty()) {
    auto& [element, next] = open.back();
    if (next != element->children.end()) {
      const XMLElement* child = *next++;
      start(child->impl);
    } else {
      indent_.resize(indent_.size() - (sizeof(kIndent) - 1));
      fprintf(file_, "%s</%s>\n", indent_.c_str(), element->name.c_str());
      open.pop_back();
    }
  }
}

struct XMLDocument::Impl {
  explicit Impl(const std::string& encoding_) : encoding(encoding_) {}

  void Load(const std::string& path);
  const char* Prepare(std::string& text) const;
  void Parse(const char* expat_encoding, const std::string& text);
  bool Feed(const char* data, size_t length);

  void StartElement(const char* name_, const char** atts_);
  void EndElement(const char* name_);
  void CharacterData(const char* s_, int len_);

  // What expat calls, with the user data's Impl; they forward to the operations above.
  static void start_element_handler(void* impl, const char* name, const char** atts);
  static void end_element_handler(void* impl, const char* name);
  static void character_data_handler(void* impl, const char* s, int len);
  template <typename Body>
  void Guard(Body body);

  XMLElement* root = nullptr;
  XMLElement* last = nullptr;  // The innermost open element.
  std::string encoding;
  bool valid_xml = true;
  std::string error;            // What made valid_xml false.
  XML_Parser parser = nullptr;  // While parsing.
  std::exception_ptr failure;   // Thrown in a handler, to be thrown again outside expat.
};

namespace {

struct ParserFree {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using ParserHandle = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree>;

std::string ReadWholeFile(const std::string& path) {
  InputFile file(path);
  if (!file.IsOpen()) {
    throw Logged(Format("Could not open \"%s\" for reading", path.c_str()));
  }
  std::string text;
  char block[16384];
  size_t length = 0;
  while ((length = file.Read(block, sizeof(block))) > 0) {
    text.append(block, length);
  }
  return text;
}

std::string ToValidUtf8(const std::string& text) {
  if (Utf8IsValid(text)) {
    Debug(kDebugTrace, "Original is valid UTF-8");
    return text;
  }
  Debug(kDebugTrace, "Re-encoding invalid parser output to UTF-8");
  std::string mended = Utf8ReplaceInvalid(text);
  if (!Utf8IsValid(mended)) {
    Debug(kDebugNormal, "Unable to re-encode as UTF-8");
    mended.clear();
  }
  return mended;
}

}  // namespace

void XMLDocument::Impl::Load(const std::string& path) {
  std::string text = ReadWholeFile(path);
  const char* expat_encoding = Prepare(text);
  if (!text.empty()) {
    Parse(expat_encoding, text);
  }
}

// Makes text what expat gets and returns the name of its encoding.
const char* XMLDocument::Impl::Prepare(std::string& text) const {
  if (encoding == "utf16") {
    return "UTF-16";
  }
  if (encoding == "ascii") {
    text = ExtAsciiToUtf8String(text);
  }
  text = ToValidUtf8(text);
  return "UTF-8";
}

void XMLDocument::Impl::Parse(const char* expat_encoding, const std::string& text) {
  const ParserHandle handle(XML_ParserCreate(expat_encoding));
  if (!handle) {
    throw std::bad_alloc();
  }
  parser = handle.get();
#ifdef HAVE_XML_SET_REPARSE_DEFERRAL_ENABLED
  // Deferral holds back a token that is incomplete at the end of a feed until much more input
  // has come. As no feed is ever marked as the last one, the end of the document would be lost.
  XML_SetReparseDeferralEnabled(parser, XML_FALSE);
#endif
  XML_SetUserData(parser, this);
  XML_SetElementHandler(parser, start_element_handler, end_element_handler);
  XML_SetCharacterDataHandler(parser, character_data_handler);
  for (size_t fed = 0; fed < text.size(); fed += kFeedBytes) {
    if (!Feed(text.data() + fed, std::min(kFeedBytes, text.size() - fed))) {
      break;
    }
  }
}

// False after an error in the XML. No feed is marked as the final one: a document that merely
// ends early is accepted, so that what came of it can be used.
bool XMLDocument::Impl::Feed(const char* data, size_t length) {
  const XML_Status status = XML_Parse(parser, data, static_cast<int>(length), XML_FALSE);
  if (failure) {
    std::rethrow_exception(failure);
  }
  if (status != XML_STATUS_OK) {
    error = Logged(Format("%s at line %d", XML_ErrorString(XML_GetErrorCode(parser)),
                          static_cast<int>(XML_GetCurrentLineNumber(parser))));
    valid_xml = false;
  }
  return valid_xml;
}

void XMLDocument::Impl::StartElement(const char* name_, const char** atts_) {
  auto element = std::make_unique<XMLElement>(name_, atts_);
  if (last != nullptr) {
    last->AddChild(element.get());
  } else if (root == nullptr) {
    root = element.get();
  } else {
    throw Logged("Root element must be a singleton");
  }
  last = element.release();
}

void XMLDocument::Impl::EndElement(const char* name_) {
  Debug(kDebugTrace, "EndElement: %s", name_);
  if (last == nullptr) {
    throw Logged("XML parse error; closed more elements than were open");
  }
  last = last->GetParent();
}

void XMLDocument::Impl::CharacterData(const char* s_, int len_) {
  if (last != nullptr) {
    last->AppendText(std::string(s_, static_cast<size_t>(len_)));
  }
}

// Runs the body of a handler. expat's frames are C and cannot be unwound, so what the body throws
// is kept, and parsing is stopped; the handlers that expat still calls then do nothing.
template <typename Body>
void XMLDocument::Impl::Guard(Body body) {
  if (failure) {
    return;
  }
  try {
    body();
  } catch (...) {
    failure = std::current_exception();
    XML_StopParser(parser, XML_FALSE);
  }
}

void XMLDocument::Impl::start_element_handler(void* impl, const char* name, const char** atts) {
  Impl* const self = static_cast<Impl*>(impl);
  self->Guard([=] { self->StartElement(name, atts); });
}

void XMLDocument::Impl::end_element_handler(void* impl, const char* name) {
  Impl* const self = static_cast<Impl*>(impl);
  self->Guard([=] { self->EndElement(name); });
}

void XMLDocument::Impl::character_data_handler(void* impl, const char* s, int len) {
  Impl* const self = static_cast<Impl*>(impl);
  self->Guard([=] { self->CharacterData(s, len); });
}

XMLDocument::XMLDocument(const std::string& path_, const std::string& encoding_) {
  auto document = std::make_unique<Impl>(encoding_);
  try {
    document->Load(path_);
  } catch (...) {
    delete document->root;
    throw;
  }
  impl = document.release();
}

XMLDocument::~XMLDocument() { delete impl; }

XMLElement* XMLDocument::GetRoot() const { return impl->root; }

XMLElement* XMLDocument::GetRoot(const std::string& name_) const {
  if (impl->root == nullptr || impl->root->GetName() != name_) {
    throw Logged(Format("No \"%s\" root element", name_.c_str()));
  }
  return impl->root;
}

bool XMLDocument::IsValidXML() const { return impl->valid_xml; }

std::string XMLDocument::GetError() const { return impl->error; }

void XMLDocument::Dump(FILE* file_) const {
  if (impl->root != nullptr) {
    impl->root->Dump(file_, "");
  }
}

std::unique_ptr<XMLElement> LoadXMLTree(const std::string& path_, const std::string& root_name_) {
  const XMLDocument document(path_, "utf8");
  std::unique_ptr<XMLElement> root(document.GetRoot());
  document.GetRoot(root_name_);
  if (!document.IsValidXML()) {
    throw document.GetError();
  }
  return root;
}

#include "xml.h"

#include <dlfcn.h>
#include <expat.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <memory_resource>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "charencoding.h"
#include "debug.h"
#include "format.h"

namespace {

constexpr size_t kFeedBytes = 1024;  // The length of a feed to expat.

// The bound on a document's tree and text: a fixed part, and a multiple of the size of its file. No
// tree without entities and attribute defaults needs more than 55 times its file (<a/> again and
// again on 64 bits); with them 700 bytes can become hundreds of megabytes.
constexpr size_t kFixedTreeBytes = 4 << 20;
constexpr size_t kTreeBytesPerFileByte = 64;

// The bound on the attribute declarations of a document. expat compares each with all before it: 2
// MB of them took 17 s.
constexpr int kMaxAttributeDeclarations = 10000;

size_t TreeLimit(size_t file_size_) {
  return file_size_ > (SIZE_MAX - kFixedTreeBytes) / kTreeBytesPerFileByte
             ? SIZE_MAX
             : kFixedTreeBytes + kTreeBytesPerFileByte * file_size_;
}

constexpr char kIndent[] = "    ";  // One level.

// Logs text_ and returns it, to be thrown.
std::string Logged(const std::string& text_) {
  Debug(kDebugNormal, "%s", text_.c_str());
  return text_;
}

// The heap, up to a limit in bytes.
class BoundedHeap : public std::pmr::memory_resource {
 public:
  explicit BoundedHeap(size_t limit_) : remaining(limit_) {}

 private:
  void* do_allocate(size_t bytes_, size_t alignment_) override {
    if (bytes_ > remaining) {
      throw std::bad_alloc();
    }
    void* const block = std::pmr::new_delete_resource()->allocate(bytes_, alignment_);
    remaining -= bytes_;
    return block;
  }
  void do_deallocate(void* block_, size_t bytes_, size_t alignment_) override {
    std::pmr::new_delete_resource()->deallocate(block_, bytes_, alignment_);
    remaining += bytes_;  // NOMUTATE(operator): the pool gives back only when it ends.
  }
  bool do_is_equal(const std::pmr::memory_resource& other_) const noexcept override {
    return this == &other_;
  }

  size_t remaining;
};

// NOMUTATE(constant): shows in time and memory only.
constexpr size_t kPoolBytes = 512;  // The first block.

}  // namespace

// The elements of a document are many and small, and are released together, so they share a pool of
// memory. Loading a document takes 1.3 times the time of parsing alone, loading and dropping a
// glossary 1.9 times; with requests to the heap for each element and its parts, 1.6 and 2.6 times.
struct XMLElement::Impl {
  // Throws std::bad_alloc when it would take more than limit_ bytes from the heap.
  struct Pool {
    explicit Pool(size_t limit_) : heap(limit_), resource(kPoolBytes, &heap) {}

    BoundedHeap heap;
    std::pmr::monotonic_buffer_resource resource;
  };

  // Both are in the pool, each followed by a zero byte.
  struct Attribute {
    std::string_view name;
    std::string_view value;
  };

  // The name, text and attributes are kept in pool_. The second form is for an element that is in
  // the pool itself.
  Impl(std::unique_ptr<Pool> pool_, const char* name_, const char** attrs_);
  Impl(Pool& pool_, const char* name_, const char** attrs_);

  bool IsPooled() const { return !own_pool; }
  std::string_view Keep(std::string_view s_);
  void ReadAttributes(const char** attrs_);
  const Attribute* FindAttribute(std::string_view attribute_) const;
  const Attribute& RequireAttribute(const std::string& attribute_) const;
  int ToInteger(const Attribute& attribute_) const;
  void DumpStartTag(std::string& dump_) const;

  std::unique_ptr<Pool> own_pool;  // Null if the element is in a pool: then it is not deleted.
  Pool& pool;
  std::string_view name;  // In the pool, followed by a zero byte.
  std::pmr::string text;
  std::pmr::vector<Attribute> attrs;  // In byte order of the names, each once.
  XMLElement* parent = nullptr;
  // The children are a chain, which takes no memory of its own. Owned.
  XMLElement* first_child = nullptr;
  XMLElement* last_child = nullptr;
  XMLElement* next_sibling = nullptr;
};

XMLElement::Impl::Impl(std::unique_ptr<Pool> pool_, const char* name_, const char** attrs_)
    : own_pool(std::move(pool_)),
      pool(*own_pool),
      name(Keep(name_)),
      text(&pool.resource),
      attrs(&pool.resource) {
  ReadAttributes(attrs_);
}

XMLElement::Impl::Impl(Pool& pool_, const char* name_, const char** attrs_)
    : pool(pool_), name(Keep(name_)), text(&pool.resource), attrs(&pool.resource) {
  ReadAttributes(attrs_);
}

// A copy in the pool.
std::string_view XMLElement::Impl::Keep(std::string_view s_) {
  char* const copy = static_cast<char*>(pool.resource.allocate(s_.size() + 1, 1));
  memcpy(copy, s_.data(), s_.size());
  copy[s_.size()] = '\0';
  return {copy, s_.size()};
}

void XMLElement::Impl::ReadAttributes(const char** attrs_) {
  if (attrs_ == nullptr) {
    return;
  }
  size_t count = 0;
  while (attrs_[2 * count] != nullptr && attrs_[2 * count + 1] != nullptr) {
    ++count;
  }
  attrs.reserve(count);  // NOMUTATE(call): only saves memory.
  for (size_t i = 0; i < count; ++i) {
    attrs.push_back({Keep(attrs_[2 * i]), Keep(attrs_[2 * i + 1])});
  }
  const auto is_less = [](const Attribute& a_, const Attribute& b_) { return a_.name < b_.name; };
  const auto is_same = [](const Attribute& a_, const Attribute& b_) { return a_.name == b_.name; };
  if (!std::is_sorted(attrs.begin(), attrs.end(), is_less)) {
    std::stable_sort(attrs.begin(), attrs.end(), is_less);
  }
  attrs.erase(std::unique(attrs.begin(), attrs.end(), is_same), attrs.end());
}

// Elements have few attributes: to walk along them is faster than any search.
const XMLElement::Impl::Attribute* XMLElement::Impl::FindAttribute(
    std::string_view attribute_) const {
  for (const Attribute& candidate : attrs) {
    if (candidate.name == attribute_) {
      return &candidate;
    }
  }
  return nullptr;
}

const XMLElement::Impl::Attribute& XMLElement::Impl::RequireAttribute(
    const std::string& attribute_) const {
  const Attribute* found = FindAttribute(attribute_);
  if (found == nullptr) {
    throw Logged(Format("Element %s has no attribute %s", name.data(), attribute_.c_str()));
  }
  return *found;
}

int XMLElement::Impl::ToInteger(const Attribute& attribute_) const {
  try {
    return ParseInteger(std::string(attribute_.value));
  } catch (const std::string& e) {
    throw Logged(Format("While processing attribute \"%s\" of \"%s\": %s", attribute_.name.data(),
                        name.data(), e.c_str()));
  }
}

// Names and values end at their first zero byte.
void XMLElement::Impl::DumpStartTag(std::string& dump_) const {
  dump_.append("<").append(name.data());
  for (const Attribute& attribute : attrs) {
    dump_.append(" ").append(attribute.name.data());
    dump_.append("=\"").append(attribute.value.data()).append("\"");
  }
  dump_ += first_child == nullptr ? "/>\n" : ">\n";
}

XMLElement::XMLElement() : XMLElement("") {}

XMLElement::XMLElement(const char* name_) : XMLElement(name_, nullptr) {}

XMLElement::XMLElement(const char* name_, const char** attrs_)
    : XMLElement(name_, attrs_, SIZE_MAX) {}

XMLElement::XMLElement(const char* name_, const char** attrs_, size_t memory_limit_)
    : impl(new Impl(std::make_unique<Impl::Pool>(memory_limit_), name_, attrs_)) {}

XMLElement::XMLElement(Impl* impl_) : impl(impl_) {}

XMLElement* XMLElement::AddPooledChild(const char* name_, const char** attrs_) {
  Impl::Pool& pool = impl->pool;
  Impl* const parts =
      new (pool.resource.allocate(sizeof(Impl), alignof(Impl))) Impl(pool, name_, attrs_);
  auto* const child =
      new (pool.resource.allocate(sizeof(XMLElement), alignof(XMLElement))) XMLElement(parts);
  AddChild(child);
  return child;
}

XMLElement::~XMLElement() {
  // Each descendant's children take its place in the chain, so that no destructor finds any.
  // Elements with a pool are deleted last: later elements of the chain may be in that pool.
  XMLElement* owners = nullptr;
  XMLElement* doomed = std::exchange(impl->first_child, nullptr);
  while (doomed != nullptr) {
    Impl* const parts = doomed->impl;
    if (parts->first_child != nullptr) {
      parts->last_child->impl->next_sibling = parts->next_sibling;
      parts->next_sibling = std::exchange(parts->first_child, nullptr);
    }
    XMLElement* const next = parts->next_sibling;
    if (!parts->IsPooled()) {
      parts->next_sibling = owners;
      owners = doomed;
    }
    doomed = next;
  }
  while (owners != nullptr) {
    delete std::exchange(owners, owners->impl->next_sibling);
  }
  delete impl;
}

XMLElement& XMLElement::operator=(const XMLElement& rhs_) {
  if (this != &rhs_) {
    impl->name = impl->Keep(rhs_.impl->name);
    impl->attrs.clear();
    impl->attrs.reserve(rhs_.impl->attrs.size());  // NOMUTATE(call): only saves memory.
    for (const Impl::Attribute& attribute : rhs_.impl->attrs) {
      impl->attrs.push_back({impl->Keep(attribute.name), impl->Keep(attribute.value)});
    }
  }
  return *this;
}

bool XMLElement::operator==(const XMLElement& rhs_) const {
  const auto& attrs = impl->attrs;
  const auto& rhs_attrs = rhs_.impl->attrs;
  const auto is_same = [](const Impl::Attribute& a_, const Impl::Attribute& b_) {
    return a_.name == b_.name && a_.value == b_.value;
  };
  return impl->name == rhs_.impl->name &&
         std::equal(attrs.begin(), attrs.end(), rhs_attrs.begin(), rhs_attrs.end(), is_same);
}

void XMLElement::AddChild(XMLElement* child_) {
  XMLElement*& link =
      impl->last_child == nullptr ? impl->first_child : impl->last_child->impl->next_sibling;
  link = child_;
  impl->last_child = child_;
  child_->impl->parent = this;
}

void XMLElement::AppendText(const std::string& s_) { impl->text += s_; }

void XMLElement::AppendText(const char* s_, size_t length_) { impl->text.append(s_, length_); }

std::string XMLElement::GetText() const { return std::string(impl->text); }

std::string XMLElement::GetName() const { return std::string(impl->name); }

XMLElement* XMLElement::GetParent() { return impl->parent; }

const XMLElement* XMLElement::GetParent() const { return impl->parent; }

bool XMLElement::IsChildOf(const std::string& parent_name_) const {
  if (parent_name_.empty()) {
    return false;
  }
  const XMLElement* ancestor = impl->parent;
  while (ancestor != nullptr && !ancestor->HasName(parent_name_)) {
    ancestor = ancestor->impl->parent;
  }
  return ancestor != nullptr;
}

std::list<const XMLElement*> XMLElement::GetChildren(const std::string& name_) const {
  std::list<const XMLElement*> matches;
  for (const XMLElement* child = GetFirstChild(); child != nullptr;
       child = child->GetNextSibling()) {
    if (name_.empty() || child->HasName(name_)) {
      matches.push_back(child);
    }
  }
  return matches;
}

const XMLElement* XMLElement::GetFirstChild() const { return impl->first_child; }

const XMLElement* XMLElement::GetNextSibling() const { return impl->next_sibling; }

bool XMLElement::HasName(std::string_view name_) const { return impl->name == name_; }

std::string XMLElement::GetAttributeString(const std::string& name_) const {
  return std::string(impl->RequireAttribute(name_).value);
}

std::string XMLElement::GetAttributeString(const std::string& name_,
                                           const std::string& default_) const {
  const Impl::Attribute* found = impl->FindAttribute(name_);
  return found == nullptr ? default_ : std::string(found->value);
}

int XMLElement::GetAttributeInteger(const std::string& name_) const {
  return impl->ToInteger(impl->RequireAttribute(name_));
}

int XMLElement::GetAttributeInteger(const std::string& name_, int default_) const {
  const Impl::Attribute* found = impl->FindAttribute(name_);
  return found == nullptr || found->value.empty() ? default_ : impl->ToInteger(*found);
}

void XMLElement::SetAttributeString(const std::string& name_, const std::string& value_) {
  auto place = impl->attrs.begin();
  while (place != impl->attrs.end() && place->name < name_) {
    ++place;
  }
  if (place == impl->attrs.end() || place->name != name_) {
    impl->attrs.insert(place, {impl->Keep(name_), impl->Keep(value_)});
  }
}

void XMLElement::SetAttributeInteger(const std::string& name_, int value_) {
  SetAttributeString(name_, Format("%d", value_));
}

void XMLElement::Dump(FILE* file_, std::string indent_) const {
  const std::string dump = DumpToString(std::move(indent_));
  fwrite(dump.data(), 1, dump.size(), file_);
}

std::string XMLElement::DumpToString(std::string indent_) const {
  std::string dump;
  const XMLElement* element = this;
  while (element != nullptr) {
    dump += indent_;
    element->impl->DumpStartTag(dump);
    if (element->impl->first_child != nullptr) {
      indent_ += kIndent;
      element = element->impl->first_child;
      continue;
    }
    // Closes elements, up to one that has a next sibling.
    while (element != this && element->impl->next_sibling == nullptr) {
      element = element->impl->parent;
      indent_.resize(indent_.size() - (sizeof(kIndent) - 1));
      dump.append(indent_).append("</").append(element->impl->name.data()).append(">\n");
    }
    element = element == this ? nullptr : element->impl->next_sibling;
  }
  return dump;
}

struct XMLDocument::Impl {
  explicit Impl(const std::string& encoding_) : encoding(encoding_) {}

  void Load(const std::string& path_);
  const char* Prepare(std::string& text_) const;
  void Parse(const char* expat_encoding_, const std::string& text_);
  void Feed(XML_Parser parser_, const char* data_, size_t length_);
  void ReportError(XML_Parser parser_, XML_Error code_);

  void StartElement(const char* name_, const char** atts_);
  void EndElement(const char* name_);
  void CharacterData(const char* s_, int len_);
  void AttributeDeclaration();

  // expat calls these with the parser, whose user data is the Impl; they forward to the operations
  // above.
  static void start_element_handler(void* parser_, const char* name_, const char** atts_);
  static void end_element_handler(void* parser_, const char* name_);
  static void character_data_handler(void* parser_, const char* s_, int len_);
  static void attlist_decl_handler(void* parser_, const char*, const char*, const char*,
                                   const char*, int);
  template <typename Operation>
  static void Forward(void* parser_, Operation operation_);

  XMLElement* root = nullptr;
  size_t tree_limit = 0;       // Bytes. NOMUTATE(constant): set before it is used.
  XMLElement* last = nullptr;  // The innermost open element.
  std::string encoding;
  bool valid_xml = true;
  std::string error;  // Why valid_xml is false.
  int attribute_declarations = 0;
  std::exception_ptr failure;  // Thrown in a handler, to be thrown again outside expat.
};

namespace {

struct ParserFree {
  void operator()(XML_Parser parser_) const { XML_ParserFree(parser_); }
};
using ParserHandle = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree>;

std::string ReadWholeFile(const std::string& path_) {
  InputFile file(path_);
  if (!file.IsOpen()) {
    throw Logged(Format("Could not open \"%s\" for reading", path_.c_str()));
  }
  std::string text;
  char block[16384];
  while (const size_t length = file.Read(block, sizeof(block))) {
    text.append(block, length);
  }
  return text;
}

// Switches reparse deferral on or off; null if the library has no deferral.
//
// With each feed, expat scans an incomplete token again from its start: a long token would take
// time quadratic in its length. Deferral prevents that: expat waits until much more input has come.
// No feed is marked as the last one, so deferral must be off before the last feed, or the end of
// the document would be lost. The function is looked up when the program runs: distributions port
// it back to older releases, so neither the headers nor the version tell whether it exists.
using SetReparseDeferral = XML_Bool (*)(XML_Parser, XML_Bool);
SetReparseDeferral FindSetReparseDeferral() {
  static const auto function =
      reinterpret_cast<SetReparseDeferral>(dlsym(RTLD_DEFAULT, "XML_SetReparseDeferralEnabled"));
  return function;
}

// How many of the bytes fed so far belong to a token that is incomplete.
size_t IncompleteBytes(XML_Parser parser_, size_t fed_) {
  const XML_Index token_start = XML_GetCurrentByteIndex(parser_);  // -1 before the first token.
  return token_start < 0 ? fed_ : fed_ - static_cast<size_t>(token_start);
}

}  // namespace

void XMLDocument::Impl::Load(const std::string& path_) {
  std::string text = ReadWholeFile(path_);
  tree_limit = TreeLimit(text.size());
  const char* expat_encoding = Prepare(text);
  if (!text.empty()) {
    Parse(expat_encoding, text);
  }
}

// Converts text_ for expat and returns the name of its encoding.
const char* XMLDocument::Impl::Prepare(std::string& text_) const {
  if (encoding == std::string_view("utf16")) {
    return "UTF-16";
  }
  if (encoding == std::string_view("ascii")) {
    text_ = ExtAsciiToUtf8String(text_);
  }
  text_ = ToValidUtf8(std::move(text_), kDebugTrace, "Re-encoding invalid parser output to UTF-8");
  return "UTF-8";
}

void XMLDocument::Impl::Parse(const char* expat_encoding_, const std::string& text_) {
  const ParserHandle handle(XML_ParserCreate(expat_encoding_));
  if (!handle) {
    throw std::bad_alloc();
  }
  XML_Parser const parser = handle.get();
  XML_SetUserData(parser, this);
  XML_UseParserAsHandlerArg(parser);
  XML_SetElementHandler(parser, start_element_handler, end_element_handler);
  XML_SetCharacterDataHandler(parser, character_data_handler);
  XML_SetAttlistDeclHandler(parser, attlist_decl_handler);
  const SetReparseDeferral set_reparse_deferral = FindSetReparseDeferral();
  size_t fed = 0;
  while (valid_xml && fed < text_.size()) {
    // Without deferral, the next feed doubles an incomplete token: the time stays linear.
    // NOMUTATE(constant): the length of a feed shows in time only.
    const size_t wanted = set_reparse_deferral == nullptr ? IncompleteBytes(parser, fed) : 0;
    const size_t length = std::min(std::max(kFeedBytes, wanted), text_.size() - fed);
    if (set_reparse_deferral != nullptr && fed + length == text_.size()) {
      set_reparse_deferral(parser, XML_FALSE);
    }
    Feed(parser, text_.data() + fed, length);
    fed += length;
  }
}

// No feed is marked as the final one: a document that merely ends early is accepted, so that its
// beginning can be used.
void XMLDocument::Impl::Feed(XML_Parser parser_, const char* data_, size_t length_) {
  const XML_Status status = XML_Parse(parser_, data_, static_cast<int>(length_), XML_FALSE);
  if (failure) {
    try {
      std::rethrow_exception(failure);
    } catch (const std::bad_alloc&) {  // There is no memory, or a limit was exceeded.
      ReportError(parser_, XML_ERROR_NO_MEMORY);
    }
  } else if (status != XML_STATUS_OK) {
    ReportError(parser_, XML_GetErrorCode(parser_));
  }
}

void XMLDocument::Impl::ReportError(XML_Parser parser_, XML_Error code_) {
  valid_xml = false;
  error = Logged(Format("%s at line %d", XML_ErrorString(code_),
                        static_cast<int>(XML_GetCurrentLineNumber(parser_))));
}

void XMLDocument::Impl::StartElement(const char* name_, const char** atts_) {
  if (last != nullptr) {
    last = last->AddPooledChild(name_, atts_);
  } else if (root == nullptr) {
    last = root = new XMLElement(name_, atts_, tree_limit);
  } else {
    throw Logged("Root element must be a singleton");
  }
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
    last->AppendText(s_, static_cast<size_t>(len_));
  }
}

void XMLDocument::Impl::AttributeDeclaration() {
  if (++attribute_declarations > kMaxAttributeDeclarations) {
    throw std::bad_alloc();
  }
}

// Calls an operation of the parser's document. expat's frames are C and cannot be unwound, so an
// exception is kept, and parsing is stopped; the handlers that expat still calls then do nothing.
template <typename Operation>
void XMLDocument::Impl::Forward(void* parser_, Operation operation_) {
  auto* const self = static_cast<Impl*>(XML_GetUserData(static_cast<XML_Parser>(parser_)));
  if (self->failure) {
    return;
  }
  try {
    operation_(*self);
  } catch (...) {
    self->failure = std::current_exception();
    XML_StopParser(static_cast<XML_Parser>(parser_), XML_FALSE);
  }
}

void XMLDocument::Impl::start_element_handler(void* parser_, const char* name_,
                                              const char** atts_) {
  Forward(parser_, [=](Impl& self_) { self_.StartElement(name_, atts_); });
}

void XMLDocument::Impl::end_element_handler(void* parser_, const char* name_) {
  Forward(parser_, [=](Impl& self_) { self_.EndElement(name_); });
}

void XMLDocument::Impl::character_data_handler(void* parser_, const char* s_, int len_) {
  Forward(parser_, [=](Impl& self_) { self_.CharacterData(s_, len_); });
}

void XMLDocument::Impl::attlist_decl_handler(void* parser_, const char*, const char*, const char*,
                                             const char*, int) {
  Forward(parser_, [](Impl& self_) { self_.AttributeDeclaration(); });
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
  try {
    const XMLDocument document(path_, "utf8");
    std::unique_ptr<XMLElement> root(document.GetRoot());
    document.GetRoot(root_name_);
    if (!document.IsValidXML()) {
      throw document.GetError();
    }
    return root;
  } catch (const std::exception& e) {
    throw std::string(e.what());
  }
}

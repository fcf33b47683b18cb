// The XML document model: an element tree, read from a file through expat and written back in an
// indented layout.
//
// The model is deliberately small: no namespaces, comments or processing instructions, and all
// character data of an element is one text.
#pragma once

#include <stddef.h>
#include <stdio.h>

#include <list>
#include <memory>
#include <string>
#include <string_view>

// A named element with text, attributes and owned children. Strings are byte strings.
// Neither building, writing nor deleting a tree recurses: depth costs no stack.
class XMLElement {
 public:
  XMLElement();
  explicit XMLElement(const char* name_);
  // attrs_ is null or a list name, value, name, value, ... ended by a null pointer, as expat
  // delivers it. The first of several attributes of one name counts.
  XMLElement(const char* name_, const char** attrs_);
  // Deletes the whole subtree.
  ~XMLElement();

  XMLElement(const XMLElement&) = delete;
  // Copies the name and replaces the attributes; text, parent and children stay as they are.
  // The counterpart of operator==. The memory of the old ones is kept until the element ends.
  XMLElement& operator=(const XMLElement& rhs_);
  // Compares name and attributes only: an input directory is unchanged if the attributes of its
  // element are, whatever is inside the element.
  bool operator==(const XMLElement& rhs_) const;

  // Appends child_ to the children and takes ownership of it.
  // REQUIRES: child_ has no parent and is no ancestor of this element.
  void AddChild(XMLElement* child_);
  void AppendText(const std::string& s_);
  void AppendText(const char* s_, size_t length_);

  // All character data in document order, untrimmed.
  std::string GetText() const;
  std::string GetName() const;
  // The element that owns this one; null for a root.
  XMLElement* GetParent();
  const XMLElement* GetParent() const;

  // True if some ancestor (not only the parent) has that name. Never true for the empty name.
  bool IsChildOf(const std::string& parent_name_) const;

  // The direct children of that name, or all if name_ is empty, in document order.
  // They stay owned by this element.
  std::list<const XMLElement*> GetChildren(const std::string& name_) const;

  // The same without a list: the first child, and the next child of the same parent; null if there
  // is none.
  const XMLElement* GetFirstChild() const;
  const XMLElement* GetNextSibling() const;
  bool HasName(std::string_view name_) const;

  // The attribute's value. Logs and throws a string if it is absent.
  std::string GetAttributeString(const std::string& name_) const;
  // default_ if the attribute is absent; a present but empty value is returned as it is.
  std::string GetAttributeString(const std::string& name_, const std::string& default_) const;
  // The attribute's value as ParseInteger reads it. Logs and throws a string that names element
  // and attribute if it is absent or no integer.
  int GetAttributeInteger(const std::string& name_) const;
  // default_ if the attribute is absent or empty; throws as above if it is no integer.
  int GetAttributeInteger(const std::string& name_, int default_) const;

  // Add an attribute; one that exists keeps its value. Values are not escaped or checked.
  void SetAttributeString(const std::string& name_, const std::string& value_);
  void SetAttributeInteger(const std::string& name_, int value_);

  // Writes the element and its subtree, four blanks of indentation a level after indent_, with
  // attributes in byte order of their names. Text is not written, and nothing is escaped.
  void Dump(FILE* file_, std::string indent_) const;
  // The same as a text.
  std::string DumpToString(std::string indent_) const;

 private:
  friend class XMLDocument;
  struct Impl;

  explicit XMLElement(Impl* impl_);
  // A root whose tree takes at most memory_limit_ bytes; beyond, std::bad_alloc is thrown.
  XMLElement(const char* name_, const char** attrs_, size_t memory_limit_);
  // A new child in the pool of this element's tree.
  XMLElement* AddPooledChild(const char* name_, const char** attrs_);

  Impl* impl;  // Owned, or in the pool of the tree.
};

// A whole XML file, read at once. The document does not own the tree: whoever takes the root
// deletes it, before or after the document.
class XMLDocument {
 public:
  // encoding_ is "utf16" (expat finds the byte order), "ascii" (see ExtAsciiToUtf8Char), or
  // anything else for UTF-8. Invalid UTF-8 is replaced by U+FFFD before parsing.
  // A document that merely ends early is valid. One that is malformed is logged; the part of
  // the tree before the error stays reachable. A document is malformed ("out of memory") if its
  // tree would take more than 4 MiB plus 64 times the size of its file, if memory runs out, or if
  // it has more than 10,000 attribute declarations. Logs and throws a string if the file cannot be
  // opened; throws std::bad_alloc if there is no memory for its bytes.
  XMLDocument(const std::string& path_, const std::string& encoding_);
  ~XMLDocument();

  XMLDocument(const XMLDocument&) = delete;
  XMLDocument& operator=(const XMLDocument&) = delete;

  // The root; null if the file has no start tag before its end or its first error.
  XMLElement* GetRoot() const;
  // The root; logs and throws a string if there is none of that name.
  XMLElement* GetRoot(const std::string& name_) const;
  // False if the XML is malformed.
  bool IsValidXML() const;
  // The error and its line, as logged; empty if IsValidXML().
  std::string GetError() const;
  // Writes the tree as XMLElement::Dump does; nothing if there is no root.
  void Dump(FILE* file_) const;

 private:
  struct Impl;
  Impl* impl;  // Owned.
};

// Reads the UTF-8 document at path_, whose root must be named root_name_, and hands over the
// tree. Throws a string if the file cannot be opened, has no such root or is malformed, or if there
// is no memory for it.
std::unique_ptr<XMLElement> LoadXMLTree(const std::string& path_, const std::string& root_name_);

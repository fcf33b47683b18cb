// An XML file as the daemon loads it, with the place of every element.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "findings.h"
#include "xml.h"

// Properties of an element that the daemon's tree does not keep.
struct Tag {
  int line = 0;
  int text_line = 0;                    // Of the first text in the element; 0: there is none.
  std::vector<std::string> attributes;  // Names in the tag itself, in their order.
};

class TagReader;

class Document {
 public:
  // Loads the file. Adds the errors of the whole file to findings_. There is no root if the daemon
  // cannot use the file.
  Document(const std::string& path_, const std::string& root_name_, Findings& findings_);

  const XMLElement* Root() const { return root.get(); }

  // REQUIRES: element_ is one of this document's.
  const Tag& TagOf(const XMLElement& element_) const { return tags.at(&element_); }
  Place PlaceOf(const XMLElement& element_, const std::string& item_) const;

  // Finds text in element_, and children whose names are not in known_. In a configuration, a name
  // that is probably misspelt is an error.
  void CheckContent(const XMLElement& element_, const std::vector<std::string>& known_,
                    Findings& findings_) const;

 private:
  bool IsReadable() const;
  void Explain(const std::string& why_, const std::string& root_name_, Findings& findings_) const;
  std::string Complete(const std::string& why_, const TagReader& reader_) const;
  std::string RemedyFor(const TagReader& reader_) const;
  void NoteTags(const TagReader& reader_);

  std::string path;
  std::unique_ptr<XMLElement> root;
  std::map<const XMLElement*, Tag> tags;
};

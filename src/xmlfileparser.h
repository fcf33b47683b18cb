// XML message files: configured fields are extracted from the document and make up the text.
#pragma once

#include <string>

#include "fileparser.h"

class XMLElement;

class XMLFileParser : public FileParser {
 public:
  // Reads a "parser" element with its "field" children. encoding_ is that of the message files,
  // as XMLDocument names it. The element is not needed any more afterwards.
  // Throws a string if a required attribute is missing or "attr-mode" is no integer.
  XMLFileParser(const XMLElement* element_, const std::string& encoding_);
  ~XMLFileParser() override;

  XMLFileParser(const XMLFileParser&) = delete;
  XMLFileParser& operator=(const XMLFileParser&) = delete;

  // The pieces that the fields yield, joined by ". " where the text so far does not end in white
  // space. At every element, from the root down in document order, the fields are applied in
  // their order to its children. Pieces that would make the text longer than about 65536 bytes
  // are left out. Empty, with a log line, for a file that is unreadable or malformed.
  // Never throws a string.
  std::string ParseFile(const std::string& path_) const override;

 private:
  struct Impl;
  Impl* impl;  // Owned.
};

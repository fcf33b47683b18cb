// XML documents, and the texts that fields extract from them: expat with feeds of 1024 bytes and no
// deferral, a tree of plain nodes, and the rules step by step, with recursion.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

namespace model {

struct Node {
  std::string name;
  std::map<std::string, std::string> attributes;
  std::string text;
  std::vector<const Node*> children;
  Node* parent = nullptr;
  int depth = 1;
};

// A document without a limit on its memory.
struct Document {
  // encoding_: "utf8", "ascii" or "utf16".
  Document(const std::string& content_, const std::string& encoding_);
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  std::string Dump() const;
  std::string Texts() const;  // Of all elements in document order, each with a bar after it.
  int Depth() const;

  std::deque<Node> nodes;  // In document order; the first is the root.
  Node* open = nullptr;
  std::string error;
  std::string log;
};

// A rule of an XML parser's configuration.
struct Field {
  std::string parent, tag, attr, attr_value;
};

// The text that fields extract below a root, and the lines that the log has about it.
struct Extraction {
  Extraction(const std::vector<Field>& fields_, bool attribute_mode_, const Node& root_);

  std::string text;
  std::string log;

 private:
  void ParseElement(const Node& element_);
  void ProcessChild(const Field& field_, const Node& element_, const Node& child_);
  bool HasRoom(const std::string& piece_);

  const std::vector<Field>& fields;
  const bool attribute_mode;
};

}  // namespace model

// What the fuzzers of XML files share: large and hostile documents from small inputs, and two
// properties that hold for each document: its memory is limited, and it brings in no other file.
#pragma once

#include <algorithm>
#include <memory>
#include <string>

#include "fuzz.h"
#include "memory.h"
#include "xml.h"

namespace fuzz {

constexpr size_t kMaxDocumentBytes = 1 << 20;

// A file that no document may bring in.
class Secret {
 public:
  static const std::string& Path() { return Get().path_; }
  static constexpr char kText[] = "nobody-asked-for-this-file";

 private:
  Secret() : path_(scratch_.Write("secret", kText)) {}
  static const Secret& Get() {
    static const Secret secret;
    return secret;
  }
  Scratch scratch_;
  std::string path_;
};

// The document that an input describes, up to max_size bytes. Three bytes that no XML file
// holds give an input of some bytes the effect of a large one:
//
//   \x01 DIGIT TEXT \x01   is TEXT 4 to the power of DIGIT times
//   \x03                   within TEXT is the number of the repetition
//   \x02                   is the path of the secret file
inline std::string Unfold(const std::string& input, size_t max_size = kMaxDocumentBytes) {
  std::string document;
  const auto append = [&document, max_size](const std::string& text, const std::string& number) {
    for (size_t i = 0; i < text.size() && document.size() < max_size; ++i) {
      if (text[i] == '\2') {
        document += Secret::Path();
      } else if (text[i] == '\3') {
        document += number;
      } else {
        document += text[i];
      }
    }
  };
  for (size_t start = 0; start < input.size();) {
    size_t end = std::min(input.find('\1', start), input.size());
    append(input.substr(start, end - start), "");
    const char digit = end + 1 < input.size() ? input[end + 1] : 'x';
    start = std::min(end + 1, input.size());
    if (digit < '0' || digit > '9') {
      continue;
    }
    end = std::min(input.find('\1', start), input.size());
    const std::string text = input.substr(start + 1, end - start - 1);
    const size_t times = size_t{1} << (2 * (digit - '0'));
    for (size_t i = 0; i < times && !text.empty() && document.size() < max_size; ++i) {
      append(text, std::to_string(i));
    }
    start = std::min(end + 1, input.size());
  }
  return document.substr(0, max_size);
}

// The element after this one in document order, in the tree of root; null after the last.
inline const XMLElement* Next(const XMLElement* element, const XMLElement* root) {
  if (element->GetFirstChild() != nullptr) {
    return element->GetFirstChild();
  }
  while (element != root && element->GetNextSibling() == nullptr) {
    element = element->GetParent();
  }
  return element == root ? nullptr : element->GetNextSibling();
}

// Loads the document and hands over its tree; null if there is none. Whether it is valid goes to
// is_valid.
inline std::unique_ptr<XMLElement> Load(const std::string& path, const std::string& encoding,
                                        size_t size, bool& is_valid) {
  const Memory memory;
  const XMLDocument document(path, encoding);
  std::unique_ptr<XMLElement> root(document.GetRoot());
  is_valid = document.IsValidXML();
  Require(is_valid == document.GetError().empty(), "an error has a text, and only an error",
          document.GetError());
  RequireLimit("the daemon's memory for a document", memory.Own(), OwnLimit(size));
  RequireLimit("expat's memory for a document", memory.Expats(), ExpatLimit(size));
  return root;
}

// Whether the secret has come into a text. A document cannot spell it by chance, but an input that
// says it may: then nothing is known.
inline void RequireNoSecret(const std::string& text, const std::string& document) {
  Require(text.find(Secret::kText) == std::string::npos ||
              document.find("nobody-asked") != std::string::npos,
          "no other file is brought in", document);
}

}  // namespace fuzz

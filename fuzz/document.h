// Shared by the fuzzers of XML files: large and hostile documents from small inputs, and two
// properties of every document: its memory is limited, and it includes no other file.
#pragma once

#include <algorithm>
#include <memory>
#include <string>

#include "fuzz.h"
#include "memory.h"
#include "xml.h"

namespace fuzz {

constexpr size_t kMaxDocumentBytes = 1 << 20;

// A file that no document may include.
class Secret {
 public:
  static const std::string& Path() { return Get().path; }
  static constexpr char kText[] = "nobody-asked-for-this-file";

 private:
  Secret() : path(scratch.Write("secret", kText)) {}
  static const Secret& Get() {
    static const Secret secret;
    return secret;
  }
  Scratch scratch;
  std::string path;
};

// The document that an input describes, up to max_size bytes. Three bytes that no XML file
// holds give an input of some bytes the effect of a large one:
//
//   \x01 DIGIT TEXT \x01   is TEXT 4 to the power of DIGIT times
//   \x03                   within TEXT is the number of the repetition
//   \x02                   is the path of the secret file
inline std::string Unfold(const std::string& input_, size_t max_size_ = kMaxDocumentBytes) {
  std::string document;
  const auto append = [&document, max_size_](const std::string& text_, const std::string& number_) {
    for (size_t i = 0; i < text_.size() && document.size() < max_size_; ++i) {
      if (text_[i] == '\2') {
        document += Secret::Path();
      } else if (text_[i] == '\3') {
        document += number_;
      } else {
        document += text_[i];
      }
    }
  };
  for (size_t start = 0; start < input_.size();) {
    size_t end = std::min(input_.find('\1', start), input_.size());
    append(input_.substr(start, end - start), "");
    const char digit = end + 1 < input_.size() ? input_[end + 1] : 'x';
    start = std::min(end + 1, input_.size());
    if (digit < '0' || digit > '9') {
      continue;
    }
    end = std::min(input_.find('\1', start), input_.size());
    const std::string text = input_.substr(start + 1, end - start - 1);
    const size_t times = size_t{1} << (2 * (digit - '0'));
    for (size_t i = 0; i < times && !text.empty() && document.size() < max_size_; ++i) {
      append(text, std::to_string(i));
    }
    start = std::min(end + 1, input_.size());
  }
  return document.substr(0, max_size_);
}

// The element after this one in document order, in the tree of root; null after the last.
inline const XMLElement* Next(const XMLElement* element_, const XMLElement* root_) {
  if (element_->GetFirstChild() != nullptr) {
    return element_->GetFirstChild();
  }
  while (element_ != root_ && element_->GetNextSibling() == nullptr) {
    element_ = element_->GetParent();
  }
  return element_ == root_ ? nullptr : element_->GetNextSibling();
}

// Loads the document and hands over its tree; null if there is none. Whether it is valid goes to
// is_valid.
inline std::unique_ptr<XMLElement> Load(const std::string& path_, const std::string& encoding_,
                                        size_t size_, bool& is_valid_) {
  const Memory memory;
  const XMLDocument document(path_, encoding_);
  std::unique_ptr<XMLElement> root(document.GetRoot());
  is_valid_ = document.IsValidXML();
  Require(is_valid_ == document.GetError().empty(), "an error has a text, and only an error",
          document.GetError());
  RequireLimit("the daemon's memory for a document", memory.Own(), OwnLimit(size_));
  RequireLimit("expat's memory for a document", memory.Expats(), ExpatLimit(size_));
  return root;
}

// Whether a text has the secret. A document does not spell it by chance; an input that holds the
// secret itself proves nothing.
inline void RequireNoSecret(const std::string& text_, const std::string& document_) {
  Require(text_.find(Secret::kText) == std::string::npos ||
              document_.find("nobody-asked") != std::string::npos,
          "no other file is brought in", document_);
}

}  // namespace fuzz

// XML documents in each encoding. The first byte chooses the encoding, the rest is the document
// (see document.h).
//
// Everything in the tree is valid UTF-8 (names, texts and values come from expat), and a tree
// whose values need no escaping is the same after it was dumped and parsed again. Loading keeps
// its limits of memory and reads no other file.
#include "debug.h"
#include "document.h"
#include "fuzz.h"

namespace {

constexpr size_t kMaxDumpBytes = 4 << 20;

const fuzz::Scratch kScratch;

void CheckElements(const XMLElement* root_, const std::string& document_) {
  for (const XMLElement* element = root_; element != nullptr;
       element = fuzz::Next(element, root_)) {
    fuzz::Require(fuzz::IsUtf8(element->GetName()), "names are UTF-8");
    const std::string text = element->GetText();
    fuzz::Require(fuzz::IsUtf8(text), "texts are UTF-8");
    fuzz::RequireNoSecret(text, document_);
    for (const XMLElement* child = element->GetFirstChild(); child != nullptr;
         child = child->GetNextSibling()) {
      fuzz::Require(child->GetParent() == element, "a child's parent is its holder");
    }
  }
}

// Whether a dump stays small: that of n nested elements has n * n / 2 columns of indentation.
bool HasSmallIndentation(const XMLElement* root_) {
  size_t columns = 0;
  for (const XMLElement* element = root_; element != nullptr && columns < kMaxDumpBytes;
       element = fuzz::Next(element, root_)) {
    for (const XMLElement* ancestor = element; ancestor != root_ && columns < kMaxDumpBytes;
         ancestor = ancestor->GetParent()) {
      columns += 2 * 4;  // Start tag and end tag.
    }
  }
  return columns < kMaxDumpBytes;
}

// Whether values may hold what a dump does not escape: without references, values in single quotes
// and declarations they cannot.
bool NeedsEscaping(const std::string& text_) {
  return text_.find_first_of("&'") != std::string::npos || text_.find("<!") != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  SetDebugMask(0);
  fuzz::Input input(data_, size_);
  const char* const encodings[] = {"utf8", "ascii", "utf16"};
  const std::string encoding = encodings[input.Byte() % 3];
  const std::string text = fuzz::Unfold(input.Rest());
  bool is_valid = false;
  const auto root =
      fuzz::Load(kScratch.Write("document.xml", text), encoding, text.size(), is_valid);
  if (!root) {
    return 0;
  }
  CheckElements(root.get(), text);
  if (!HasSmallIndentation(root.get())) {
    return 0;
  }
  const std::string dump = fuzz::Dumped(*root);
  fuzz::Require(fuzz::IsUtf8(dump), "a dump is UTF-8", dump);
  fuzz::RequireNoSecret(dump, text);
  if (encoding == "utf16" || NeedsEscaping(text)) {
    return 0;
  }
  const XMLDocument again(kScratch.Write("dump.xml", dump), "utf8");
  const std::unique_ptr<XMLElement> reread(again.GetRoot());
  fuzz::Require(again.IsValidXML() && reread, "a dump can be parsed", dump);
  fuzz::Require(fuzz::Dumped(*reread) == dump, "a dump reads as the tree it came from", dump);
  return 0;
}

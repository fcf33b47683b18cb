// Texts of status files, as vocastra-say and vocastra-status read them. They may be half written,
// and values are not escaped.
//
// A text is refused, or its tree has all attributes that the tools read. Parsing the dump of a tree
// gives the same tree, and every proper beginning of a text is refused.
#include "debug.h"
#include "document.h"
#include "fuzz.h"
#include "statusfile.h"

namespace {

constexpr size_t kMaxDepth = 100;  // A dump has four columns more for each.

bool IsFlat(const XMLElement* root_) {
  for (const XMLElement* element = root_; element != nullptr;
       element = fuzz::Next(element, root_)) {
    size_t depth = 0;
    for (const XMLElement* above = element; above != nullptr; above = above->GetParent()) {
      if (++depth > kMaxDepth) {
        return false;
      }
    }
  }
  return true;
}

// Reads all attributes of a status that the tools read without a check. The reader has the same
// list; the copy is on purpose, so that an attribute that the reader forgets is noticed.
void ReadAll(const XMLElement& root_) {
  for (const char* name : {"timestamp", "now-playing", "output-bound"}) {
    root_.GetAttributeInteger(name);
  }
  root_.GetAttributeString("state");
  for (const XMLElement* directory : root_.GetChildren("directory")) {
    for (const char* name : {"id", "status", "path"}) {
      directory->GetAttributeString(name);
    }
    directory->GetAttributeInteger("total-file-count");
    directory->GetAttributeInteger("updated-file-count");
    for (const XMLElement* message : directory->GetChildren("message")) {
      message->GetAttributeInteger("id");
      message->GetAttributeInteger("plays");
      message->GetAttributeString("filename");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  static const fuzz::Scratch scratch;
  SetDebugMask(0);
  fuzz::Input input(data_, size_);
  const size_t cut = input.Byte();
  const std::string text = fuzz::Unfold(input.Rest());
  const std::unique_ptr<XMLElement> root = ParseStatus(text);
  if (!root) {
    return 0;
  }
  ReadAll(*root);
  fuzz::Require(ReadStatus(scratch.Write("status.xml", text)) != nullptr,
                "a file is read as its text", text);
  const size_t shorter = text.size() - std::min(text.size(), cut + 1);
  fuzz::Require(!ParseStatus(text.substr(0, shorter)), "half a text is refused", text);
  if (text.find('\0') != std::string::npos || !IsFlat(root.get())) {
    return 0;  // Zero bytes end values in a dump. A status has none: they come from a file.
  }
  const std::string dump = fuzz::Dumped(*root);
  const std::unique_ptr<XMLElement> again = ParseStatus(dump);
  fuzz::Require(again != nullptr, "a dump can be parsed", dump);
  fuzz::Require(fuzz::Dumped(*again) == dump, "a dump reads as the tree it came from", dump);
  return 0;
}

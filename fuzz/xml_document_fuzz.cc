// XML documents in each encoding. The first byte chooses the encoding.
//
// Everything in the tree is valid UTF-8 (names, texts and values come from expat), and a tree
// whose values need no escaping is the same after it was dumped and parsed again.
#include <algorithm>
#include <memory>

#include "debug.h"
#include "fuzz.h"
#include "xml.h"

namespace {

const fuzz::Scratch scratch;

std::unique_ptr<XMLElement> Load(const std::string& path, const std::string& encoding) {
  const XMLDocument document(path, encoding);
  return std::unique_ptr<XMLElement>(document.GetRoot());
}

std::string Dumped(const XMLElement& root) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&buffer, &size);
  root.Dump(stream, "");
  fclose(stream);
  std::string text(buffer, size);
  free(buffer);
  return text;
}

// Depth is bounded by the caller: a dump of n nested elements has n * n / 2 columns of indentation.
int Depth(const XMLElement& element) {
  int deepest = 0;
  for (const XMLElement* child : element.GetChildren("")) {
    fuzz::Require(child->GetParent() == &element, "a child's parent is its holder");
    deepest = std::max(deepest, Depth(*child));
  }
  return deepest + 1;
}

void CheckUtf8(const XMLElement& element) {
  fuzz::Require(fuzz::IsUtf8(element.GetName()), "names are UTF-8");
  fuzz::Require(fuzz::IsUtf8(element.GetText()), "texts are UTF-8");
  for (const XMLElement* child : element.GetChildren("")) {
    CheckUtf8(*child);
  }
}

// Whether values may hold what a dump does not escape: without references, values in single quotes
// and declarations they cannot.
bool NeedsEscaping(const std::string& text) {
  return text.find_first_of("&'") != std::string::npos || text.find("<!") != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SetDebugMask(0);
  fuzz::Input input(data, size);
  const char* const encodings[] = {"utf8", "ascii", "utf16"};
  const std::string encoding = encodings[input.Byte() % 3];
  if (size > 4096) {
    return 0;
  }
  const std::string text = input.Rest();
  const auto root = Load(scratch.Write("document.xml", text), encoding);
  if (!root || Depth(*root) > 200) {
    return 0;
  }
  CheckUtf8(*root);
  const std::string dump = Dumped(*root);
  fuzz::Require(fuzz::IsUtf8(dump), "a dump is UTF-8", dump);
  if (encoding == "utf16" || NeedsEscaping(text)) {
    return 0;
  }
  const XMLDocument again(scratch.Write("dump.xml", dump), "utf8");
  const std::unique_ptr<XMLElement> reread(again.GetRoot());
  fuzz::Require(again.IsValidXML() && reread, "a dump can be parsed", dump);
  fuzz::Require(Dumped(*reread) == dump, "a dump reads as the tree it came from", dump);
  return 0;
}

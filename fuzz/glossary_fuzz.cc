// A glossary and words. First line: words, separated by blanks; the rest is the glossary (see
// document.h).
//
// Words are spoken as in the model, or the glossary is refused with a text. Loading keeps its
// limits of memory and reads no other file.
#include <memory>

#include "debug.h"
#include "document.h"
#include "fuzz.h"
#include "glossary.h"
#include "model/text.h"
#include "xml.h"

namespace {

constexpr size_t kMaxWordBytes = 400;  // The daemon cuts words after 100 characters.

std::map<std::string, std::string> Entries(const XMLElement* root_) {
  std::map<std::string, std::string> entries;
  for (const XMLElement* word : root_->GetChildren("word")) {
    entries.emplace(word->GetAttributeString("text"), word->GetAttributeString("speech"));
  }
  return entries;
}

void CheckWords(const Glossary& glossary_, const std::map<std::string, std::string>& entries_,
                const std::string& words_) {
  size_t begin = 0;
  while (begin <= words_.size()) {
    const size_t end = std::min(words_.find(' ', begin), words_.size());
    const std::string word = words_.substr(begin, end - begin);
    fuzz::Require(word.size() > kMaxWordBytes ||
                      glossary_.SubstituteSpeech(word) == model::Speech(entries_, word),
                  "a word is spoken by the rules", word);
    begin = end + 1;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  static const fuzz::Scratch scratch;
  SetDebugMask(0);
  fuzz::Input input(data_, size_);
  const std::string words = input.Line();
  const std::string content = fuzz::Unfold(input.Rest());
  const std::string path = scratch.Write("glossary.xml", content);
  bool is_valid = false;
  const auto root = fuzz::Load(path, "utf8", content.size(), is_valid);
  try {
    const Glossary glossary(path);
    fuzz::Require(is_valid && root, "what is malformed is refused", content);
    const auto entries = Entries(root.get());
    CheckWords(glossary, entries, words);
    for (const auto& [text, speech] : entries) {
      CheckWords(glossary, entries, text + " ." + text + ", .." + text);
      fuzz::RequireNoSecret(text + speech, content);
    }
  } catch (const std::string& text) {
    fuzz::Require(text.rfind("Reading glossary " + path + ": ", 0) == 0, "a refusal names the file",
                  text);
  }
  return 0;
}

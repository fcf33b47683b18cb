#include "glossarycheck.h"

#include <stdint.h>
#include <utf8.h>

#include <set>

#include "attributes.h"
#include "charencoding.h"
#include "document.h"
#include "format.h"

namespace {

// Why the daemon never looks that text up; empty if it does. The daemon splits messages at some
// characters and removes some from words.
std::string WhyNeverMatches(const std::string& text_) {
  constexpr int kMaxWordChars = 100;
  int length = 0;
  for (auto next = text_.begin(); next != text_.end();) {
    const uint32_t cp = utf8::next(next, text_.end());
    ++length;
    if (Utf8IsSpace(cp) || Utf8IsControl(cp)) {
      return "it has a blank or control character, where words end";
    }
    if (Utf8IsBreak(cp) && next != text_.end()) {
      return Format("words end after \"%c\"", static_cast<char>(cp));
    }
  }
  if (length == 0) {
    return "it is empty";
  }
  if (length > kMaxWordChars) {
    return Format("words are cut after %d characters", kMaxWordChars);
  }
  if (length > 1 && (text_.back() == '.' || text_.back() == ',')) {
    return Format("\"%c\" is taken off a word before it is looked up", text_.back());
  }
  return "";
}

void CheckWord(const Document& document_, const XMLElement& word_, std::set<std::string>& texts_,
               Findings& findings_) {
  const std::string text = word_.GetAttributeString("text", "");
  const Place place = document_.PlaceOf(word_, "word " + Quoted(text));
  CheckAttributes(document_, word_, place, findings_);
  document_.CheckContent(word_, {}, findings_);
  try {
    word_.GetAttributeString("text");
    word_.GetAttributeString("speech");
  } catch (const std::string& why) {
    findings_.Error(place, why + "; no message would be spoken", "Add it");
    return;
  }
  const std::string why = WhyNeverMatches(text);
  if (!why.empty()) {
    findings_.Warning(place, "never matches: " + why, "Write the word as the daemon looks it up");
  } else if (!texts_.insert(text).second) {
    findings_.Warning(place, "an earlier entry has this text; this one is ignored", "Remove it");
  }
}

}  // namespace

void CheckGlossary(const std::string& path_, Findings& findings_) {
  const Document document(path_, "glossary", findings_);
  if (document.Root() == nullptr) {
    return;
  }
  const XMLElement& root = *document.Root();
  CheckAttributes(document, root, document.PlaceOf(root, "glossary"), findings_);
  document.CheckContent(root, {"word"}, findings_);
  std::set<std::string> texts;
  for (const XMLElement* word : root.GetChildren("word")) {
    CheckWord(document, *word, texts, findings_);
  }
}

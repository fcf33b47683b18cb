#include <string.h>
#include <utf8.h>

#include <iterator>
#include <random>

#include "model/xml.h"
#include "test_util.h"

namespace {

constexpr size_t kFeedBytes = 1024;
constexpr int kDocuments = 4000;  // For each encoding.

// The result of loading a document, each part as text.
struct Outcome {
  std::string tree;   // As XMLDocument::Dump writes it.
  std::string texts;  // Of all elements in document order.
  std::string error;
  std::string log;
};

void CollectTexts(const XMLElement& element_, std::string& texts_) {
  texts_ += element_.GetText() + "|";
  for (const XMLElement* child = element_.GetFirstChild(); child != nullptr;
       child = child->GetNextSibling()) {
    CollectTexts(*child, texts_);
  }
}

Outcome DaemonOutcome(const std::string& path_, const std::string& encoding_) {
  Outcome outcome;
  outcome.log = WholeLogOf([&] {
    const XMLDocument document(path_, encoding_);
    const std::unique_ptr<XMLElement> root(document.GetRoot());
    outcome.tree = Written([&](FILE* file_) { document.Dump(file_); });
    outcome.error = document.GetError();
    if (root) {
      CollectTexts(*root, outcome.texts);
    }
  });
  return outcome;
}

enum LongToken { kComment, kCdata, kInstruction, kValue, kName, kEntity, kText, kLongTokens };

// Writes one random document. About every second one has a long token.
class Writer {
 public:
  Writer(uint32_t seed_, std::string encoding_)
      : random(seed_), encoding(std::move(encoding_)), wanted(Below(2 * kLongTokens)) {}

  // In the bytes of the encoding.
  std::string Document() {
    Prolog();
    Element(0);
    for (int i = Below(4); i > 0; --i) {
      Miscellaneous();
    }
    Damage();
    return encoding == "utf16" ? ToUtf16() : document;
  }

  int written = kLongTokens;  // The kind of the long token, if there is one.

 private:
  int Below(int limit_) { return static_cast<int>(random() % static_cast<uint32_t>(limit_)); }
  bool OneIn(int times_) { return Below(times_) == 0; }

  // The length of the next token of a kind: mostly short, around some feeds for the one long one.
  int Length(int kind_) {
    if (kind_ != wanted || written != kLongTokens || OneIn(3)) {
      return Below(12);
    }
    written = kind_;
    return OneIn(2) ? Below(9000) : static_cast<int>(kFeedBytes) * (1 + Below(4)) - Below(60);
  }

  std::string Characters(int length_, const char* letters_) {
    std::string text;
    const int count = static_cast<int>(strlen(letters_));
    for (int i = 0; i < length_; ++i) {
      text += letters_[Below(count)];
    }
    return text;
  }

  // Characters of one to four bytes, in the writer's encoding. UTF-16 is made of UTF-8 at the end.
  std::string Prose(int length_) {
    std::string text;
    while (length_-- > 0) {
      const int kind = Below(40);
      if (kind == 0) {
        text += encoding == "ascii" ? "\xE9" : "\xC3\xA9";
      } else if (kind == 1) {
        text += encoding == "ascii" ? "\xA0" : "\xE2\x82\xAC";
      } else if (kind == 2) {
        text += encoding == "ascii" ? "\xFF" : "\xF0\x9F\x9A\x86";
      } else {
        text += "the train leaves\n\r\t"[Below(19)];
      }
    }
    return text;
  }

  std::string Name() { return "n" + Characters(Length(kName), "aZ.-_:9"); }

  void Prolog() {
    if (OneIn(4)) {
      document +=
          encoding == "utf16" || OneIn(2) ? "<?xml version=\"1.0\"?>" : "<?xml version='1.1'?>";
    }
    if (OneIn(4)) {
      Miscellaneous();
    }
    if (wanted == kEntity || OneIn(5)) {
      document += "<!DOCTYPE " + Name() + " [<!ENTITY e \"" + Prose(Length(kEntity)) + "\">\n";
      document += "<!ENTITY f '&e;<b>&e;</b>'><!ATTLIST b d CDATA \"" + Prose(Below(5)) + "\">]>\n";
      has_entities = true;
    }
  }

  void Miscellaneous() {
    switch (Below(4)) {
      case 0:
        document += "<!--" + Prose(Length(kComment)) + "-->";
        break;
      case 1:
        document += "<?" + Name() + " " + Prose(Length(kInstruction)) + "?>";
        break;
      default:
        document += Characters(Below(3), " \n");
    }
  }

  void Element(int depth_) {
    const std::string name = Name();
    document += "<" + name;
    for (int i = Below(3); i > 0; --i) {
      const char quote = OneIn(2) ? '\'' : '"';
      document += " a" + std::to_string(i) + (OneIn(20) ? "" : Name()) + "=" + quote;
      document += Prose(Length(kValue)) + Reference() + quote;
    }
    if (OneIn(6)) {
      document += "/>";
      return;
    }
    document += OneIn(10) ? " >" : ">";
    for (int i = Below(6); i > 0; --i) {
      Content(depth_);
    }
    document += "</" + name + ">";
  }

  void Content(int depth_) {
    switch (Below(6)) {
      case 0:
        document += "<![CDATA[" + Prose(Length(kCdata)) + "]]>";
        break;
      case 1:
        document += Reference();
        break;
      case 2:
      case 3:
        if (depth_ < 5) {
          Element(depth_ + 1);
        }
        break;
      case 4:
        Miscellaneous();
        break;
      default:
        document += Prose(Length(kText));
    }
  }

  std::string Reference() {
    constexpr const char* kReferences[] = {"", "", "&amp;", "&lt;", "&#233;", "&#x20AC;", "&none;"};
    // An unknown entity is an error, so there are few.
    const int choice = Below(OneIn(8) ? 7 : 6);
    return has_entities && OneIn(2) ? (OneIn(2) ? "&e;" : "&f;") : kReferences[choice];
  }

  // Of ten documents, three are unchanged, three are cut and four are damaged in the middle.
  void Damage() {
    const int kind = Below(10);
    const size_t place = document.empty() ? 0 : random() % document.size();
    if (kind < 3) {
      document.resize(place);
    } else if (kind == 3) {
      document[place] = static_cast<char>(Below(256));
    } else if (kind == 4) {
      document.erase(place, 1 + random() % 20);
    } else if (kind == 5) {
      constexpr const char* kPieces[] = {"<",  ">",  "&",  "--",   "]]>",
                                         "<x", "\"", "?>", "<!--", "/>"};
      document.insert(place, kPieces[Below(10)]);
    } else if (kind == 6) {
      document.insert(place, document, random() % document.size(), 1 + random() % 50);
    }
  }

  std::string ToUtf16() {
    std::string valid;
    utf8::replace_invalid(document.begin(), document.end(), std::back_inserter(valid));
    std::vector<uint16_t> units;
    if (!OneIn(5)) {
      units.push_back(0xFEFF);  // Without it, expat assumes its default order.
    }
    utf8::utf8to16(valid.begin(), valid.end(), std::back_inserter(units));
    const bool is_big = OneIn(2);
    std::string bytes;
    for (const uint16_t unit : units) {
      const char high = static_cast<char>(unit >> 8);
      const char low = static_cast<char>(unit & 0xFF);
      bytes += is_big ? high : low;
      bytes += is_big ? low : high;
    }
    if (OneIn(10) && !bytes.empty()) {
      bytes.pop_back();
    }
    return bytes;
  }

  std::mt19937 random;
  std::string encoding;
  int wanted;
  bool has_entities = false;
  std::string document;
};

class XMLModelTest : public testing::TestWithParam<const char*> {};

TEST_P(XMLModelTest, Agrees) {
  const TemporaryDirectory directory;
  int malformed = 0;
  int counts[kLongTokens + 1] = {};
  for (uint32_t seed = 0; seed < kDocuments; ++seed) {
    Writer writer(seed, GetParam());
    const std::string text = writer.Document();
    const model::Document expected(text, GetParam());
    // Each in a file of its own: some file systems flush a file to disk when it is replaced.
    const std::string path = directory.Write(std::to_string(seed), text);
    const Outcome actual = DaemonOutcome(path, GetParam());
    unlink(path.c_str());
    ASSERT_EQ(expected.error, actual.error) << seed << ": " << text;
    ASSERT_EQ(expected.Dump(), actual.tree) << seed << ": " << text;
    ASSERT_EQ(expected.Texts(), actual.texts) << seed << ": " << text;
    ASSERT_EQ(expected.log, actual.log) << seed << ": " << text;
    malformed += expected.error.empty() ? 0 : 1;
    ++counts[writer.written];
  }
  // There are enough of each sort.
  EXPECT_GT(malformed, kDocuments / 10);
  EXPECT_LT(malformed, kDocuments * 9 / 10);
  for (const int count : counts) {
    EXPECT_GT(count, kDocuments / 100) << testing::PrintToString(counts);
  }
}

INSTANTIATE_TEST_SUITE_P(Encodings, XMLModelTest, testing::Values("utf8", "ascii", "utf16"),
                         [](const auto& encoding) { return std::string(encoding.param); });

}  // namespace

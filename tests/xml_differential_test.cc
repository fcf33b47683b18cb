// XMLDocument against a plain loader, on thousands of random documents: the tree, the error and the
// log are the same, wherever long tokens and the ends of feeds meet.

#include <dlfcn.h>
#include <expat.h>
#include <utf8.h>

#include <algorithm>
#include <deque>
#include <iterator>
#include <random>

#include "charencoding.h"
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

// The plain loader: expat with feeds of 1024 bytes and no deferral.
class PlainLoader {
 public:
  PlainLoader(const std::string& content, const std::string& encoding) {
    const std::string text = encoding == "utf16" ? content : ValidUtf8(content, encoding);
    parser_ = XML_ParserCreate(encoding == "utf16" ? "UTF-16" : "UTF-8");
    SwitchDeferralOff();
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(parser_, Start, End);
    XML_SetCharacterDataHandler(parser_, Text);
    for (size_t fed = 0; fed < text.size() && outcome_.error.empty(); fed += kFeedBytes) {
      Feed(text.substr(fed, kFeedBytes));
    }
    XML_ParserFree(parser_);
    if (!nodes_.empty()) {
      Write(nodes_.front(), "");
    }
  }
  PlainLoader(const PlainLoader&) = delete;
  PlainLoader& operator=(const PlainLoader&) = delete;

  const Outcome& outcome() const { return outcome_; }

 private:
  struct Node {
    std::string name;
    std::map<std::string, std::string> attributes;
    std::string text;
    std::vector<Node*> children;
    Node* parent = nullptr;
  };

  std::string ValidUtf8(std::string text, const std::string& encoding) {
    if (encoding == "ascii") {
      text = ExtAsciiToUtf8String(text);
    }
    if (utf8::find_invalid(text.begin(), text.end()) == text.end()) {
      outcome_.log += "Original is valid UTF-8\n";
      return text;
    }
    outcome_.log += "Re-encoding invalid parser output to UTF-8\n";
    std::string valid;
    utf8::replace_invalid(text.begin(), text.end(), std::back_inserter(valid));
    return valid;
  }

  // Where expat has no such function, it defers nothing.
  void SwitchDeferralOff() {
    void* const found = dlsym(RTLD_DEFAULT, "XML_SetReparseDeferralEnabled");
    if (found != nullptr) {
      reinterpret_cast<XML_Bool (*)(XML_Parser, XML_Bool)>(found)(parser_, XML_FALSE);
    }
  }

  void Feed(const std::string& piece) {
    if (XML_Parse(parser_, piece.data(), static_cast<int>(piece.size()), XML_FALSE) !=
        XML_STATUS_OK) {
      outcome_.error = std::string(XML_ErrorString(XML_GetErrorCode(parser_))) + " at line " +
                       std::to_string(XML_GetCurrentLineNumber(parser_));
      outcome_.log += outcome_.error + "\n";
    }
  }

  static void Start(void* loader, const char* name, const char** attributes) {
    auto* const self = static_cast<PlainLoader*>(loader);
    Node* const node = &self->nodes_.emplace_back();
    node->name = name;
    for (; *attributes != nullptr; attributes += 2) {
      node->attributes.emplace(attributes[0], attributes[1]);
    }
    node->parent = self->open_;
    if (self->open_ != nullptr) {
      self->open_->children.push_back(node);
    }
    self->open_ = node;
  }

  static void End(void* loader, const char* name) {
    auto* const self = static_cast<PlainLoader*>(loader);
    self->outcome_.log += std::string("EndElement: ") + name + "\n";
    self->open_ = self->open_->parent;
  }

  static void Text(void* loader, const char* text, int length) {
    auto* const self = static_cast<PlainLoader*>(loader);
    if (self->open_ != nullptr) {
      self->open_->text.append(text, static_cast<size_t>(length));
    }
  }

  void Write(const Node& node, const std::string& indent) {
    outcome_.texts += node.text + "|";
    outcome_.tree += indent + "<" + node.name;
    for (const auto& [name, value] : node.attributes) {
      outcome_.tree += " " + name + "=\"" + value + "\"";
    }
    outcome_.tree += node.children.empty() ? "/>\n" : ">\n";
    for (const Node* child : node.children) {
      Write(*child, indent + "    ");
    }
    if (!node.children.empty()) {
      outcome_.tree += indent + "</" + node.name + ">\n";
    }
  }

  XML_Parser parser_ = nullptr;
  std::deque<Node> nodes_;  // In document order.
  Node* open_ = nullptr;
  Outcome outcome_;
};

void CollectTexts(const XMLElement& element, std::string& texts) {
  texts += element.GetText() + "|";
  for (const XMLElement* child = element.GetFirstChild(); child != nullptr;
       child = child->GetNextSibling()) {
    CollectTexts(*child, texts);
  }
}

std::string DumpOf(const XMLDocument& document) {
  char* text = nullptr;
  size_t length = 0;
  FILE* const file = open_memstream(&text, &length);
  document.Dump(file);
  fclose(file);
  std::string dump(text, length);
  free(text);
  return dump;
}

Outcome DaemonOutcome(const std::string& path, const std::string& encoding) {
  Outcome outcome;
  outcome.log = LogOf(
      [&] {
        const XMLDocument document(path, encoding);
        const std::unique_ptr<XMLElement> root(document.GetRoot());
        outcome.tree = DumpOf(document);
        outcome.error = document.GetError();
        if (root) {
          CollectTexts(*root, outcome.texts);
        }
      },
      kDebugAvailable);
  return outcome;
}

enum LongToken { kComment, kCdata, kInstruction, kValue, kName, kEntity, kText, kLongTokens };

// Writes one random document. About every second one has a long token.
class Writer {
 public:
  Writer(uint32_t seed, std::string encoding)
      : random_(seed), encoding_(std::move(encoding)), long_token_(Below(2 * kLongTokens)) {}

  // In the bytes of the encoding.
  std::string Document() {
    Prolog();
    Element(0);
    for (int i = Below(4); i > 0; --i) {
      Miscellaneous();
    }
    Damage();
    return encoding_ == "utf16" ? ToUtf16() : text_;
  }

  // The kind of the long token; kLongTokens if there is none.
  int long_token() const { return written_; }

 private:
  int Below(int limit) { return static_cast<int>(random_() % static_cast<uint32_t>(limit)); }
  bool OneIn(int times) { return Below(times) == 0; }

  // The length of the next token of a kind: mostly short, around some feeds for the one long one.
  int Length(int kind) {
    if (kind != long_token_ || written_ != kLongTokens || OneIn(3)) {
      return Below(12);
    }
    written_ = kind;
    return OneIn(2) ? Below(9000) : static_cast<int>(kFeedBytes) * (1 + Below(4)) - Below(60);
  }

  std::string Characters(int length, const char* letters) {
    std::string text;
    const int count = static_cast<int>(strlen(letters));
    for (int i = 0; i < length; ++i) {
      text += letters[Below(count)];
    }
    return text;
  }

  // Characters of one to four bytes, in the writer's encoding. UTF-16 is made of UTF-8 at the end.
  std::string Prose(int length) {
    std::string text;
    while (length-- > 0) {
      const int kind = Below(40);
      if (kind == 0) {
        text += encoding_ == "ascii" ? "\xE9" : "\xC3\xA9";
      } else if (kind == 1) {
        text += encoding_ == "ascii" ? "\xA0" : "\xE2\x82\xAC";
      } else if (kind == 2) {
        text += encoding_ == "ascii" ? "\xFF" : "\xF0\x9F\x9A\x86";
      } else {
        text += "the train leaves\n\r\t"[Below(19)];
      }
    }
    return text;
  }

  std::string Name() { return "n" + Characters(Length(kName), "aZ.-_:9"); }

  void Prolog() {
    if (OneIn(4)) {
      text_ +=
          encoding_ == "utf16" || OneIn(2) ? "<?xml version=\"1.0\"?>" : "<?xml version='1.1'?>";
    }
    if (OneIn(4)) {
      Miscellaneous();
    }
    if (long_token_ == kEntity || OneIn(5)) {
      text_ += "<!DOCTYPE " + Name() + " [<!ENTITY e \"" + Prose(Length(kEntity)) + "\">\n";
      text_ += "<!ENTITY f '&e;<b>&e;</b>'><!ATTLIST b d CDATA \"" + Prose(Below(5)) + "\">]>\n";
      has_entities_ = true;
    }
  }

  void Miscellaneous() {
    switch (Below(4)) {
      case 0:
        text_ += "<!--" + Prose(Length(kComment)) + "-->";
        break;
      case 1:
        text_ += "<?" + Name() + " " + Prose(Length(kInstruction)) + "?>";
        break;
      default:
        text_ += Characters(Below(3), " \n");
    }
  }

  void Element(int depth) {
    const std::string name = Name();
    text_ += "<" + name;
    for (int i = Below(3); i > 0; --i) {
      const char quote = OneIn(2) ? '\'' : '"';
      text_ += " a" + std::to_string(i) + (OneIn(20) ? "" : Name()) + "=" + quote;
      text_ += Prose(Length(kValue)) + Reference() + quote;
    }
    if (OneIn(6)) {
      text_ += "/>";
      return;
    }
    text_ += OneIn(10) ? " >" : ">";
    for (int i = Below(6); i > 0; --i) {
      Content(depth);
    }
    text_ += "</" + name + ">";
  }

  void Content(int depth) {
    switch (Below(6)) {
      case 0:
        text_ += "<![CDATA[" + Prose(Length(kCdata)) + "]]>";
        break;
      case 1:
        text_ += Reference();
        break;
      case 2:
      case 3:
        if (depth < 5) {
          Element(depth + 1);
        }
        break;
      case 4:
        Miscellaneous();
        break;
      default:
        text_ += Prose(Length(kText));
    }
  }

  std::string Reference() {
    constexpr const char* kReferences[] = {"", "", "&amp;", "&lt;", "&#233;", "&#x20AC;", "&none;"};
    // An unknown entity is an error: seldom.
    const int choice = Below(OneIn(8) ? 7 : 6);
    return has_entities_ && OneIn(2) ? (OneIn(2) ? "&e;" : "&f;") : kReferences[choice];
  }

  // Of ten documents, three are left alone, three are cut and four have damage in the middle.
  void Damage() {
    const int kind = Below(10);
    const size_t place = text_.empty() ? 0 : random_() % text_.size();
    if (kind < 3) {
      text_.resize(place);
    } else if (kind == 3) {
      text_[place] = static_cast<char>(Below(256));
    } else if (kind == 4) {
      text_.erase(place, 1 + random_() % 20);
    } else if (kind == 5) {
      constexpr const char* kPieces[] = {"<",  ">",  "&",  "--",   "]]>",
                                         "<x", "\"", "?>", "<!--", "/>"};
      text_.insert(place, kPieces[Below(10)]);
    } else if (kind == 6) {
      text_.insert(place, text_, random_() % text_.size(), 1 + random_() % 50);
    }
  }

  std::string ToUtf16() {
    std::string valid;
    utf8::replace_invalid(text_.begin(), text_.end(), std::back_inserter(valid));
    std::vector<uint16_t> units;
    if (!OneIn(5)) {
      units.push_back(0xFEFF);  // Without it, the order is the one that expat takes for granted.
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

  std::mt19937 random_;
  std::string encoding_;
  int long_token_;
  int written_ = kLongTokens;
  bool has_entities_ = false;
  std::string text_;
};

class XMLDifferentialTest : public testing::TestWithParam<const char*> {};

TEST_P(XMLDifferentialTest, AgreesWithThePlainLoader) {
  const TemporaryDirectory directory;
  int malformed = 0;
  int counts[kLongTokens + 1] = {};
  for (uint32_t seed = 0; seed < kDocuments; ++seed) {
    Writer writer(seed, GetParam());
    const std::string document = writer.Document();
    const PlainLoader plain(document, GetParam());
    const Outcome& expected = plain.outcome();
    // Each in a file of its own: some file systems write a file out at once when it is replaced.
    const std::string path = directory.Write(std::to_string(seed), document);
    const Outcome actual = DaemonOutcome(path, GetParam());
    unlink(path.c_str());
    ASSERT_EQ(expected.error, actual.error) << seed << ": " << document;
    ASSERT_EQ(expected.tree, actual.tree) << seed << ": " << document;
    ASSERT_EQ(expected.texts, actual.texts) << seed << ": " << document;
    ASSERT_EQ(expected.log, actual.log) << seed << ": " << document;
    malformed += expected.error.empty() ? 0 : 1;
    ++counts[writer.long_token()];
  }
  // There are enough of each sort.
  EXPECT_GT(malformed, kDocuments / 10);
  EXPECT_LT(malformed, kDocuments * 9 / 10);
  for (const int count : counts) {
    EXPECT_GT(count, kDocuments / 100) << testing::PrintToString(counts);
  }
}

INSTANTIATE_TEST_SUITE_P(Encodings, XMLDifferentialTest, testing::Values("utf8", "ascii", "utf16"),
                         [](const auto& encoding) { return std::string(encoding.param); });

}  // namespace

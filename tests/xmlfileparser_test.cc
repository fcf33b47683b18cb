#include "xmlfileparser.h"

#include <string.h>

#include <random>
#include <utility>
#include <vector>

#include "test_util.h"

namespace {

constexpr char kNoLog[] = "";

std::string Repeat(const std::string& piece, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += piece;
  }
  return text;
}

// A "field" element.
std::string Field(const std::string& tag, const std::string& parent = "",
                  const std::string& attr = "", const std::string& attr_value = "") {
  return "<field parent='" + parent + "' tag='" + tag + "' attr='" + attr + "' attr_value='" +
         attr_value + "'/>";
}

std::unique_ptr<XMLFileParser> Build(const std::string& parser_element,
                                     const std::string& encoding = "utf8") {
  return std::make_unique<XMLFileParser>(ParseXML(parser_element).get(), encoding);
}

class XMLFileParserTest : public testing::Test {
 protected:
  // The text that the fields extract from a file; the log below mask goes to log_.
  std::string Extract(const std::string& fields, const std::string& file, unsigned int mask = 0,
                      const std::string& attributes = "", const std::string& encoding = "utf8") {
    const auto parser =
        Build("<parser id='p' type='xml' " + attributes + ">" + fields + "</parser>", encoding);
    directory_.Write("m", file);
    std::string text;
    log_ = LogOf([&] { text = parser->ParseFile(Path()); }, mask);
    return text;
  }
  std::string ExtractAttributes(const std::string& fields, const std::string& file,
                                unsigned int mask = 0) {
    return Extract(fields, file, mask, "attr-mode='1'");
  }
  std::string Path() const { return directory_ / "m"; }

  TemporaryDirectory directory_;
  std::string log_;
};

// --- Configuration ---

TEST_F(XMLFileParserTest, RejectsAnElementWithoutARequiredAttribute) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"<parser/>", "Element parser has no attribute id"},
      {"<parser type='xml' attr-mode='x'/>", "Element parser has no attribute id"},
      {"<parser id='p' attr-mode='x'/>", "Element parser has no attribute type"},
      {"<parser id='p' type=''><field/></parser>", "Element field has no attribute tag"},
      {"<parser id='p' type=''><field attr='' attr_value=''/></parser>",
       "Element field has no attribute tag"},
      {"<parser id='p' type=''><field tag='' attr_value=''/></parser>",
       "Element field has no attribute attr"},
      {"<parser id='p' type=''><field tag='' attr=''/></parser>",
       "Element field has no attribute attr_value"},
      {"<parser id='p' type=''><field tag='' attr='' attr-value=''/></parser>",
       "Element field has no attribute attr_value"},
      {"<parser id='p' type=''>" + Field("a") + "<field tag=''/></parser>",
       "Element field has no attribute attr"},
  };
  for (const auto& [element, text] : cases) {
    EXPECT_EQ(text + "\n", LogOf([&, thrown = text, xml = element] {
                EXPECT_EQ(thrown, ThrownText([&] { Build(xml); })) << xml;
              }));
  }
}

TEST_F(XMLFileParserTest, RejectsAnAttrModeThatIsNoIntegerBeforeItLooksAtFields) {
  const std::string text =
      "While processing attribute \"attr-mode\" of \"parser\": Could not convert \"yes\" to "
      "integer";
  EXPECT_EQ(text + "\n", LogOf([&] {
              EXPECT_EQ(text, ThrownText([] {
                          Build("<parser id='p' type='xml' attr-mode='yes'><field/></parser>");
                        }));
            }));
}

TEST_F(XMLFileParserTest, NeedsNeitherParentNorFields) {
  EXPECT_EQ("x", Extract("<field tag='t' attr='' attr_value=''/>", "<r><t>x</t></r>"));
  EXPECT_EQ("", Extract("", "<r><t>x</t></r>"));
  EXPECT_EQ("", Extract("<group>" + Field("t") + "</group><Field/>", "<r><t>x</t></r>"));
}

TEST_F(XMLFileParserTest, ExtractsAttributesIfAttrModeIsNotZero) {
  const std::string field = Field("t", "", "a");
  const std::string file = "<r><t a='value'>text</t></r>";
  for (const char* mode : {"1", "-1", "2", "0x10"}) {
    EXPECT_EQ("value", Extract(field, file, 0, std::string("attr-mode='") + mode + "'")) << mode;
  }
  for (const char* mode : {"0", "", "-0", "0x0"}) {
    EXPECT_EQ("text", Extract(Field("t"), file, 0, std::string("attr-mode='") + mode + "'"))
        << mode;
  }
}

TEST_F(XMLFileParserTest, OutlivesItsConfigurationElement) {
  auto element = ParseXML("<parser id='p' type='xml'>" + Field("t") + "</parser>");
  const std::unique_ptr<const FileParser> parser =
      std::make_unique<XMLFileParser>(element.get(), "utf8");
  element.reset();
  EXPECT_EQ("x", parser->ParseFile(directory_.Write("m", "<r><t>x</t></r>")));
}

// --- Files ---

TEST_F(XMLFileParserTest, YieldsNothingForAFileThatCannotBeOpened) {
  const auto parser = Build("<parser id='p' type='xml'/>");
  const std::string text = "Could not open \"" + Path() + "\" for reading";
  EXPECT_EQ(text + "\nUnable to read " + Path() + " as XML document: " + text + "\n",
            LogOf([&] { EXPECT_EQ("", parser->ParseFile(Path())); }, kDebugAvailable));
}

TEST_F(XMLFileParserTest, YieldsNothingForAMalformedFileWhateverPrecedesTheError) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"<r><t>x</t>\n</s>", "mismatched tag at line 2"},
      {"<r><t>x</t></r><r/>", "junk after document element at line 1"},
      {"<r><t>x</t></r></r>", "not well-formed (invalid token) at line 1"},
      {"<r><t>x</t>&nothing;</r>", "undefined entity at line 1"},
      {"<r><t a='1' a='2'>x</t></r>", "duplicate attribute at line 1"},
      {"plain text", "syntax error at line 1"},
  };
  for (const auto& [file, error] : cases) {
    EXPECT_EQ("", Extract(Field("t"), file, kDebugDefault)) << file;
    EXPECT_EQ(error + "\nUnable to read " + Path() + " as XML document\n", log_) << file;
  }
}

TEST_F(XMLFileParserTest, YieldsNothingForAnEmptyFile) {
  EXPECT_EQ("", Extract(Field("t"), "", kDebugAvailable));
  EXPECT_EQ("Original is valid UTF-8\nNULL element\n", log_);
  EXPECT_EQ("", Extract(Field("t"), " \n", kDebugDefault));
  EXPECT_EQ("NULL element\n", log_);
}

TEST_F(XMLFileParserTest, UsesWhatThereIsOfAFileThatEndsEarly) {
  EXPECT_EQ("Fire", Extract(Field("t"), "<r><t>Fire</t>", kDebugDefault));
  EXPECT_EQ("Fire", Extract(Field("t"), "<r><t>Fire</t", kDebugDefault)) << "as far as it goes";
  EXPECT_EQ("Fire", Extract(Field("t"), "<r><t>Fire</t><t a='", kDebugDefault));
  EXPECT_EQ(kNoLog, log_);
}

TEST_F(XMLFileParserTest, YieldsForEveryTruncationTheTextOfTheElementsUpToThere) {
  const std::string file = "<msg><head>Fire</head><body a='1'>Leave now</body></msg>";
  const std::string fields = Field("head") + Field("body");
  for (size_t length = 0; length <= file.size(); ++length) {
    const std::string text = Extract(fields, file.substr(0, length), kDebugDefault);
    const std::string whole = "Fire. Leave now";
    EXPECT_EQ(whole.substr(0, text.size()), text) << length;
    EXPECT_EQ(length >= strlen("<msg>") ? kNoLog : "NULL element\n", log_) << length;
  }
}

TEST_F(XMLFileParserTest, DecodesEachEncoding) {
  const std::string mark = "\xEF\xBF\xBD";
  const std::string latin1 = "<r><t>\xE9</t></r>";
  std::string utf16 = "\xFE\xFF";
  for (const char c : latin1) {
    utf16 += '\0';
    utf16 += c;
  }
  EXPECT_EQ("\xC3\xA9", Extract(Field("t"), latin1, 0, "", "ascii"));
  EXPECT_EQ("\xC3\xA9", Extract(Field("t"), utf16, 0, "", "utf16"));
  EXPECT_EQ("\xC3\xA9", Extract(Field("t"), "<r><t>\xC3\xA9</t></r>", 0, "", "utf8"));
  EXPECT_EQ(mark, Extract(Field("t"), latin1, 0, "", "utf8"));
  EXPECT_EQ("\xC3\xA9", Extract(Field("t"), "<r><t>&#xE9;</t></r>", 0, "", "utf8"));
}

TEST_F(XMLFileParserTest, YieldsTheSameForTheSameFileEveryTime) {
  const auto parser = Build("<parser id='p' type='xml'>" + Field("t") + "</parser>");
  directory_.Write("m", "<r><t>x</t></r>");
  directory_.Write("bad", "<r><t>x</t></s>");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ("x", parser->ParseFile(Path()));
    EXPECT_EQ("", LogOf([&] { EXPECT_EQ("", parser->ParseFile(directory_ / "bad")); }, 0));
  }
}

// --- Which elements are extracted ---

TEST_F(XMLFileParserTest, LogsHowItExtracts) {
  EXPECT_EQ("Fire. Leave now",
            Extract(Field("headline") + Field("body") + Field(""),
                    "<msg><headline>Fire</headline><body>Leave now</body></msg>", kDebugAvailable));
  const std::string none =
      "Checking Field /headline\nChecking Field /body\nChecking Field /\n"
      "Skipping due to empty tag\n";
  EXPECT_EQ(
      "Original is valid UTF-8\nEndElement: headline\nEndElement: body\nEndElement: msg\n"
      "Checking Element msg\n"
      "Checking Field /headline\nProcessing child \"headline\"\nfound text\n"
      "Checking Field /body\nProcessing child \"body\"\nfound text\n"
      "Checking Field /\nSkipping due to empty tag\n"
      "Checking Element headline\n" +
          none + "Checking Element body\n" + none,
      log_);
}

TEST_F(XMLFileParserTest, AppliesItsFieldsInOrderAtEveryElement) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"<r><b>1</b><a>2</a><b>3</b></r>", "2. 1. 3"},
      {"<r><g><b>1</b><a>2</a></g><a>3</a></r>", "3. 2. 1"},
      {"<r><g><b>1</b></g><g><a>2</a></g></r>", "1. 2"},
      {"<r><a>1<b>2</b></a><b>3</b></r>", "1. 3. 2"},
      {"<a>1<a>2<a>3</a></a></a>", "2. 3"},
      {"<a>1</a>", ""},
      {"<r><A>1</A><ab>2</ab></r>", ""},
  };
  for (const auto& [file, text] : cases) {
    EXPECT_EQ(text, Extract(Field("a") + Field("b"), file)) << file;
  }
}

TEST_F(XMLFileParserTest, ExtractsAnElementForEveryFieldThatMatches) {
  EXPECT_EQ("x. x", Extract(Field("t") + Field("t"), "<r><t>x</t></r>"));
}

TEST_F(XMLFileParserTest, FindsMatchesWithinMatches) {
  EXPECT_EQ("x. y", Extract(Field("t"), "<r><t>x<t>y</t></t></r>"));
  EXPECT_EQ("xz. y", Extract(Field("t"), "<r><t>x<t>y</t>z</t></r>"));
}

TEST_F(XMLFileParserTest, WantsTheHolderOrAnAncestorOfItToBeTheParent) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"<alert><body>x</body></alert>", "x"},
      {"<alert><info><body>x</body></info></alert>", "x"},
      {"<r><alert><a><b><body>x</body></b></a></alert></r>", "x"},
      {"<msg><body>x</body></msg>", ""},
      {"<msg><alert>y</alert><body>x</body></msg>", ""},
      {"<msg><body>x<alert/></body></msg>", ""},
      {"<Alert><body>x</body></Alert>", ""},
      {"<r><alert><body>1</body></alert><body>2</body><alert><body>3</body></alert></r>", "1. 3"},
  };
  for (const auto& [file, text] : cases) {
    EXPECT_EQ(text, Extract(Field("body", "alert"), file)) << file;
  }
}

TEST_F(XMLFileParserTest, MayNameTheExtractedElementAsItsOwnParent) {
  EXPECT_EQ("2", Extract(Field("t", "t"), "<r><t>1<t>2</t></t></r>"));
}

TEST_F(XMLFileParserTest, LogsAParentMismatch) {
  EXPECT_EQ("", Extract(Field("body", "alert"), "<msg><body>x</body></msg>", kDebugAvailable));
  EXPECT_EQ(
      "Original is valid UTF-8\nEndElement: body\nEndElement: msg\n"
      "Checking Element msg\nChecking Field alert/body\nProcessing child \"body\"\n"
      "Skipping due to parent mismatch msg alert\n"
      "Checking Element body\nChecking Field alert/body\n",
      log_);
}

TEST_F(XMLFileParserTest, WantsTheAttributeToHaveTheValue) {
  const std::string file = "<r><p lang='en'>A</p><p lang='fr'>B</p><p>C</p><p lang=''>D</p></r>";
  EXPECT_EQ("A", Extract(Field("p", "", "lang", "en"), file));
  EXPECT_EQ("C. D", Extract(Field("p", "", "lang", ""), file)) << "absent is like empty";
  EXPECT_EQ("", Extract(Field("p", "", "lang", "EN"), file));
  EXPECT_EQ("A. B. C. D", Extract(Field("p", "", "", "en"), file)) << "no attribute, no condition";
}

TEST_F(XMLFileParserTest, LogsAnAttributeMismatch) {
  EXPECT_EQ(
      "", Extract(Field("p", "", "lang", "en"), "<r><p lang='fr'>B</p><p/></r>", kDebugAvailable));
  const std::string nothing = "Checking Element p\nChecking Field /p\n";
  EXPECT_EQ(
      "Original is valid UTF-8\nEndElement: p\nEndElement: p\nEndElement: r\n"
      "Checking Element r\nChecking Field /p\n"
      "Processing child \"p\"\nfound text\nSkipping due to attr mismatch key en act fr\n"
      "Processing child \"p\"\nSkipping due to attr mismatch key en act \n" +
          nothing + nothing,
      log_);
}

// --- Joining the pieces ---

TEST_F(XMLFileParserTest, SeparatesPiecesUnlessWhiteSpaceDoes) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Fire", "Fire. now"},
      {"Fire ", "Fire now"},
      {"Fire\t", "Fire\tnow"},
      {"Fire\n", "Fire\nnow"},
      {"Fire&#13;", "Fire\rnow"},
      {"Fire.", "Fire.. now"},
      {"Fire\xC2\xA0", "Fire\xC2\xA0. now"},
      {"\xC3\xA9", "\xC3\xA9. now"},
      {" ", " now"},
      {"", "now"},
  };
  for (const auto& [first, text] : cases) {
    EXPECT_EQ(text, Extract(Field("t"), "<r><t>" + first + "</t><t>now</t></r>")) << first;
  }
}

TEST_F(XMLFileParserTest, SeparatesAnEmptyPieceToo) {
  EXPECT_EQ("Fire. ", Extract(Field("t"), "<r><t>Fire</t><t/></r>"));
  EXPECT_EQ("Fire. Leave now", Extract(Field("t"), "<r><t>Fire</t><t/><t>Leave now</t></r>"));
  EXPECT_EQ("Fire. now", Extract(Field("t"), "<r><t/><t>Fire</t><t/><t/><t>now</t></r>"));
}

TEST_F(XMLFileParserTest, TakesTheTextAsItStandsInTheFile) {
  EXPECT_EQ("\n  a \n b\t", Extract(Field("t"), "<r><t>\n  a \n b\t</t></r>"));
  EXPECT_EQ("a<b&c", Extract(Field("t"), "<r><t>a<![CDATA[<b]]>&amp;c</t></r>"));
  EXPECT_EQ(" a  c ", Extract(Field("t"), "<r><t> a <u>b</u> c </t></r>"));
}

// --- Attribute mode ---

TEST_F(XMLFileParserTest, InAttributeModeExtractsTheAttributesValue) {
  EXPECT_EQ("Hello", ExtractAttributes(Field("item", "", "text"), "<r><item text='Hello'/></r>"));
  EXPECT_EQ("a. b", ExtractAttributes(Field("item", "", "text", "ignored"),
                                      "<r><item text='a'>x</item><item text='b'/></r>"));
}

TEST_F(XMLFileParserTest, InAttributeModeLogsEveryChild) {
  EXPECT_EQ("Hello", ExtractAttributes(Field("item", "", "text") + Field("item", "x", "text"),
                                       "<r><item text='Hello'>x</item></r>", kDebugAvailable));
  EXPECT_EQ(
      "Original is valid UTF-8\nEndElement: item\nEndElement: r\n"
      "Checking Element r\nChecking Field /item\nProcessing child \"item\"\nfound text\n"
      "extract attr value\nChecking Field x/item\nProcessing child \"item\"\n"
      "Skipping due to parent mismatch r x\n"
      "Checking Element item\nChecking Field /item\nChecking Field x/item\n",
      log_);
  ExtractAttributes(Field("item", "", "text"), "<r><item/><item/></r>", kDebugDefault);
  EXPECT_EQ("extract attr value\nextract attr value\n", log_);
}

TEST_F(XMLFileParserTest, InAttributeModeExtractsNothingForAFieldWithoutAttribute) {
  EXPECT_EQ("a", ExtractAttributes(Field("u", "", "text") + Field("t") + Field("t"),
                                   "<r><u text='a'/><t text='b'>x</t></r>"));
}

TEST_F(XMLFileParserTest, InAttributeModeTakesAMissingAttributeForAnEmptyPiece) {
  EXPECT_EQ("a. b", ExtractAttributes(Field("t", "", "text"),
                                      "<r><t text='a'/><t/><t text=''/><t text='b'/></r>"));
}

TEST_F(XMLFileParserTest, InAttributeModeHeedsTheParent) {
  EXPECT_EQ("a",
            ExtractAttributes(Field("t", "p", "text"), "<r><p><t text='a'/></p><t text='b'/></r>"));
}

// --- The bound on the text ---

constexpr char kTruncating[] = "Too many characters, truncating\n";

std::string Elements(const std::vector<size_t>& lengths) {
  std::string file = "<r>";
  for (const size_t length : lengths) {
    file += "<t>" + std::string(length, 'x') + "</t>";
  }
  return file + "</r>";
}

TEST_F(XMLFileParserTest, LeavesOutPiecesThatWouldMakeTheTextTooLong) {
  struct Row {
    std::vector<size_t> pieces;
    size_t length;  // Of the text.
    size_t left_out;
  };
  const std::vector<Row> rows = {
      {{65535}, 65535, 0},
      {{65536}, 0, 1},
      {{70000}, 0, 1},
      {{10, 70000}, 10, 1},
      {{70000, 10}, 10, 1},
      {{10, 70000, 20}, 32, 1},
      {{65535, 0}, 65537, 0},  // The guard counts one byte for the separator, which has two.
      {{65535, 1}, 65535, 1},
      {{65535, 0, 0}, 65537, 1},
      {{65533, 2}, 65537, 0},
      {{65533, 3}, 65533, 1},
      {{65533, 1, 1}, 65536, 1},
      {{65533, 1, 0}, 65536, 1},
      {{60000, 60000, 5535, 5534, 0}, 65537, 3},
  };
  for (const auto& [pieces, length, left_out] : rows) {
    EXPECT_EQ(length, Extract(Field("t"), Elements(pieces), kDebugDefault).size())
        << testing::PrintToString(pieces);
    EXPECT_EQ(Repeat(kTruncating, left_out), log_) << testing::PrintToString(pieces);
  }
}

TEST_F(XMLFileParserTest, MeasuresBytesNotCharacters) {
  EXPECT_EQ(65534U, Extract(Field("t"), "<r><t>" + Repeat("\xC3\xA9", 32767) + "</t></r>").size());
  EXPECT_EQ("", Extract(Field("t"), "<r><t>" + Repeat("\xC3\xA9", 32768) + "</t></r>"));
}

TEST_F(XMLFileParserTest, MeasuresAPieceBeforeItsAttributeCondition) {
  const std::string file = "<r><t>" + std::string(70000, 'x') + "</t></r>";
  EXPECT_EQ("", Extract(Field("t", "", "lang", "en"), file, kDebugDefault));
  EXPECT_EQ(kTruncating, log_);
  EXPECT_EQ("", Extract(Field("t", "p"), file, kDebugDefault));
  EXPECT_EQ(kNoLog, log_) << "the parent condition comes first";
}

TEST_F(XMLFileParserTest, InAttributeModeMeasuresTheTextAndThenTheValue) {
  const std::string value = std::string(65535, 'v');
  const std::string field = Field("t", "", "a");
  EXPECT_EQ(value, ExtractAttributes(field, "<r><t a='" + value + "'/></r>", kDebugDefault));
  EXPECT_EQ("extract attr value\n", log_);
  EXPECT_EQ("", ExtractAttributes(field, "<r><t a='" + value + "v'/></r>", kDebugDefault));
  EXPECT_EQ(std::string("extract attr value\n") + kTruncating, log_);
  EXPECT_EQ("", ExtractAttributes(field, "<r><t a='v'>" + value + "x</t></r>", kDebugDefault));
  EXPECT_EQ(kTruncating, log_);
  EXPECT_EQ("v", ExtractAttributes(field, "<r><t a='v'>" + value + "</t></r>", kDebugDefault));
  EXPECT_EQ("extract attr value\n", log_);
}

// --- Deep and large documents ---

TEST_F(XMLFileParserTest, ReadsADeepDocumentWithoutADeepStack) {
  const size_t depth = 200000;
  const std::string file = Repeat("<a>", depth) + "<t>x</t>" + Repeat("</a>", depth);
  EXPECT_EQ("x", Extract(Field("t"), file));
  EXPECT_EQ("x", Extract(Field("t", "a"), file));
  EXPECT_EQ("", Extract(Field("t", "b"), file));
}

TEST_F(XMLFileParserTest, ChecksParentsOfDeepElementsWithoutWalkingUpFromEach) {
  // Walking up from each of these would take many minutes.
  const size_t depth = 150000;
  const std::string file = Repeat("<t>", depth) + Repeat("</t>", depth);
  std::string fields;
  for (int i = 0; i < 10; ++i) {
    fields += Field("t", "p" + std::to_string(i));
  }
  EXPECT_EQ("", Extract(fields, file));
}

// --- Against the rules told once more ---

struct Node {
  std::string name;
  std::string text;
  std::map<std::string, std::string> attributes;
  std::vector<Node> children;
};

struct Rule {
  std::string parent, tag, attr, attr_value;
};

// The rules once more, step by step in their plainest form, recursion and all.
class Retelling {
 public:
  Retelling(const std::vector<Rule>& rules, bool attribute_mode, const Node& root)
      : rules_(rules), attribute_mode_(attribute_mode) {
    log = "Original is valid UTF-8\n";
    LogEnds(root);
    ParseElement(root, {});
  }
  std::string text;
  std::string log;

 private:
  void LogEnds(const Node& node) {
    for (const Node& child : node.children) {
      LogEnds(child);
    }
    log += "EndElement: " + node.name + "\n";
  }

  void ParseElement(const Node& element, const std::vector<std::string>& ancestors) {
    log += "Checking Element " + element.name + "\n";
    for (const Rule& rule : rules_) {
      log += "Checking Field " + rule.parent + "/" + rule.tag + "\n";
      if (rule.tag.empty()) {
        log += "Skipping due to empty tag\n";
        continue;
      }
      for (const Node& child : element.children) {
        if (child.name == rule.tag) {
          ProcessChild(rule, element, child, ancestors);
        }
      }
    }
    std::vector<std::string> path = ancestors;
    path.push_back(element.name);
    for (const Node& child : element.children) {
      ParseElement(child, path);
    }
  }

  void ProcessChild(const Rule& rule, const Node& element, const Node& child,
                    const std::vector<std::string>& ancestors) {
    log += "Processing child \"" + child.name + "\"\n";
    bool is_child_of = false;
    for (const std::string& ancestor : ancestors) {
      is_child_of = is_child_of || ancestor == rule.parent;
    }
    if (!rule.parent.empty() && !is_child_of && element.name != rule.parent) {
      log += "Skipping due to parent mismatch " + element.name + " " + rule.parent + "\n";
      return;
    }
    if (text.size() + child.text.size() + 1 > 65536) {
      log += "Too many characters, truncating\n";
      return;
    }
    if (!child.text.empty()) {
      log += "found text\n";
    }
    std::string piece = child.text;
    std::string value;
    if (child.attributes.count(rule.attr) != 0) {
      value = child.attributes.at(rule.attr);
    }
    if (attribute_mode_) {
      log += "extract attr value\n";
      if (rule.attr.empty()) {
        return;
      }
      if (text.size() + value.size() + 1 > 65536) {
        log += "Too many characters, truncating\n";
        return;
      }
      piece = value;
    } else if (!rule.attr.empty() && value != rule.attr_value) {
      log += "Skipping due to attr mismatch key " + rule.attr_value + " act " + value + "\n";
      return;
    }
    if (!text.empty() && strchr(" \t\n\v\f\r", text.back()) == nullptr) {
      text += ". ";
    }
    text += piece;
  }

  const std::vector<Rule>& rules_;
  bool attribute_mode_;
};

class RandomDocument {
 public:
  explicit RandomDocument(unsigned int seed) : random_(seed) {}

  // Of some documents a few texts are so long that they fill the room.
  Node MakeRoot() {
    has_long_texts_ = random_() % 20 == 0;
    return MakeNode(3);
  }

  std::vector<Rule> MakeRules() {
    std::vector<Rule> rules(random_() % 5);
    for (Rule& rule : rules) {
      rule = {Pick({"", "", "a", "b", "d"}), Pick({"a", "b", "c", ""}), Pick({"", "k", "l", "m"}),
              Pick({"", "v", "w"})};
    }
    return rules;
  }

 private:
  Node MakeNode(int depth) {
    Node node = {Pick({"a", "b", "c"}), "", {}, {}};
    for (const char* attribute : {"k", "l"}) {
      if (random_() % 2 == 0) {
        node.attributes[attribute] = MakeText({"", "v", "w", "w "});
      }
    }
    node.text = MakeText({"", "x", "y ", "z\n", "long"});
    for (size_t i = depth > 0 ? random_() % 4 : 0; i > 0; --i) {
      node.children.push_back(MakeNode(depth - 1));
    }
    return node;
  }

  std::string Pick(const std::vector<std::string>& choices) {
    return choices[random_() % choices.size()];
  }
  std::string MakeText(const std::vector<std::string>& choices) {
    const bool is_long = has_long_texts_ && random_() % 20 == 0;
    return is_long ? std::string(20000 + random_() % 30000, 'X') : Pick(choices);
  }

  std::mt19937 random_;
  bool has_long_texts_ = false;
};

std::string ToXML(const Node& node) {
  std::string xml = "<" + node.name;
  for (const auto& [name, value] : node.attributes) {
    xml += " " + name + "='" + value + "'";
  }
  xml += ">" + node.text;
  for (const Node& child : node.children) {
    xml += ToXML(child);
  }
  return xml + "</" + node.name + ">";
}

XMLFileParser BuildFromRules(const std::vector<Rule>& rules, bool attribute_mode) {
  XMLElement element("parser");
  element.SetAttributeString("id", "p");
  element.SetAttributeString("type", "xml");
  element.SetAttributeInteger("attr-mode", attribute_mode ? 1 : 0);
  for (const Rule& rule : rules) {
    auto* field = new XMLElement("field");
    element.AddChild(field);
    field->SetAttributeString("parent", rule.parent);
    field->SetAttributeString("tag", rule.tag);
    field->SetAttributeString("attr", rule.attr);
    field->SetAttributeString("attr_value", rule.attr_value);
  }
  return XMLFileParser(&element, "utf8");
}

TEST_F(XMLFileParserTest, AgreesWithTheRetellingOfItsRules) {
  RandomDocument document(20261120);
  for (int i = 0; i < 3000; ++i) {
    const Node root = document.MakeRoot();
    const std::vector<Rule> rules = document.MakeRules();
    const bool attribute_mode = i % 2 == 0;
    const XMLFileParser parser = BuildFromRules(rules, attribute_mode);
    directory_.Write("m", ToXML(root));
    const Retelling retelling(rules, attribute_mode, root);
    std::string text;
    const std::string log = LogOf([&] { text = parser.ParseFile(Path()); }, kDebugAvailable);
    ASSERT_EQ(retelling.text, text) << i << ToXML(root);
    ASSERT_EQ(retelling.log, log) << i << ToXML(root);
  }
}

}  // namespace

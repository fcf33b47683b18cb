#include "xmlfileparser.h"

#include <string.h>

#include <random>
#include <utility>
#include <vector>

#include "model/xml.h"
#include "test_util.h"

namespace {

// A "field" element.
std::string Field(const std::string& tag_, const std::string& parent_ = "",
                  const std::string& attr_ = "", const std::string& attr_value_ = "") {
  return "<field parent='" + parent_ + "' tag='" + tag_ + "' attr='" + attr_ + "' attr_value='" +
         attr_value_ + "'/>";
}

std::unique_ptr<XMLFileParser> Build(const std::string& parser_element_,
                                     const std::string& encoding_ = "utf8") {
  return std::make_unique<XMLFileParser>(ParseXML(parser_element_).get(), encoding_);
}

class XMLFileParserTest : public testing::Test {
 protected:
  // The text that the fields extract from a file; the log below mask goes to log.
  std::string Extract(const std::string& fields_, const std::string& file_, unsigned int mask_ = 0,
                      const std::string& attributes_ = "", const std::string& encoding_ = "utf8") {
    const auto parser =
        Build("<parser id='p' type='xml' " + attributes_ + ">" + fields_ + "</parser>", encoding_);
    directory.Write("m", file_);
    std::string text;
    log = LogOf([&] { text = parser->ParseFile(Path()); }, mask_);
    return text;
  }
  std::string ExtractAttributes(const std::string& fields_, const std::string& file_,
                                unsigned int mask_ = 0) {
    return Extract(fields_, file_, mask_, "attr-mode='1'");
  }
  std::string Path() const { return directory / "m"; }

  TemporaryDirectory directory;
  std::string log;
};

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
    ExpectLoggedAndThrown(text, [&xml = element] { Build(xml); });
  }
}

TEST_F(XMLFileParserTest, RejectsAnAttrModeThatIsNoIntegerBeforeItLooksAtFields) {
  const std::string text =
      "While processing attribute \"attr-mode\" of \"parser\": Could not convert \"yes\" to "
      "integer";
  ExpectLoggedAndThrown(
      text, [] { Build("<parser id='p' type='xml' attr-mode='yes'><field/></parser>"); });
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
  EXPECT_EQ("x", parser->ParseFile(directory.Write("m", "<r><t>x</t></r>")));
}

TEST_F(XMLFileParserTest, YieldsNothingForAFileThatCannotBeOpened) {
  const auto parser = Build("<parser id='p' type='xml'/>");
  const std::string text = "Could not open \"" + Path() + "\" for reading";
  EXPECT_EQ(text + "\nUnable to read " + Path() + " as XML document: " + text + "\n",
            WholeLogOf([&] { EXPECT_EQ("", parser->ParseFile(Path())); }));
}

TEST_F(XMLFileParserTest, YieldsNothingForAMalformedFile) {
  EXPECT_EQ("", Extract(Field("t"), "<r><t>x</t>\n</s>", kDebugDefault));
  EXPECT_EQ("mismatched tag at line 2\nUnable to read " + Path() + " as XML document\n", log);
}

TEST_F(XMLFileParserTest, YieldsNothingForAnEmptyFile) {
  EXPECT_EQ("", Extract(Field("t"), "", kDebugAvailable));
  EXPECT_EQ("Original is valid UTF-8\nNULL element\n", log);
  EXPECT_EQ("", Extract(Field("t"), " \n", kDebugDefault));
  EXPECT_EQ("NULL element\n", log);
}

TEST_F(XMLFileParserTest, YieldsTheTextBeforeATruncation) {
  const std::string file = "<msg><head>Fire</head><body a='1'>Leave now</body></msg>";
  const std::string fields = Field("head") + Field("body");
  for (size_t length = 0; length <= file.size(); ++length) {
    const std::string text = Extract(fields, file.substr(0, length), kDebugDefault);
    const std::string whole = "Fire. Leave now";
    EXPECT_EQ(whole.substr(0, text.size()), text) << length;
    EXPECT_EQ(length >= strlen("<msg>") ? kNoLog : "NULL element\n", log) << length;
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
      log);
}

TEST_F(XMLFileParserTest, FindsMatchesWithinMatches) {
  EXPECT_EQ("x. y", Extract(Field("t"), "<r><t>x<t>y</t></t></r>"));
  EXPECT_EQ("xz. y", Extract(Field("t"), "<r><t>x<t>y</t>z</t></r>"));
}

TEST_F(XMLFileParserTest, AcceptsTheHolderOrItsAncestorAsParent) {
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

TEST_F(XMLFileParserTest, RequiresTheAttributesValue) {
  const std::string file = "<r><p lang='en'>A</p><p lang='fr'>B</p><p>C</p><p lang=''>D</p></r>";
  EXPECT_EQ("A", Extract(Field("p", "", "lang", "en"), file));
  EXPECT_EQ("C. D", Extract(Field("p", "", "lang", ""), file)) << "absent is like empty";
  EXPECT_EQ("", Extract(Field("p", "", "lang", "EN"), file));
  EXPECT_EQ("A. B. C. D", Extract(Field("p", "", "", "en"), file)) << "no attribute, no condition";
}

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

TEST_F(XMLFileParserTest, InAttributeModeExtractsTheAttributesValue) {
  EXPECT_EQ("Hello", ExtractAttributes(Field("item", "", "text"), "<r><item text='Hello'/></r>"));
  EXPECT_EQ("a. b", ExtractAttributes(Field("item", "", "text", "ignored"),
                                      "<r><item text='a'>x</item><item text='b'/></r>"));
}

TEST_F(XMLFileParserTest, InAttributeModeExtractsNothingForAFieldWithoutAttribute) {
  EXPECT_EQ("a", ExtractAttributes(Field("u", "", "text") + Field("t") + Field("t"),
                                   "<r><u text='a'/><t text='b'>x</t></r>"));
}

TEST_F(XMLFileParserTest, InAttributeModeTreatsAMissingAttributeAsAnEmptyPiece) {
  EXPECT_EQ("a. b", ExtractAttributes(Field("t", "", "text"),
                                      "<r><t text='a'/><t/><t text=''/><t text='b'/></r>"));
}

constexpr char kTruncating[] = "Too many characters, truncating\n";

std::string Elements(const std::vector<size_t>& lengths_) {
  std::string file = "<r>";
  for (const size_t length : lengths_) {
    file += "<t>" + std::string(length, 'x') + "</t>";
  }
  return file + "</r>";
}

TEST_F(XMLFileParserTest, SkipsPiecesThatWouldMakeTheTextTooLong) {
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
    EXPECT_EQ(Repeat(kTruncating, left_out), log) << testing::PrintToString(pieces);
  }
}

TEST_F(XMLFileParserTest, MeasuresBytesNotCharacters) {
  EXPECT_EQ(65534U, Extract(Field("t"), "<r><t>" + Repeat("\xC3\xA9", 32767) + "</t></r>").size());
  EXPECT_EQ("", Extract(Field("t"), "<r><t>" + Repeat("\xC3\xA9", 32768) + "</t></r>"));
}

TEST_F(XMLFileParserTest, InAttributeModeMeasuresTheTextAndThenTheValue) {
  const std::string value = std::string(65535, 'v');
  const std::string field = Field("t", "", "a");
  EXPECT_EQ(value, ExtractAttributes(field, "<r><t a='" + value + "'/></r>", kDebugDefault));
  EXPECT_EQ("extract attr value\n", log);
  EXPECT_EQ("", ExtractAttributes(field, "<r><t a='" + value + "v'/></r>", kDebugDefault));
  EXPECT_EQ(std::string("extract attr value\n") + kTruncating, log);
  EXPECT_EQ("", ExtractAttributes(field, "<r><t a='v'>" + value + "x</t></r>", kDebugDefault));
  EXPECT_EQ(kTruncating, log);
  EXPECT_EQ("v", ExtractAttributes(field, "<r><t a='v'>" + value + "</t></r>", kDebugDefault));
  EXPECT_EQ("extract attr value\n", log);
}

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

class RandomDocument {
 public:
  explicit RandomDocument(unsigned int seed_) : random(seed_) {}

  // In some documents a few long texts reach the limit.
  std::string Make() {
    has_long_texts = random() % 20 == 0;
    return MakeElement(3);
  }

  std::vector<model::Field> MakeFields() {
    std::vector<model::Field> fields(random() % 5);
    for (model::Field& field : fields) {
      field = {Pick({"", "", "a", "b", "d"}), Pick({"a", "b", "c", ""}), Pick({"", "k", "l", "m"}),
               Pick({"", "v", "w"})};
    }
    return fields;
  }

 private:
  std::string MakeElement(int depth_) {
    const std::string name = Pick({"a", "b", "c"});
    std::string xml = "<" + name;
    for (const char* attribute : {"k", "l"}) {
      if (random() % 2 == 0) {
        xml += std::string(" ") + attribute + "='" + MakeText({"", "v", "w", "w "}) + "'";
      }
    }
    xml += ">" + MakeText({"", "x", "y ", "z\n", "long"});
    for (size_t i = depth_ > 0 ? random() % 4 : 0; i > 0; --i) {
      xml += MakeElement(depth_ - 1);
    }
    return xml + "</" + name + ">";
  }

  std::string Pick(const std::vector<std::string>& choices_) {
    return choices_[random() % choices_.size()];
  }
  std::string MakeText(const std::vector<std::string>& choices_) {
    const bool is_long = has_long_texts && random() % 20 == 0;
    return is_long ? std::string(20000 + random() % 30000, 'X') : Pick(choices_);
  }

  std::mt19937 random;
  bool has_long_texts = false;
};

XMLFileParser BuildFromFields(const std::vector<model::Field>& fields_, bool attribute_mode_) {
  XMLElement element("parser");
  element.SetAttributeString("id", "p");
  element.SetAttributeString("type", "xml");
  element.SetAttributeInteger("attr-mode", attribute_mode_ ? 1 : 0);
  for (const model::Field& field : fields_) {
    auto* child = new XMLElement("field");
    element.AddChild(child);
    child->SetAttributeString("parent", field.parent);
    child->SetAttributeString("tag", field.tag);
    child->SetAttributeString("attr", field.attr);
    child->SetAttributeString("attr_value", field.attr_value);
  }
  return XMLFileParser(&element, "utf8");
}

TEST_F(XMLFileParserTest, AgreesWithTheModel) {
  RandomDocument random(20261120);
  for (int i = 0; i < 3000; ++i) {
    const std::string text = random.Make();
    const std::vector<model::Field> fields = random.MakeFields();
    const bool attribute_mode = i % 2 == 0;
    const XMLFileParser parser = BuildFromFields(fields, attribute_mode);
    directory.Write("m", text);
    const model::Document document(text, "utf8");
    const model::Extraction expected(fields, attribute_mode, document.nodes.front());
    std::string extracted;
    log = WholeLogOf([&] { extracted = parser.ParseFile(Path()); });
    ASSERT_EQ(expected.text, extracted) << i << text;
    ASSERT_EQ(document.log + expected.log, log) << i << text;
  }
}

}  // namespace

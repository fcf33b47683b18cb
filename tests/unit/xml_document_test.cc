#include <algorithm>
#include <type_traits>

#include "xml_fixtures.h"

namespace {

static_assert(!std::is_copy_constructible_v<XMLDocument> &&
              !std::is_copy_assignable_v<XMLDocument>);

std::string Utf16(const std::u16string& text_, bool big_endian_) {
  std::string bytes;
  for (const char16_t unit : text_) {
    const char high = static_cast<char>(unit >> 8);
    const char low = static_cast<char>(unit & 0xFF);
    bytes += big_endian_ ? std::string{high, low} : std::string{low, high};
  }
  return bytes;
}

TEST_F(XMLDocumentTest, ReadsATree) {
  Load(
      "<?xml version=\"1.0\"?>\n"
      "<!DOCTYPE tts-config [<!ENTITY name \"entity\">]>\n"
      "<!-- comment --><tts-config state='run'>\n"
      "  <directory id=\"a\" path='b'>&name; &#233;&amp;<![CDATA[<x/>]]></directory>\n"
      "  <?target data?><e/>\n"
      "</tts-config>\n<!-- end -->\n");
  ExpectValid();
  EXPECT_EQ(
      "<tts-config state=\"run\">\n    <directory id=\"a\" path=\"b\"/>\n    <e/>\n</tts-config>\n"
      "tts-config[\n  \n  \n]directory[entity é&<x/>]e[]",
      Describe(*tree));
}

TEST_F(XMLDocumentTest, JoinsTheTextAroundChildren) {
  Load("<a x=\"1\"> hi <b> in </b> there </a>");
  EXPECT_EQ("a[ hi  there ]b[ in ]", TextsOf(*tree));
}

TEST_F(XMLDocumentTest, ThrowsIfTheFileCannotBeOpened) {
  const std::string path = directory / "missing";
  ExpectLoggedAndThrown("Could not open \"" + path + "\" for reading",
                        [&] { const XMLDocument document(path, "utf8"); });
}

TEST_F(XMLDocumentTest, ReturnsOnlyARootOfTheGivenName) {
  const XMLDocument document(Write("<a><b/></a>"), "utf8");
  const std::unique_ptr<const XMLElement> root(document.GetRoot());
  EXPECT_EQ(root.get(), document.GetRoot("a"));
  for (const std::string name : {"b", "A", "", "aa"}) {
    ExpectLoggedAndThrown("No \"" + name + "\" root element", [&] { document.GetRoot(name); });
  }
}

TEST_F(XMLDocumentTest, HandsOverItsTree) {
  auto document = std::make_unique<XMLDocument>(Write("<a x='1'><b/></a>"), "utf8");
  const std::unique_ptr<const XMLElement> root(document->GetRoot());
  document.reset();
  EXPECT_EQ("<a x=\"1\">\n    <b/>\n</a>\n", DumpOf(*root));
}

TEST_F(XMLDocumentTest, WritesItsTree) {
  const XMLDocument document(Write("<?xml version='1.0'?><a y='2' x='1'>text<b/></a>"), "utf8");
  const std::unique_ptr<const XMLElement> root(document.GetRoot());
  EXPECT_EQ("<a x=\"1\" y=\"2\">\n    <b/>\n</a>\n",
            Written([&](FILE* file) { document.Dump(file); }));
}

TEST_F(XMLDocumentTest, WritesNothingWithoutATree) {
  const XMLDocument document(Write(""), "utf8");
  EXPECT_EQ("", Written([&](FILE* file) { document.Dump(file); }));
}

TEST_F(XMLDocumentTest, LogsMalformedXmlOnce) {
  const std::pair<std::string, std::string> rows[] = {
      {"<a>\n\n<b></a></a></a>", "mismatched tag at line 3"},
      {"<a>\r\n\r\n& </a>", "not well-formed (invalid token) at line 3"},
      {"<a x='1'\n x='2'/>", "duplicate attribute at line 2"},
      {"<a>&missing;</a>", "undefined entity at line 1"},
      {"\ntext <a/>", "syntax error at line 2"},
      {"<a></a>\n<a/>", "junk after document element at line 2"},
      {std::string("<a>\0</a>", 8), "not well-formed (invalid token) at line 1"},
      {" <?xml version='1.0'?><a/>", "XML or text declaration not at start of entity at line 1"},
  };
  for (const auto& [content, expected] : rows) {
    Load(content);
    EXPECT_FALSE(valid) << content;
    EXPECT_EQ(expected, error) << content;
    EXPECT_EQ(expected + "\n", log) << content;
  }
}

TEST_F(XMLDocumentTest, KeepsTheTreeBeforeAnError) {
  Load("<a x='1'>text<b/><c><d></c><e/></a>");
  EXPECT_EQ("mismatched tag at line 1", error);
  EXPECT_EQ("a[text]b[]c[]d[]", TextsOf(*tree));
  Load("<a><b/></a><second><c/></second>");
  EXPECT_EQ("junk after document element at line 1", error);
  EXPECT_EQ("a[]b[]", TextsOf(*tree));
}

// A document with some of everything. Elements' names are unique.
const char kSample[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
    "<!DOCTYPE root [<!ENTITY ent \"entity\"><!ATTLIST two d CDATA \"def\">]>\n"
    "<!-- comment with <tags> & é -->\n"
    "<root a='1' b=\"two &lt;é&quot; 'x'\">text é &ent; &amp; &#8364;\r\n"
    "  <one/>\n"
    "  <two c='日本'><![CDATA[<raw> ]] > & \xF0\x9F\x98\x80]]>more<three\n x = 'y' /></two>\n"
    "  <?target some data?><!-- inner --><four>\xF0\x9F\x98\x80 end</four>\n"
    "</root>\n<!-- after --> \n";

// A comment of n bytes.
std::string Comment(size_t n_) { return "<!--" + std::string(n_ - 7, 'x') + "-->"; }

size_t CountElements(const XMLElement* element_) {
  size_t count = element_ != nullptr ? 1 : 0;
  if (element_ != nullptr) {
    for (const XMLElement* child : element_->GetChildren("")) {
      count += CountElements(child);
    }
  }
  return count;
}

TEST_F(XMLDocumentTest, AcceptsARootWithoutEnd) {
  Load("<a>");
  ExpectValid();
  EXPECT_EQ("a[]", TextsOf(*tree));
}

TEST_F(XMLDocumentTest, AcceptsEveryTruncationOfAValidFile) {
  ExpectNoLog([&] {
    for (const size_t shift : {10U, 700U}) {  // Moves the ends of the feeds.
      const std::string sample =
          std::string(kSample).replace(std::string(kSample).find("<!--"), 0, Comment(shift));
      std::vector<size_t> start_tag_ends;
      for (const char* const tag : {"<root ", "<one", "<two ", "<three\n", "<four"}) {
        start_tag_ends.push_back(sample.find('>', sample.find(tag)) + 1);
      }
      for (size_t cut = 0; cut <= sample.size(); ++cut) {
        Read(sample.substr(0, cut));
        ExpectValid();
        EXPECT_EQ(std::count_if(start_tag_ends.begin(), start_tag_ends.end(),
                                [cut](size_t end) { return end <= cut; }),
                  CountElements(tree.get()))
            << "cut at " << cut << ", shifted by " << shift;
      }
    }
  });
}

TEST_F(XMLDocumentTest, DeliversTheTextBeforeATruncation) {
  const std::string text = "text é 日本 \xF0\x9F\x98\x80 end";
  ExpectNoLog([&] {
    for (size_t cut = 0; cut <= text.size(); ++cut) {
      std::string expected = text.substr(0, cut);
      if (cut < text.size() && (text[cut] & 0xC0) == 0x80) {  // In the middle of a character.
        while ((text[expected.size()] & 0xC0) == 0x80) {
          expected.pop_back();
        }
        expected += "\uFFFD";
      }
      Read("<a>" + text.substr(0, cut));
      ExpectValid();
      ASSERT_NE(nullptr, tree);
      EXPECT_EQ(expected, tree->GetText()) << cut;
    }
  });
}

TEST_F(XMLDocumentTest, ReadsTheSameWhereverAFeedEnds) {
  Read(kSample);
  ExpectValid();
  const std::string whole = Describe(*tree);
  const std::string sample = kSample;
  const size_t prolog = sample.find("<!--");
  ExpectNoLog([&] {
    for (size_t shift = 1024 - sample.size(); shift < 1024; ++shift) {
      Read(std::string(sample).insert(prolog, Comment(shift)));
      ExpectValid();
      ASSERT_NE(nullptr, tree);
      EXPECT_EQ(whole, Describe(*tree)) << shift;
    }
  });
}

// expat can defer a token that is incomplete at the end of a feed, for many feeds.
TEST_F(XMLDocumentTest, ReadsEverythingAfterLongTokens) {
  ExpectNoLog([&] {
    for (size_t n = 10; n <= 9000; n += 7) {
      const std::string x(n, 'x');
      for (const std::string& token : {"<!--" + x + "-->", "<?p " + x + "?>", "<c v='" + x + "'/>",
                                       "<![CDATA[" + x + "]]>", "<" + x + "/>", x}) {
        Read("<r>" + token + "<b/></r>");
        ExpectValid();
        ASSERT_NE(nullptr, tree) << n << token[1];
        ASSERT_EQ("b", tree->GetChildren("").back()->GetName()) << n << token[1];
      }
    }
  });
}

TEST_F(XMLDocumentTest, ReplacesInvalidUtf8) {
  for (const std::string encoding : {"utf8", "", "latin1", "ASCII"}) {
    Load("<a b='caf\xE9'>\xC0\x80\xFF</a>", encoding, kDebugAvailable);
    EXPECT_EQ("caf\uFFFD", tree->GetAttributeString("b")) << encoding;
    EXPECT_EQ("\uFFFD\uFFFD", tree->GetText()) << encoding;
    EXPECT_EQ("Re-encoding invalid parser output to UTF-8\nEndElement: a\n", log) << encoding;
  }
  Load("<a b='caf\xE9'/>");
  ExpectValid();  // A replacement is no error.
}

TEST_F(XMLDocumentTest, SkipsAUtf8Mark) {
  Load("\xEF\xBB\xBF<a/>");
  ExpectValid();
  EXPECT_EQ("a[]", TextsOf(*tree));
}

TEST_F(XMLDocumentTest, PrefersTheEncodingOfItsCaller) {
  Load("<?xml version='1.0' encoding='ISO-8859-1'?><a>é</a>");
  ExpectValid();
  EXPECT_EQ("é", tree->GetText());
}

TEST_F(XMLDocumentTest, ConvertsExtendedAscii) {
  Load("<a b='caf\xE9'>\xA8Qu\xE9? \xA4\xBF" + std::string(1, '\0') + "</a>", "ascii",
       kDebugAvailable);
  EXPECT_EQ("café", tree->GetAttributeString("b"));
  EXPECT_EQ("¿Qué? ñ\u009F", tree->GetText());
  EXPECT_EQ("Original is valid UTF-8\nEndElement: a\n", log);
}

TEST_F(XMLDocumentTest, ReadsUtf16InEitherByteOrder) {
  const std::u16string xml = u"<?xml version='1.0'?><a b='1'>text<c/></a>";
  for (const std::u16string& text : {u"\uFEFF" + xml, xml}) {
    for (const bool big_endian : {false, true}) {
      Load(Utf16(text, big_endian), "utf16", kDebugAvailable);
      EXPECT_TRUE(valid);
      EXPECT_EQ("<a b=\"1\">\n    <c/>\n</a>\na[text]c[]", Describe(*tree));
      EXPECT_EQ("EndElement: c\nEndElement: a\n", log);  // No word of UTF-8.
    }
  }
}

TEST(XMLElementTest, TakesOverTheTreesOfDocuments) {
  auto outer = std::make_unique<XMLElement>("outer");
  XMLElement* const a = ParseXML("<a><b><c/></b></a>").release();
  outer->AddChild(a);
  const_cast<XMLElement*>(OnlyChild(*a))->AddChild(ParseXML("<d><e/></d>").release());
  a->AddChild(new XMLElement("f"));
  outer->AddChild(new XMLElement("g"));
  EXPECT_EQ("outer[]a[]b[]c[]d[]e[]f[]g[]", TextsOf(*outer));
  outer.reset();
}

TEST(XMLElementTest, AssignsFromWithinItsOwnTree) {
  const auto root = ParseXML("<a x='1'><b y='2' z='3'/></a>");
  *root = *OnlyChild(*root);
  root->SetAttributeString("y", "kept out");
  root->SetAttributeString("x", "new");
  EXPECT_EQ(
      "<b x=\"new\" y=\"2\" z=\"3\">\n"
      "    <b y=\"2\" z=\"3\"/>\n"
      "</b>\n",
      DumpOf(*root));
}

TEST(XMLElementTest, TakesSortedAttributesFromAnArray) {
  const char* attributes[] = {"\xC3\xA9", "1", "b",        "2", "B",    "3",
                              "b",        "4", "\xC3\xA9", "5", nullptr};
  EXPECT_EQ("<e B=\"3\" b=\"2\" \xC3\xA9=\"1\"/>\n", DumpOf(XMLElement("e", attributes)));
}

// A small document with a large tree: each "&e;" becomes ten elements.
std::string DocumentOfElements(size_t count_) {
  return "<!DOCTYPE a [<!ENTITY e \"" + Repeat("<b/>", 10) + "\">]>\n<a>" +
         Repeat("&e;", count_ / 10) + "</a>";
}

TEST_F(XMLDocumentTest, StopsWhereTheTreeExceedsItsLimit) {
  // 10,000 elements take less than 4 MiB, 100,000 more than that and 64 times their 30 KB.
  Load(DocumentOfElements(10000));
  ExpectValid();
  EXPECT_EQ(10000u, tree->GetChildren("b").size());

  Load(DocumentOfElements(100000));
  EXPECT_FALSE(valid);
  EXPECT_EQ("out of memory at line 2", error);
  EXPECT_EQ("out of memory at line 2\n", log);
  EXPECT_LT(10000u, tree->GetChildren("b").size());  // Stays reachable, as after any error.
  EXPECT_GT(100000u, tree->GetChildren("b").size());
}

TEST_F(XMLDocumentTest, StopsWhereTheTextExceedsItsLimit) {
  Load("<!DOCTYPE a [<!ENTITY e \"" + std::string(1000, 'x') + "\">]><a>" + Repeat("&e;", 8000) +
       "</a>");
  EXPECT_EQ("out of memory at line 1\n", log);
  EXPECT_FALSE(valid);
}

TEST_F(XMLDocumentTest, AcceptsEveryTreeWithoutEntities) {
  const std::string elements = Repeat("<b/>", 1000000);  // The largest tree for its bytes.
  Load("<a>" + elements + "</a>");
  ExpectValid();
  EXPECT_EQ(1000000u, tree->GetChildren("b").size());
}

TEST_F(XMLDocumentTest, StopsAfterTooManyAttributeDeclarations) {
  const auto document = [](int count_) {
    std::string declarations;
    for (int i = 0; i < count_; ++i) {
      declarations += " a" + std::to_string(i) + " CDATA #IMPLIED";
    }
    return "<!DOCTYPE a [<!ATTLIST a" + declarations + ">]><a/>";
  };
  Load(document(10000));
  ExpectValid();
  Load(document(10001));
  EXPECT_EQ("out of memory at line 1\n", log);
  EXPECT_FALSE(valid);
}

TEST_F(XMLDocumentTest, LimitsEachDocumentSeparately) {
  Load(DocumentOfElements(10000));
  const std::unique_ptr<const XMLElement> first = std::move(tree);
  Load(DocumentOfElements(10000));
  ExpectValid();
}

class LoadXMLTreeTest : public XMLDocumentTest {};

TEST_F(LoadXMLTreeTest, ReturnsTheTree) {
  Write("<a x='é'><b/></a>");
  EXPECT_EQ("", LogOf([&] {
              EXPECT_EQ("<a x=\"é\">\n    <b/>\n</a>\n", DumpOf(*LoadXMLTree(document_path, "a")));
            }));
}

TEST_F(LoadXMLTreeTest, AcceptsATreeThatEndsEarly) {
  Write("<a><b/><c");
  EXPECT_EQ("<a>\n    <b/>\n</a>\n", DumpOf(*LoadXMLTree(document_path, "a")));
}

TEST_F(LoadXMLTreeTest, ThrowsIfTheFileCannotBeOpened) {
  const std::string path = directory / "missing";
  ExpectLoggedAndThrown("Could not open \"" + path + "\" for reading",
                        [&] { LoadXMLTree(path, "a"); });
}

TEST_F(LoadXMLTreeTest, ThrowsWithoutTheRoot) {
  for (const char* const content : {"", "<b/>", "<A/>", "<b><a/></b>", "<!-- -->"}) {
    Write(content);
    ExpectLoggedAndThrown("No \"a\" root element", [&] { LoadXMLTree(document_path, "a"); });
  }
}

TEST_F(LoadXMLTreeTest, ThrowsTheErrorOfMalformedXml) {
  Write("<a>\n<b></a>");
  ExpectLoggedAndThrown("mismatched tag at line 2", [&] { LoadXMLTree(document_path, "a"); });
  Write("<a/>\n\n<a/>");
  ExpectLoggedAndThrown("junk after document element at line 3",
                        [&] { LoadXMLTree(document_path, "a"); });
}

TEST_F(LoadXMLTreeTest, ThrowsForTheRootRatherThanForTheError) {
  for (const char* const content : {"<b>\n<b></c></b>", "\ntext <a/>"}) {
    Write(content);
    log = LogOf([&] {
      EXPECT_EQ("No \"a\" root element", ThrownText([&] { LoadXMLTree(document_path, "a"); }));
    });
    EXPECT_THAT(log, testing::EndsWith(" at line 2\nNo \"a\" root element\n")) << content;
  }
}

}  // namespace

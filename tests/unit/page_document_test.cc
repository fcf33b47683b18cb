#include "document.h"
#include "html.h"
#include "model/text.h"
#include "test_util.h"
#include "words.h"
#include "xmlfileparser.h"

namespace {

using testing::ElementsAre;

using Form = std::map<std::string, std::string>;

std::string ParserOf(const std::string& fields_, const char* mode_ = "0") {
  return std::string("<parser id=\"p\" type=\"xml\" attr-mode=\"") + mode_ + "\">" + fields_ +
         "</parser>";
}

// The text that the daemon's parser finds in the document.
std::string Found(const XMLElement& parser_, const Form& form_) {
  const TemporaryDirectory directory;
  SetDebugMask(0);
  std::string text =
      XMLFileParser(&parser_, "utf8").ParseFile(directory.Write("d", MakeDocument(parser_, form_)));
  SetDebugMask(kDebugDefault);
  return text;
}

TEST(MakeDocumentTest, ParserFindsTheValuesOfTheForm) {
  const auto parser = ParseXML(
      ParserOf("<field tag=\"headline\" attr=\"\" attr_value=\"\"/>"
               "<field tag=\"text\" attr=\"lang\" attr_value=\"&quot;en&quot;\" parent=\"info\"/>"
               "<field tag=\"\" attr=\"\" attr_value=\"\"/>"
               "<field tag=\"text\" attr=\"lang\" attr_value=\"de\" parent=\"info\"/>"));
  EXPECT_THAT(FieldLabels(*parser),
              ElementsAre("headline", "text (lang \"en\")", "", "text (lang de)"));
  EXPECT_EQ("<Fire> & \"smoke\". One two. Drei", Found(*parser, {{"field-0", "<Fire> & \"smoke\""},
                                                                 {"field-1", " One\n two"},
                                                                 {"field-2", "no"},
                                                                 {"field-3", "Drei"}}));
  EXPECT_EQ("</headline>]]>", Found(*parser, {{"field-0", "</headline>]]>"}, {"field-9", "x"}}));
  EXPECT_EQ("", Found(*parser, {{"field-0", " "}}));
}

TEST(MakeDocumentTest, ParserFindsValuesInAttributes) {
  const auto parser =
      ParseXML(ParserOf("<field tag=\"m\" attr=\"a\" attr_value=\"\"/>"
                        "<field tag=\"m\" attr=\"b\" attr_value=\"\"/>"
                        "<field tag=\"n\" attr=\"\" attr_value=\"\"/>"
                        "<field tag=\"n\" attr=\"a\" attr_value=\"\"/>",
                        "1"));
  EXPECT_THAT(FieldLabels(*parser), ElementsAre("a (m)", "b (m)", "", "a (n)"));
  EXPECT_EQ("1 \"<&>. 2. 4",
            Found(*parser, {{"field-0", "1 \"<&>"}, {"field-1", "2"}, {"field-3", "4"}}));
}

TEST(MakeDocumentTest, RefusesNamesThatXmlDoesNotAllow) {
  for (const std::string tag : {"a b", "1", "a>", "-"}) {
    const auto parser =
        ParseXML(ParserOf("<field tag=\"" + tag + "\" attr=\"\" attr_value=\"\"/>"));
    EXPECT_EQ("The configured field \"" + tag + "\" cannot be filled in here.", ThrownText([&] {
                MakeDocument(*parser, {{"field-0", "x"}});
              }));
  }
}

TEST(HtmlTest, EscapesEverything) {
  EXPECT_EQ("&lt;a href=&quot;&#39;&amp;&quot;&gt; \n\xEF\xBF\xBD",
            Html("<a href=\"'&\">\t\n\xFF"));
  EXPECT_EQ("a b c", OneLineOf("\n a \t\r b\x7F"
                               "c "));
  EXPECT_EQ("<input type=\"hidden\" name=\"&lt;\" value=\"&quot;\">", HiddenField("<", "\""));
}

TEST(SpokenWordsTest, EqualThoseOfTheModel) {
  for (const std::string text : {"", "One two.", "Stop... now", " ,. a , b", "3.5 12:30", "a\tb\nc",
                                 "!?", "x\xC2\xA0y", "caf\xC3\xA9\xC2\x85z", "\xE2\x82\xAC"}) {
    const model::Words words = model::Splitting(model::Decode(text)).words;
    EXPECT_EQ(std::vector<std::string>(words.begin(), words.end()), SpokenWords(text)) << text;
  }
  EXPECT_THAT(SpokenWords(Repeat("x", 101)), ElementsAre(Repeat("x", 100)));
}

TEST(SnippetOfTest, HasPauseAndGlossary) {
  const TemporaryDirectory directory;
  const std::string path =
      directory.Write("g", "<glossary><word text=\"Dr\" speech=\"Doctor\"/></glossary>");
  EXPECT_EQ("\\pau=300\\ Doctor, who? ", SnippetOf("Dr,who?", path));
  EXPECT_EQ("\\pau=300\\ Dr ", SnippetOf("Dr", directory / "none"));
}

TEST(TranslatorArgumentsTest, AreSplitAndRead) {
  const auto arguments = TranslatorArguments("  voice=en\tspeed=350 rate=x ");
  EXPECT_THAT(arguments, ElementsAre("voice=en", "speed=350", "rate=x"));
  EXPECT_EQ(350, NumberAmong(arguments, "speed", 1));
  EXPECT_EQ(22050, NumberAmong(arguments, "rate", 22050));
  EXPECT_EQ(5, PaceOf(arguments));
  EXPECT_EQ(2.5, PaceOf({}));
}

}  // namespace

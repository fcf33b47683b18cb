#include <utility>

#include "vocastra_fixtures.h"

namespace {

using testing::ElementsAre;

class ParsersTest : public VocastraTest {};

TEST_F(ParsersTest, ReadsEveryDirectoryInItsEncoding) {
  const std::string utf16 = std::string("\xE9\0", 2);
  const std::string fields = "<field tag='t' attr='' attr_value=''/>";
  std::string elements = "<parser id='x' type='xml'>" + fields + "</parser>";
  for (const std::string parser : {"text", "x"}) {
    for (const std::string encoding : {"ascii", "utf16", "utf8"}) {
      elements += Element(parser + encoding, "parser='" + parser + "' encoding='" + encoding + "'");
    }
  }
  Start(elements);
  Drop("textascii", "\xE9");
  Drop("textutf8", "\xC3\xA9");
  Drop("textutf16", utf16);
  const std::string xml = "<r><t>\xE9</t></r>";
  Drop("xascii", xml);
  Drop("xutf8", "<r><t>\xC3\xA9</t></r>");
  std::string wide = "\xFF\xFE";
  for (const char c : xml) {
    wide += c;
    wide += '\0';
  }
  Drop("xutf16", wide);
  Run();
  EXPECT_EQ(6U, Delivered().size());
  for (const std::string& name : Delivered()) {
    EXPECT_EQ(kPauseTag + std::string("\xC3\xA9 "), DeliveredFile(name)) << name;
  }
}

TEST_F(ParsersTest, AttachesNoParserIfTheNamedOneDoesNotExist) {
  Configure(Element("a", "parser='text'") + Element("b", "parser='x' encoding='utf8'") +
            Element("c", "encoding='nonsense'") + Element("d", "parser='text' encoding='UTF8'"));
  player = Build(settings);
  const auto missing = [](const std::string& id_, const std::string& parser_) {
    return "Directory \"" + id_ + "\" uses nonexistent parser \"" + parser_ + "\"\nDirectory \"" +
           id_ + "\" using parser (nil) " + parser_ + "\n";
  };
  EXPECT_EQ(Processing() + Created("a") + Created("b") + Created("c") + Created("d") +
                missing("a", "text-") + missing("b", "x-utf8") + Attached("c") +
                missing("d", "text-UTF8") + "Now in \"run\" state\n",
            Run());
  Drop("b", "text");
  EXPECT_EQ(kNoLog, Run());
}

TEST_F(ParsersTest, IgnoresParsersOfOtherTypes) {
  Configure("<parser id='p' type='json'/><parser id='q' type=''/>");
  player = Build(settings);
  EXPECT_EQ(Processing() +
                "Ignoring parser ID \"p\"; type \"json\" not supported\n"
                "Ignoring parser ID \"q\"; type \"\" not supported\n"
                "Now in \"run\" state\n",
            Run());
}

TEST_F(ParsersTest, ReportsAParserOnlyIfItsIDIsAnEncodedOne) {
  Configure(
      "<parser id='text-utf8'/><parser id='x' type='xml'/><parser id='x-ascii' type='xml'/>"
      "<parser id='text' type='xml'/><parser id='x' type='other'/>");
  player = Build(settings);
  EXPECT_EQ(Processing() +
                "Duplicate parser ID \"text-utf8\"\n"
                "Duplicate parser ID \"x-ascii\"\n"
                "Ignoring parser ID \"x\"; type \"other\" not supported\n"
                "Now in \"run\" state\n",
            Run());
}

TEST_F(ParsersTest, UsesTheFirstOfTwoParsersWithTheSameID) {
  const auto parser = [](const std::string& id_, const std::string& tag_) {
    return "<parser id='" + id_ + "' type='xml'><field tag='" + tag_ +
           "' attr='' attr_value=''/></parser>";
  };
  Configure(parser("x", "one") + parser("x", "two") + parser("text", "one") +
            Element("a", "parser='x' encoding='utf8'") +
            Element("b", "parser='text' encoding='utf8'"));
  player = Build(settings);
  EXPECT_EQ(Processing() + Created("a") + Created("b") + Attached("a", "x-utf8") +
                Attached("b", "text-utf8") + "Now in \"run\" state\n",
            Run());
  Drop("a", "<r><one>1</one><two>2</two></r>");
  Drop("b", "plain");
  Run();
  EXPECT_EQ(kPauseTag + std::string("1 "), DeliveredFile("0_a.text_live_first.raw"));
  EXPECT_EQ(kPauseTag + std::string("plain "), DeliveredFile("1_b.text_live_first.raw"));
}

TEST_F(ParsersTest, FailsEveryPassWhileAParserIsUnusable) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"<parser type='xml'/>", "Element parser has no attribute id"},
      {"<parser id='x' type='xml'><field/></parser>", "Element field has no attribute tag"},
  };
  Start(Element("a"));
  for (const auto& [parser, text] : cases) {
    Configure(parser + Element("a"));
    for (int pass = 0; pass < 2; ++pass) {
      EXPECT_EQ(Processing() + text + "\n", RunToFailure()) << parser;
      EXPECT_EQ(text, thrown);
    }
  }
  EXPECT_EQ("0", StatusAttribute("timestamp"));
}

TEST_F(ParsersTest, KeepsTheDirectoryChangesMadeBeforeAParserFailed) {
  Start(Element("a") + Element("b"), "wait");
  Drop("a", "text");
  Run();
  Configure(Element("a") + Element("c") + "<parser/>");
  const std::string text = "Element parser has no attribute id\n";
  EXPECT_EQ(Processing() + Created("c") + "Deleted input directory b\n" + text, RunToFailure());
  EXPECT_EQ(Processing() + text, RunToFailure());
  Configure(Element("a") + Element("c"));
  EXPECT_EQ(
      Processing() + Attached("a") + Attached("c") + "Now in \"run\" state\n",
      Run().substr(
          0, (Processing() + Attached("a") + Attached("c") + "Now in \"run\" state\n").size()));
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
}

TEST_F(ParsersTest, RebuildsTheParsersAtEveryReload) {
  const auto parser = [](const std::string& tag_) {
    return "<parser id='x' type='xml'><field tag='" + tag_ + "' attr='' attr_value=''/></parser>";
  };
  const std::string element = Element("a", "parser='x' encoding='utf8'");
  Start(element + parser("one"));
  Configure(element + parser("two"));
  EXPECT_EQ(Processing() + Attached("a", "x-utf8"), Run());
  Drop("a", "<r><one>1</one><two>2</two></r>");
  Run();
  EXPECT_EQ(kPauseTag + std::string("2 "), DeliveredFile("0_a.text_live_first.raw"));
  Configure(element);
  EXPECT_EQ(Processing() +
                "Directory \"a\" uses nonexistent parser \"x-utf8\"\n"
                "Directory \"a\" using parser (nil) x-utf8\n",
            Run());
}

}  // namespace

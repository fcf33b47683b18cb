#include <tuple>

#include "vocastra_fixtures.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ConfigurationTest : public VocastraTest {};

std::string NoInteger(const std::string& name_, const std::string& value_) {
  return "While processing attribute \"" + name_ + "\" of \"directory\": Could not convert \"" +
         value_ + "\" to integer";
}

TEST_F(ConfigurationTest, LogsHowItIsConfigured) {
  Configure(Element("b") + Element("a", "parser='text' encoding='ascii'"));
  player = Build(settings);
  EXPECT_EQ(Processing() + Created("b") + Created("a") + Attached("a", "text-ascii") +
                Attached("b") + "Now in \"run\" state\n",
            Run());
}

TEST_F(ConfigurationTest, LoadsAnUnchangedConfigurationOnlyOnce) {
  Start(Element("a"));
  EXPECT_EQ(kNoLog, Run(0x3));
  Configure(Element("a"));
  EXPECT_EQ(kNoLog, Run(0x3)) << "written again with the same bytes";
}

TEST_F(ConfigurationTest, NoticesAConfigurationThatChangesWhileItIsApplied) {
  settings.cifs_helper = "/bin/true";
  Start("<directory id='r' type='cifs'/>");
  stand_ins::pauses.on_sleep = [&] { Configure(Element("b")); };  // While the helper is stopped.
  Configure(Element("a"));
  Run();
  EXPECT_EQ(Processing() + Created("b") + "Deleted input directory a\n" + Attached("b"), Run());
}

TEST_F(ConfigurationTest, HandsTheHelpersAndTheWordLimitToItsDirectories) {
  settings.words = 2;
  settings.cifs_helper = tree / "missing-cifs";
  settings.ftp_helper = "";
  Configure(Element("a") + "<directory id='c' type='cifs'/><directory id='f' type='ftp'/>");
  player = Build(settings);
  const std::string log = Run();
  EXPECT_THAT(log, testing::HasSubstr("Created new input directory c\n"));
  EXPECT_THAT(
      log, testing::HasSubstr("Skipped directory f: Ignoring FTP dir; no FTP helper directory\n"));
  Drop("a", "1 2 3 4 5");
  Run();
  EXPECT_EQ("5 ", DeliveredFile("1_a.text_live_cont.raw"));
}

TEST_F(ConfigurationTest, ReplacesOnlyTheDirectoryWhoseElementChanged) {
  Start(Element("a") + Element("b") + Element("c"));
  Configure(Element("c") + Element("b", "loops='2'") + Element("a"));
  EXPECT_EQ(Processing() + "Deleted input directory b\n" + Created("b") + Attached("a") +
                Attached("b") + Attached("c"),
            Run());
}

TEST_F(ConfigurationTest, KeepsTheMessageOfAnUnchangedDirectory) {
  settings.words = 1;
  Start(Element("a", "loops='1'"), "wait");
  Drop("a", "1 2 3 4");
  Run();
  tree.Write("config.xml", "<tts-config state='run' note='x'><directory loops='1' path='" +
                               Input("a") +
                               "' type='local' id='a'>text<x/></directory></tts-config>");
  EXPECT_EQ(Processing() + Attached("a") + "Now in \"run\" state\n",
            Run().substr(0, (Processing() + Attached("a") + "Now in \"run\" state\n").size()));
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw", "1_a.text_live_cont.raw"));
}

TEST_F(ConfigurationTest, LosesTheMessageOfAReplacedDirectory) {
  Start(Element("a"), "wait");
  Drop("a", "text");
  Run();
  EXPECT_THAT(Status(), testing::HasSubstr("<message"));
  Configure(Element("a", "loops='2'"));
  Run();
  EXPECT_THAT(Delivered(), IsEmpty());
}

TEST_F(ConfigurationTest, DeletesDirectoriesThatAreNoLongerConfigured) {
  Start(Element("a") + Element("b") + Element("c"));
  Configure(Element("b"));
  EXPECT_EQ(Processing() + "Deleted input directory a\nDeleted input directory c\n" + Attached("b"),
            Run());
  Configure("");
  EXPECT_EQ(Processing() + "Deleted input directory b\n", Run());
}

TEST_F(ConfigurationTest, UsesTheFirstOfTwoDirectoriesWithTheSameID) {
  Configure(Element("a", "display-id='one'") + Element("a", "display-id='two'"));
  player = Build(settings);
  EXPECT_EQ(Processing() + Created("a") + "Duplicate directory ID \"a\"\n" + Attached("a") +
                "Now in \"run\" state\n",
            Run());
  Drop("a", "text");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_one.text_live_first.raw"));
}

TEST_F(ConfigurationTest, ReportsADuplicateOfASkippedDirectory) {
  Configure(Element("a", "priority='x'") + Element("a"));
  player = Build(settings);
  const std::string text = NoInteger("priority", "x");
  EXPECT_EQ(Processing() + text + "\nSkipped directory a: " + text +
                "\nDuplicate directory ID \"a\"\nNow in \"run\" state\n",
            Run());
}

TEST_F(ConfigurationTest, SkipsBadDirectoriesAndLoadsTheOthers) {
  Configure("<directory type='local'/>" + Element("a", "loops=' 1 '") + Element("b") +
            "<directory id='' type='ftp'/>");
  player = Build(settings);
  const std::string no_id = "Element directory has no attribute id";
  const std::string bad_loops = NoInteger("loops", " 1 ");
  EXPECT_EQ(Processing() + no_id + "\nSkipped directory : " + no_id + "\n" + bad_loops +
                "\nSkipped directory a: " + bad_loops + "\n" + Created("b") +
                "Skipped directory : Ignoring FTP dir; no FTP helper directory\n" + Attached("b") +
                "Now in \"run\" state\n",
            Run());
}

TEST_F(ConfigurationTest, DeletesADirectoryWhoseNewElementIsBad) {
  Start(Element("a") + Element("b"));
  Configure(Element("a", "priority='x'") + Element("b"));
  const std::string text = NoInteger("priority", "x");
  EXPECT_EQ(Processing() + "Deleted input directory a\n" + text + "\nSkipped directory a: " + text +
                "\n" + Attached("b"),
            Run());
  EXPECT_THAT(Status(), testing::Not(testing::HasSubstr("id=\"a\"")));
  EXPECT_EQ(kNoLog, Run()) << "it is applied";
}

TEST_F(ConfigurationTest, IgnoresOtherAndNestedElements) {
  Configure("<Directory id='x'/><group>" + Element("y") + "</group>" + Element("a"));
  player = Build(settings);
  EXPECT_EQ(Processing() + Created("a") + Attached("a") + "Now in \"run\" state\n", Run());
}

TEST_F(ConfigurationTest, FailsEveryPassWhileTheConfigurationIsUnusable) {
  const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
      {"<config></x>", "mismatched tag at line 1\n", "No \"tts-config\" root element"},
      {"<tts-config state='run'/><tts-config/>", "", "junk after document element at line 1"},
  };
  for (const auto& [text, log, expected] : cases) {
    tree.Write("config.xml", text);
    player = Build(settings);
    for (int pass = 0; pass < 2; ++pass) {
      EXPECT_EQ(log + expected + "\n", RunToFailure()) << text;
      EXPECT_EQ(expected, thrown) << text;
    }
  }
}

TEST_F(ConfigurationTest, FailsEveryPassWhileTheConfigurationIsMissing) {
  player = Build(settings);
  const std::string text = "Could not open \"" + settings.config + "\" for reading";
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(text + "\n", RunToFailure(kDebugAvailable));
    EXPECT_EQ(text, thrown);
  }
  Configure("");
  EXPECT_EQ(Processing() + "Now in \"run\" state\n", Run());
}

TEST_F(ConfigurationTest, RequiresAState) {
  Start(Element("a"));
  tree.Write("config.xml", "<tts-config>" + Element("b") + "</tts-config>");
  const std::string text = "Element tts-config has no attribute state";
  EXPECT_EQ(Processing() + text + "\n", RunToFailure());
  EXPECT_EQ(text, thrown);
}

TEST_F(ConfigurationTest, KeepsTheOldConfigurationIfTheNewOneIsBroken) {
  settings.words = 1;
  Start(Element("a"), "wait");
  Drop("a", "1 2 3 4");
  Run();
  const std::string good = ReadFile(settings.config);
  for (const std::string broken :
       {"", "<tts-config state='run'><directory id='b'/></b>", "<tts-config/>", "<x/>"}) {
    tree.Write("config.xml", broken);
    RunToFailure();
    EXPECT_FALSE(thrown.empty()) << broken;
    tree.Write("config.xml", good);
    EXPECT_EQ(kNoLog, Run()) << broken;
    EXPECT_EQ("wait", StatusAttribute("state")) << broken;
    EXPECT_THAT(Status(), testing::HasSubstr("<message")) << broken;
  }
}

TEST_F(ConfigurationTest, TreatsAMissingConfigurationAsUnchangedIfItsChecksumWasZero) {
  tree.Write("config.xml",
             WithCRCZero("<tts-config state='run'>" + Element("a") + "</tts-config>"));
  player = Build(settings);
  EXPECT_EQ(Processing() + Created("a") + Attached("a") + "Now in \"run\" state\n", Run());
  ASSERT_EQ(0, unlink(settings.config.c_str()));
  EXPECT_EQ(kNoLog, Run());
}

}  // namespace

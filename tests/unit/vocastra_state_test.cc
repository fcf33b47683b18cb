#include <string.h>

#include "vocastra_fixtures.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

class StateTest : public VocastraTest {
 protected:
  // With a message of which "1 2" is delivered, and no room for "3 4".
  void StartHalfSaid() {
    settings.words = 1;
    settings.files = 1;
    Start(Element("a"));
    Drop("a", "1 2 3 4");
    Run();
  }
};

TEST_F(StateTest, ProducesOnlyInTheStateRun) {
  for (const std::string state : {"stop", "Run", "run ", "", "pause"}) {
    Start(Element("a"), state);
    Drop("a", "text");
    EXPECT_EQ(Taken("a", "text"), Run()) << state;
    EXPECT_EQ(state, StatusAttribute("state"));
    EXPECT_THAT(Delivered(), IsEmpty()) << state;
  }
}

TEST_F(StateTest, LogsEveryChangeOfTheState) {
  Start("", "run");
  for (const std::string state : {"stop", "pause", "run", ""}) {
    Configure("", state);
    EXPECT_EQ(Processing() + "Now in \"" + state + "\" state\n", Run());
    Configure(" ", state);
    EXPECT_EQ(Processing(), Run());
  }
}

TEST_F(StateTest, DoesNotLogAnEmptyFirstState) {
  Configure("", "");
  player = Build(settings);
  EXPECT_EQ(Processing(), Run());
}

TEST_F(StateTest, StopsMessagesAndEmptiesTheOutputDirectoryOnceWhenStopped) {
  StartHalfSaid();
  tree.Write("out/.hidden", "");
  ASSERT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
  Configure(Element("a"), "stop");
  EXPECT_EQ(Processing() + Attached("a") + "Now in \"stop\" state\n", Run());
  EXPECT_THAT(Delivered(), IsEmpty());
  EXPECT_TRUE(Exists(tree / "out/.hidden"));
  EXPECT_THAT(Status(), testing::Not(testing::HasSubstr("<message")));
  tree.Write("out/kept", "");
  Drop("a", "other");
  Configure(Element("a") + " ", "stop");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("kept"));
  EXPECT_THAT(Status(), testing::HasSubstr("<message"));
}

TEST_F(StateTest, KeepsMessagesAndOutputInAnyOtherState) {
  StartHalfSaid();
  Configure(Element("a"), "pause");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
  ASSERT_EQ(0, unlink((settings.output + "/0_a.text_live_first.raw").c_str()));
  Configure(Element("a"), "run");
  Run();
  EXPECT_EQ("3 4 ", DeliveredFile("1_a.text_live_cont.raw"));
}

TEST_F(StateTest, EmptiesTheOutputDirectoryIfItStartsStopped) {
  tree.Write("out/old", "");
  Start("", "stop");
  EXPECT_THAT(Delivered(), IsEmpty());
  tree.Write("out/old", "");
  Start("", "run");
  EXPECT_THAT(Delivered(), ElementsAre("old"));
}

TEST_F(StateTest, AppliesTheOldConfigurationAgainAfterAParserFailed) {
  Start(Element("a") + Element("b"));
  const std::string good = ReadFile(settings.config);
  Configure(Element("a") + Element("c") + "<parser/>");
  RunToFailure();
  tree.Write("config.xml", good);
  EXPECT_EQ(
      Processing() + Created("b") + "Deleted input directory c\n" + Attached("a") + Attached("b"),
      Run());
  EXPECT_EQ(kNoLog, Run());
  Drop("a", "text");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
}

TEST_F(StateTest, DestroysItsDirectoriesInOrderOfTheirIDs) {
  settings.cifs_helper = "/bin/true";
  std::string elements;
  for (const std::string id : {"d", "b", "a", "c", "e"}) {
    elements += "<directory id='" + id + "' type='cifs'/>";
  }
  Start(elements, "stop");
  std::string expected;
  const auto status = ParseXML(Status());
  for (const XMLElement* directory : status->GetChildren("directory")) {
    expected += "Sending SIGTERM to PID [0-9]+\nRemoving temporary directory " +
                directory->GetAttributeString("path") + "\n";
  }
  EXPECT_THAT(WholeLogOf([&] { player.reset(); }), MatchesRegex(expected));
}

TEST_F(StateTest, RetriesToStopUntilTheOutputDirectoryCanBeEmptied) {
  Start("");
  ASSERT_EQ(0, rmdir(settings.output.c_str()));
  Configure("", "stop");
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(Processing(), RunToFailure());
    EXPECT_EQ("Could not open \"" + settings.output + "/\" for enumeration: " + strerror(ENOENT),
              thrown);
  }
  ASSERT_EQ(0, mkdir(settings.output.c_str(), 0777));
  EXPECT_EQ(Processing() + "Now in \"stop\" state\n", Run());
}

TEST_F(StateTest, StopsNoMessageUntilTheOutputDirectoryCanBeEmptied) {
  StartHalfSaid();
  const std::string running = ReadFile(settings.config);
  ASSERT_EQ(0, unlink((settings.output + "/0_a.text_live_first.raw").c_str()));
  ASSERT_EQ(0, rmdir(settings.output.c_str()));
  Configure(Element("a"), "stop");
  RunToFailure();
  EXPECT_EQ("Could not open \"" + settings.output + "/\" for enumeration: " + strerror(ENOENT),
            thrown);
  ASSERT_EQ(0, mkdir(settings.output.c_str(), 0777));
  tree.Write("config.xml", running);
  Run();
  EXPECT_EQ("3 4 ", DeliveredFile("1_a.text_live_cont.raw"));
}

TEST_F(StateTest, StopsWithoutAnOutputDirectory) {
  settings.output = "";
  Start(Element("a"));
  Configure(Element("a"), "stop");
  EXPECT_EQ(Processing() + Attached("a") + "Now in \"stop\" state\n", Run());
}

}  // namespace

#include <string.h>

#include <algorithm>
#include <utility>

#include "vocastra_fixtures.h"

namespace {

using testing::ElementsAre;

class OutputTest : public VocastraTest {};

TEST_F(OutputTest, LogsAMessageFromFileToAudio) {
  Start(Element("a", "priority='2'") + Element("b", "priority='1'"));
  Drop("a", "Hello world");
  const std::string id = Number(NextMessageID());
  const std::string idle = "Directory b reports an active message ID of 0\n";
  EXPECT_EQ(Taken("a", "Hello world") +
                "Parser returned: \"Hello world\"\nOriginal is valid UTF-8\nFrom " + Input("a") +
                "/m: Hello|world\n" + idle + "Directory a reports an active message ID of " + id +
                "\nHighest priority directory is a\ncalling engine\ndone calling engine\n"
                "copying 0_a.text_live_first.raw\nErasing m from file_map\n" +
                idle + "Directory a reports an active message ID of 0\n",
            Run(kDebugAvailable));
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
  EXPECT_EQ(kPauseTag + std::string("Hello world "), DeliveredFile("0_a.text_live_first.raw"));
}

TEST_F(OutputTest, StartsOnlyTheFirstSnippetOfAMessageWithThePauseTag) {
  settings.words = 1;
  Start(Element("a", "loops='2'"));
  Drop("a", "1 2 3");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw", "1_a.text_live_cont.raw",
                                       "2_a.text_live_cont.raw", "3_a.text_live_cont.raw"));
  EXPECT_EQ("\\pau=300\\ 1 2 ", DeliveredFile("0_a.text_live_first.raw"));
  EXPECT_EQ("3 ", DeliveredFile("1_a.text_live_cont.raw"));
  EXPECT_EQ("1 2 ", DeliveredFile("2_a.text_live_cont.raw"));
}

TEST_F(OutputTest, DiscardsTheTranslatorsOutput) {
  UseTranslator("echo from the translator; echo from the translator >&2\n");
  Start(Element("a"));
  Drop("a", "text");
  std::string log;
  EXPECT_EQ("", OutputOf([&] { log = Run(); }));
  EXPECT_THAT(log, testing::Not(testing::HasSubstr("from the translator")));
}

TEST_F(OutputTest, NamesOutputByDisplayIDAndPreview) {
  Start(Element("a", "display-id='lobby' preview='1'") + Element("b", "display-id=''"));
  Drop("a", "text");
  Drop("b", "text");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_lobby.text_pre_first.raw", "1_.text_live_first.raw"));
}

TEST_F(OutputTest, NumbersItsOutputAcrossMessagesAndReloads) {
  Start(Element("a"));
  for (int i = 0; i < 3; ++i) {
    Configure(Element("a") + std::string(static_cast<size_t>(i), ' '));
    Drop("a", "text", "m" + Number(i));
    Run();
  }
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw", "1_a.text_live_first.raw",
                                       "2_a.text_live_first.raw"));
}

TEST_F(OutputTest, DeliversSpacerBumperAndSilenceBeforeAMessage) {
  settings.words = 1;
  const std::string clips = "bumper-path='" + tree.Write("bumper", "B") + "' spacer-path='" +
                            tree.Write("spacer", "S") + "' silence-path='" +
                            tree.Write("silence", "0") + "'";
  Start(Element("a", clips));
  Drop("a", "1 2 3");
  const std::string log = Run();
  const std::string engine = "calling engine\ndone calling engine\n";
  EXPECT_EQ(Taken("a", "1 2 3") + engine +
                "copying 0_a.warn_live_first.wav\ncopying 1_a.warn_live_first.wav\n"
                "copying 2_a.warn_live_first.wav\ncopying 3_a.text_live_first.raw\n" +
                engine + "copying 4_a.text_live_cont.raw\n",
            log);
  EXPECT_EQ("S", DeliveredFile("0_a.warn_live_first.wav"));
  EXPECT_EQ("B", DeliveredFile("1_a.warn_live_first.wav"));
  EXPECT_EQ("0", DeliveredFile("2_a.warn_live_first.wav"));
  EXPECT_THAT(stand_ins::pauses.usleeps,
              ElementsAre(kClipPause, kClipPause, kClipPause, kPassPause, kPassPause, kPassPause));
}

TEST_F(OutputTest, DeliversTheClipsThatAreConfigured) {
  settings.files = 1;  // The room is looked at once for each snippet.
  const std::string bumper = "bumper-path='" + tree.Write("bumper", "B") + "' ";
  const std::string spacer = "spacer-path='" + tree.Write("spacer", "S") + "' ";
  const std::string silence = "silence-path='" + tree.Write("silence", "0") + "' ";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {spacer, ""},
      {silence, "0"},
      {spacer + silence, "0"},
      {bumper + spacer, "SB"},
      {bumper + spacer + silence, "SB0"},
  };
  for (const auto& [attributes, expected] : cases) {
    stand_ins::pauses = {};
    Start(Element("a", attributes + "preview='1'"));
    Drop("a", "text");
    Run();
    std::string clips;
    for (const std::string& name : Delivered()) {
      clips += name.find(".warn_pre_first.wav") != std::string::npos ? DeliveredFile(name) : "";
      ASSERT_EQ(0, unlink((settings.output + "/" + name).c_str()));
    }
    EXPECT_EQ(expected, clips) << attributes;
    EXPECT_EQ(expected.size(), std::count(stand_ins::pauses.usleeps.begin(),
                                          stand_ins::pauses.usleeps.end(), kClipPause))
        << attributes;
  }
}

TEST_F(OutputTest, CopiesASpacerWithTheBumperEvenIfNoneIsConfigured) {
  Start(Element("a", "bumper-path='" + tree.Write("bumper", "B") + "'"));
  Drop("a", "text");
  const std::string log = Run();
  EXPECT_THAT(log, testing::HasSubstr("Could not execute \"cp  " + settings.output +
                                      "/0_a.warn_live_first.wav\""));
  EXPECT_THAT(Delivered(), ElementsAre("1_a.warn_live_first.wav", "2_a.text_live_first.raw"));
}

TEST_F(OutputTest, TranslatesButDeliversNothingWithoutAnOutputDirectory) {
  settings.output = "";
  settings.words = 1;
  const std::string clips = "bumper-path='" + tree.Write("bumper", "B") + "' silence-path='" +
                            tree.Write("silence", "0") + "'";
  for (const std::string& attributes : {std::string(), clips}) {
    Start(Element("a", attributes));
    Drop("a", "1 2 3");
    const std::string engine = "calling engine\ndone calling engine\n";
    EXPECT_EQ(Taken("a", "1 2 3") + engine + engine, Run()) << attributes;
    EXPECT_EQ(std::vector<useconds_t>(3, kPassPause), stand_ins::pauses.usleeps) << attributes;
  }
}

TEST_F(OutputTest, ServesTheSmallestPriorityNumberAndThenTheSmallestIDFirst) {
  Start(Element("a", "priority='5'") + Element("b", "priority='1'") +
        Element("c", "priority='-1'") + Element("d") + Element("B") + Element("A") +
        Element("e", "priority='10'"));
  for (const char* id : {"a", "b", "c", "d", "e", "A", "B"}) {
    Drop(id, "text");
  }
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_c.text_live_first.raw", "1_A.text_live_first.raw",
                                       "2_B.text_live_first.raw", "3_d.text_live_first.raw",
                                       "4_b.text_live_first.raw", "5_a.text_live_first.raw",
                                       "6_e.text_live_first.raw"));
}

TEST_F(OutputTest, RanksTheDirectoriesAgainAtAReload) {
  Start(Element("a") + Element("b"));
  Configure(Element("a", "priority='1'") + Element("b"));
  Run();
  Drop("a", "text");
  Drop("b", "text");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_b.text_live_first.raw", "1_a.text_live_first.raw"));
}

TEST_F(OutputTest, StopsProducingWhileTheOutputDirectoryIsFull) {
  settings.words = 1;
  settings.files = 2;
  Start(Element("a"));
  std::vector<std::string> states;
  stand_ins::pauses.on_usleep = [&] {
    const std::string start = "<tts-status now-playing=";  // "0" or else the message's number.
    states.push_back((Status().find(start + "\"0\"") == 0 ? "idle" : "playing") +
                     std::string(Status().find("output-bound=\"1\"") < 99 ? " bound" : ""));
  };
  Drop("a", "1 2 3 4 5 6");
  const std::string log = Run();
  EXPECT_EQ("copying 1_a.text_live_cont.raw\nNow output-bound\n", log.substr(log.rfind("copying")));
  EXPECT_EQ(2U, Delivered().size());
  EXPECT_EQ(kNoLog, Run(kDebugAvailable));
  ASSERT_EQ(0, unlink((settings.output + "/0_a.text_live_first.raw").c_str()));
  EXPECT_EQ(
      "No longer output-bound\ncalling engine\ndone calling engine\n"
      "copying 2_a.text_live_cont.raw\nNow output-bound\n",
      Run());
  EXPECT_THAT(Delivered(), ElementsAre("1_a.text_live_cont.raw", "2_a.text_live_cont.raw"));
  // A snippet's own status comes before the output is counted again.
  EXPECT_THAT(states, ElementsAre("idle", "playing", "playing", "playing bound", "playing bound",
                                  "playing"));
  EXPECT_EQ(kNoLog, Run());
  EXPECT_EQ("1", StatusAttribute("output-bound"));
  EXPECT_NE("0", StatusAttribute("now-playing")) << "it does not look for messages";
}

TEST_F(OutputTest, CountsEveryVisibleFileInTheOutputDirectory) {
  settings.files = 2;
  tree.Write("out/a", "");
  tree.Write("out/.hidden", "");
  tree.MakeDirectory("out/sub");
  Start("");
  EXPECT_EQ("0", StatusAttribute("output-bound"));
  tree.Write("out/b", "");
  EXPECT_EQ("Now output-bound\n", Run());
  tree.Write("out/c", "");
  EXPECT_EQ(kNoLog, Run());
  EXPECT_EQ("1", StatusAttribute("output-bound"));
}

TEST_F(OutputTest, IsAlwaysOutputBoundIfNoFileIsAllowed) {
  for (const int files : {0, -1}) {
    settings.files = files;
    Start("");
    Run();
    EXPECT_EQ("1", StatusAttribute("output-bound")) << files;
  }
}

TEST_F(OutputTest, IsNeverOutputBoundWithoutAnOutputDirectory) {
  settings.output = "";
  settings.files = 0;
  Start(Element("a"));
  Drop("a", "text");
  Run();
  EXPECT_NE("", TranslatorCalls());
  EXPECT_EQ("0", StatusAttribute("output-bound"));
}

TEST_F(OutputTest, TreatsAnUnreadableOutputDirectoryAsEmpty) {
  settings.files = 1;
  tree.Write("out/a", "");
  Start("");
  ASSERT_EQ(0, unlink((settings.output + "/a").c_str()));
  ASSERT_EQ(0, rmdir(settings.output.c_str()));
  EXPECT_EQ("Could not open \"" + settings.output + "/\" for counting: " + strerror(ENOENT) +
                "\nNo longer output-bound\n",
            Run());
}

TEST_F(OutputTest, StaysOutputBoundWhileItIsNotRunning) {
  settings.files = 1;
  tree.Write("out/a", "");
  Start("");
  EXPECT_EQ("1", StatusAttribute("output-bound"));
  Configure("", "pause");
  Run();
  ASSERT_EQ(0, unlink((settings.output + "/a").c_str()));
  Run();
  EXPECT_EQ("1", StatusAttribute("output-bound"));
  Configure("", "run");
  EXPECT_EQ(Processing() + "Now in \"run\" state\nNo longer output-bound\n", Run());
}

TEST_F(OutputTest, ScansItsDirectoriesWhileItIsOutputBound) {
  settings.files = 0;
  Start(Element("a"));
  Drop("a", "text");
  Run();
  EXPECT_THAT(Status(), testing::HasSubstr("<message"));
}

}  // namespace

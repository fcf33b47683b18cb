#include <string.h>

#include "vocastra_fixtures.h"

namespace {

using testing::ElementsAre;

class PassTest : public VocastraTest {};

TEST_F(PassTest, WritesTheStatusOnceAndPausesOnceInAnIdlePass) {
  Start(Element("a"));
  EXPECT_EQ("0", StatusAttribute("timestamp"));
  EXPECT_EQ(kNoLog, Run());
  EXPECT_EQ("1", StatusAttribute("timestamp"));
  EXPECT_THAT(stand_ins::pauses.usleeps, ElementsAre(kPassPause));
}

TEST_F(PassTest, WritesTheStatusAndPausesAfterEverySnippet) {
  settings.words = 1;
  Start(Element("a"));
  std::vector<std::string> timestamps;
  stand_ins::pauses.on_usleep = [&] { timestamps.push_back(StatusAttribute("timestamp")); };
  Drop("a", "1 2 3 4 5 6");
  Run();
  EXPECT_EQ(3U, Delivered().size());
  EXPECT_EQ(std::vector<useconds_t>(4, kPassPause), stand_ins::pauses.usleeps);
  EXPECT_THAT(timestamps, ElementsAre("0", "1", "2", "3"));
}

TEST_F(PassTest, ScansTheDirectoriesInOrderOfTheirIDs) {
  Start(Element("b", "priority='1'") + Element("B", "priority='3'") +
            Element("10", "priority='2'") + Element("9"),
        "wait");
  for (const char* id : {"b", "B", "10", "9"}) {
    Drop(id, id);
  }
  std::string expected;
  for (const std::string id : {"10", "9", "B", "b"}) {
    expected += Parsed(id, id) + "Adding m " + CRCText(id) + " to file_map\n" + Parsed(id, id);
  }
  EXPECT_EQ(expected, Run());
}

TEST_F(PassTest, SpeaksMessagesThatArriveDuringAPass) {
  Start(Element("a"));
  Drop("a", "first");
  stand_ins::pauses.on_usleep = [&] {
    if (stand_ins::pauses.usleeps.size() == 1) {
      Drop("a", "second", "n");
    }
  };
  Run();
  EXPECT_EQ("first ", DeliveredFile("0_a.text_live_first.raw").substr(strlen(kPauseTag)));
  EXPECT_EQ("second ", DeliveredFile("1_a.text_live_first.raw").substr(strlen(kPauseTag)));
}

TEST_F(PassTest, InterruptsAMessageForAMoreUrgentOne) {
  settings.words = 1;
  Start(Element("a", "priority='5'") + Element("u", "priority='1'"));
  Drop("a", "1 2 3 4");
  stand_ins::pauses.on_usleep = [&] {
    if (stand_ins::pauses.usleeps.size() == 1) {
      Drop("u", "urgent");
    }
  };
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw", "1_u.text_live_first.raw",
                                       "2_a.text_live_cont.raw"));
  EXPECT_EQ("3 4 ", DeliveredFile("2_a.text_live_cont.raw"));
}

TEST_F(PassTest, PausesAtTheEndOfAFailingPassToo) {
  player = Build(settings);
  for (int i = 1; i < 4; ++i) {
    RunToFailure();
    EXPECT_EQ(std::vector<useconds_t>(static_cast<size_t>(i), kPassPause),
              stand_ins::pauses.usleeps);
  }
  EXPECT_FALSE(Exists(settings.status));
}

TEST_F(PassTest, EndsThePassIfADirectoryCannotBeScanned) {
  Start(Element("a") + Element("b") + Element("c"));
  ASSERT_EQ(0, rmdir(Input("b").c_str()));
  Drop("a", "text");
  Drop("c", "text");
  EXPECT_EQ(Taken("a", "text"), RunToFailure());
  EXPECT_EQ("Could not open directory " + Input("b") + "/", thrown);
  EXPECT_EQ("0", StatusAttribute("timestamp"));
  EXPECT_THAT(stand_ins::pauses.usleeps, ElementsAre(kPassPause));
  ASSERT_EQ(0, mkdir(Input("b").c_str(), 0777));
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw", "1_c.text_live_first.raw"));
}

TEST_F(PassTest, EndsThePassIfADirectoryVanishesDuringIt) {
  settings.words = 1;
  Start(Element("a"));
  Drop("a", "1 2 3 4");
  stand_ins::pauses.on_usleep = [&] { rmdir(Input("a").c_str()); };
  RunToFailure();
  EXPECT_EQ("Could not open directory " + Input("a") + "/", thrown);
  EXPECT_THAT(stand_ins::pauses.usleeps, ElementsAre(kPassPause, kPassPause));
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
  EXPECT_EQ("0", StatusAttribute("timestamp")) << "written only after the scan";
  stand_ins::pauses.on_usleep = [] {};
  ASSERT_EQ(0, mkdir(Input("a").c_str(), 0777));
  Run();
  EXPECT_EQ("3 4 ", DeliveredFile("1_a.text_live_cont.raw"));
}

}  // namespace

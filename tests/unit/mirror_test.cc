#include "mirror.h"

#include <iterator>
#include <set>

#include "mirror_fixtures.h"
#include "stand_ins/changes.h"

namespace {

using testing::ElementsAre;

TEST_F(MirrorTest, FirstBeatFollowsTheFirstMirror) {
  server.Put("a.txt", "A.");
  server.Put("b.txt", "B.");
  EXPECT_EQ("", Look());
  EXPECT_EQ("", BeatText());
  EXPECT_EQ(Files(), Local());
  EXPECT_EQ("", Look());
  EXPECT_EQ("alive 00\n", BeatText());
  EXPECT_EQ((Files{{"a.txt", "A."}, {"b.txt", "B."}}), Local());
  Look();
  EXPECT_EQ("alive 01\n", BeatText());
}

TEST_F(MirrorTest, EmptyDirectoryHasItsFirstBeatAtOnce) {
  Look();
  EXPECT_EQ("alive 00\n", BeatText());
}

TEST_F(MirrorTest, BeatHasHundredTexts) {
  std::vector<std::string> texts;
  for (int i = 0; i < 200; ++i) {
    Look();
    texts.push_back(BeatText());
  }
  EXPECT_EQ("alive 99\n", texts[99]);
  EXPECT_TRUE(std::equal(texts.begin(), texts.begin() + 100, texts.begin() + 100));
  EXPECT_EQ(100, std::set<std::string>(texts.begin(), texts.begin() + 100).size());
}

TEST_F(MirrorTest, DeliveredFileIsNotDeliveredAgain) {
  server.Put("a.txt", "A.");
  Run(20);
  EXPECT_EQ("A.", TakeLocal("a.txt"));
  Run(20);
  EXPECT_EQ(Files(), Local());
  EXPECT_EQ(1, server.Count("fetch"));
}

TEST_F(MirrorTest, ModeLetsEverybodyRead) {
  const mode_t mask = umask(077);
  server.Put("a.txt", "A.");
  Run(20);
  umask(mask);
  EXPECT_EQ(0100644U, ModeOf(directory / "a.txt"));
}

TEST_F(MirrorTest, ChangedFileIsDeliveredAgain) {
  server.Put("a.txt", "A.");
  Run(20);
  TakeLocal("a.txt");
  server.Put("a.txt", "A.", "2");
  Run(20);
  EXPECT_EQ("A.", TakeLocal("a.txt"));
  server.Put("a.txt", "Longer.", "2");
  Run(20);
  EXPECT_EQ("Longer.", TakeLocal("a.txt"));
}

TEST_F(MirrorTest, DeliveryTakesOnePollAndTheTimeToSettle) {
  Run(20);
  for (const int poll : {1, 2, 3, 5, 100}) {
    settings.poll_seconds = poll;
    mirror.reset();
    Look();
    // The file is written right after a look, in the pause.
    const double written = server.clock - poll;
    const std::string name = "poll" + std::to_string(poll);
    server.Put(name, "A.");
    while (Local().count(name) == 0) {
      Look();
    }
    const double latest = written + poll + 3;
    EXPECT_GE(latest + poll + 0.2, server.clock) << poll;  // The last look has paused as well.
  }
}

TEST_F(MirrorTest, SlowListingIsFollowedByARestOfItsLength) {
  Run(20);
  server.on_call = [this](const std::string&) { server.clock += 4; };
  const double start = server.clock;
  Look();
  EXPECT_LT(start + 7.9, server.clock);
}

TEST_F(MirrorTest, GrowingFileIsNotDelivered) {
  settings.poll_seconds = 1;
  Run(10);
  for (size_t i = 1; i <= 20; ++i) {
    server.Put("a.txt", Repeat("word ", i));
    Run(2);
    ASSERT_EQ(Files(), Local()) << i;
  }
  Run(4);
  EXPECT_EQ(Repeat("word ", 20), Local()["a.txt"]);
}

TEST_F(MirrorTest, LooksBeforeAndAfterAnOutageDoNotSettleAFile) {
  server.Put("b.txt", "B.");
  Run(20);
  server.Put("a.txt", "Half", "2");
  server.Put("b.txt", "Half", "2");
  Look();
  server.listing = [](const std::function<void(const RemoteFile&)>& take_) {
    take_({"a.txt", 4, "2"});
    take_({"b.txt", 4, "2"});
    throw std::string("gone");
  };
  EXPECT_EQ("no updates: gone\n", Run(20));
  server.listing = nullptr;
  EXPECT_EQ("works again\n", Look());
  EXPECT_EQ((Files{{"b.txt", "B."}}), Local());
  server.Put("a.txt", "Half and half", "3");
  server.Put("b.txt", "Half and half", "3");
  Run(10);
  EXPECT_EQ((Files{{"a.txt", "Half and half"}, {"b.txt", "Half and half"}}), Local());
}

TEST_F(MirrorTest, LooksWithAnotherBetweenThemDoNotSettleAFile) {
  server.Put("a.txt", "A.");
  Run(20);
  server.Put("a.txt", "Half", "2");
  Look();
  server.files.clear();
  Look();
  server.Put("a.txt", "Half", "2");
  Look();
  EXPECT_EQ((Files{{"a.txt", "A."}}), Local());
  Look();
  EXPECT_EQ((Files{{"a.txt", "Half"}}), Local());
}

TEST_F(MirrorTest, FileThatTwoLooksDoNotShowIsRemoved) {
  server.Put("a.txt", "A.");
  server.Put("b.txt", "B.");
  Run(20);
  server.files.erase("a.txt");
  Look();
  EXPECT_EQ(2, Local().size());
  Look();
  EXPECT_EQ((Files{{"b.txt", "B."}}), Local());
  server.Put("a.txt", "A.");
  Run(10);
  EXPECT_EQ(2, Local().size());
  EXPECT_EQ(0, stand_ins::UnlockedChanges(directory.path).size());
}

TEST_F(MirrorTest, FailureBetweenTwoLooksKeepsAFile) {
  server.Put("a.txt", "A.");
  Run(20);
  server.files.erase("a.txt");
  Look();
  server.on_call = [](const std::string&) { throw std::string("gone"); };
  Look();
  server.on_call = [](const std::string&) {};
  Look();
  EXPECT_EQ((Files{{"a.txt", "A."}}), Local());
  Look();
  EXPECT_EQ(Files(), Local());
}

TEST_F(MirrorTest, OldestFileComesFirst) {
  for (const char* const name : {"a", "b", "c"}) {
    server.files[name] = {name, std::string("2026112") + static_cast<char>('a' + 'c' - name[0]),
                          "Nov 21 00:07", 0};
  }
  Run(10);
  std::vector<std::string> fetched;
  std::copy_if(server.calls.begin(), server.calls.end(), std::back_inserter(fetched),
               [](const std::string& call_) { return call_[0] == 'f'; });
  EXPECT_THAT(fetched, ElementsAre("fetch c 0", "fetch b 0", "fetch a 0"));
}

TEST_F(MirrorTest, OldestOfVeryManyFilesComeFirst) {
  for (int i = 100; i < 250; ++i) {
    server.Put("file" + std::to_string(i), "text", std::to_string(350 - i));
  }
  while (Local().empty()) {
    Look();
  }
  EXPECT_EQ(100, Local().size());
  EXPECT_EQ("file150", Local().begin()->first);
  EXPECT_EQ("", BeatText());
  Look();
  EXPECT_EQ(150, Local().size());
  EXPECT_NE("", BeatText());
}

TEST_F(MirrorTest, OtherFormOfTheSameTimeIsNoChange) {
  server.files["a.txt"] = {"A.", "1", "Nov 21 00:07", 0};
  Run(20);
  TakeLocal("a.txt");
  server.files["a.txt"].stamp = "Nov 21 2026";
  Run(20);
  EXPECT_EQ(Files(), Local());
  const long times = server.Count("time");
  Run(20);
  EXPECT_EQ(times, server.Count("time"));
}

TEST_F(MirrorTest, FileThatIsWrittenAgainWithinAMinuteIsDeliveredAgain) {
  EXPECT_EQ(kNoLog, Run(10));
  server.files["a.txt"] = {"A.", "1", "minute", 0, true};
  EXPECT_EQ(kNoLog, Run(10));
  EXPECT_EQ("A.", TakeLocal("a.txt"));
  server.files["a.txt"] = {"B.", "2", "minute", 0, true};
  EXPECT_EQ(kNoLog, Run(20));
  EXPECT_EQ("B.", TakeLocal("a.txt"));
  EXPECT_EQ(kNoLog, Run(58));
  server.files["a.txt"] = {"C.", "3", "minute", 0, true};
  EXPECT_EQ(kNoLog, Run(70));
  EXPECT_EQ("C.", TakeLocal("a.txt"));
  EXPECT_EQ(kNoLog, Run(200));
  server.calls.clear();
  EXPECT_EQ(kNoLog, Run(200));
  EXPECT_EQ(0, server.Count("time"));
}

TEST_F(MirrorTest, RoundedTimeOfAnOldFileIsCheckedOnce) {
  server.files["a.txt"] = {"A.", "1", "minute", 0, true};
  EXPECT_EQ(kNoLog, Run(10));
  server.calls.clear();
  EXPECT_EQ(kNoLog, Run(200));
  EXPECT_EQ(1, server.Count("time"));
  Start();
  server.calls.clear();
  EXPECT_EQ(kNoLog, Run(200));
  EXPECT_EQ(1, server.Count("time"));
}

TEST_F(MirrorTest, KnownFilesNeedOneListingOnly) {
  for (int i = 0; i < 10; ++i) {
    server.Put("file" + std::to_string(i), "text");
  }
  Run(20);
  server.calls.clear();
  Look();
  EXPECT_THAT(server.calls, ElementsAre("list"));
}

TEST_F(MirrorTest, AutoDeleteRemovesWhatTheDaemonTook) {
  settings.auto_delete = true;
  server.Put("a.txt", "A.");
  server.Put("b.txt", "B.");
  Run(20);
  EXPECT_EQ(0, server.Count("delete"));
  TakeLocal("a.txt");
  EXPECT_EQ("", Run(20));
  EXPECT_EQ(1, server.Count("delete"));
  EXPECT_EQ(0, server.files.count("a.txt"));
  EXPECT_EQ((Files{{"b.txt", "B."}}), Local());
}

TEST_F(MirrorTest, AutoDeleteKeepsAFileThatHasChanged) {
  settings.auto_delete = true;
  server.files["a.txt"] = {"A.", "1", "minute", 0, false};
  server.files["b.txt"] = {"B.", "1", "minute", 0, false};
  Run(20);
  TakeLocal("a.txt");
  TakeLocal("b.txt");
  // The listing does not distinguish them.
  server.files["a.txt"] = {"C.", "2", "minute", 0, false};
  server.Put("b.txt", "Another B.", "2");
  Run(20);
  EXPECT_EQ(0, server.Count("delete"));
  EXPECT_EQ((Files{{"a.txt", "C."}, {"b.txt", "Another B."}}), Local());
}

TEST_F(MirrorTest, DeleteThatIsRefusedIsReportedOnce) {
  settings.auto_delete = true;
  server.Put("a.txt", "A.");
  Run(20);
  TakeLocal("a.txt");
  server.on_call = [](const std::string& call_) {
    if (call_[0] == 'd') {
      throw std::string("Permission denied");
    }
  };
  EXPECT_EQ("cannot delete a.txt: Permission denied\n", Run(200));
  EXPECT_EQ(Files(), Local());
  server.on_call = [](const std::string&) {};
  EXPECT_EQ("could delete a.txt now\n", Run(200));
}

TEST_F(MirrorTest, FailureOfTheServerAndItsEndAreReportedOnce) {
  std::string reason = "no route";
  server.on_call = [&](const std::string&) { throw reason; };
  const double start = server.clock;
  EXPECT_EQ("no updates: no route\n", Look());
  EXPECT_EQ(5, server.clock - start);
  EXPECT_EQ("", Run(20));
  reason = "no directory";
  EXPECT_EQ("no updates: no directory\n", Run(20));
  reason = "no route";
  EXPECT_EQ("", Run(20));
  EXPECT_EQ("", BeatText());
  server.on_call = [](const std::string&) {};
  EXPECT_EQ("works again\n", Run(20));
  EXPECT_NE("", BeatText());
}

TEST_F(MirrorTest, RefusedLoginIsTriedAgainAfterHalfAMinute) {
  server.on_call = [](const std::string&) { throw Refused{"530 Login incorrect"}; };
  const double start = server.clock;
  EXPECT_EQ("no updates: 530 Login incorrect\n", Look());
  EXPECT_EQ(30, server.clock - start);
  EXPECT_EQ("", Look());
}

TEST_F(MirrorTest, MessageIsPrintableAscii) {
  server.on_call = [](const std::string&) { throw std::string("t\xc3\xbcr\n\x1b[1m\x7f%s"); };
  EXPECT_EQ("no updates: t??r??[1m?%s\n", Look());
}

TEST_F(MirrorTest, SecondProcessKnowsTheDeliveredFiles) {
  server.Put("a.txt", "A.");
  server.Put("b.txt", "B.");
  Run(20);
  EXPECT_EQ("A.", TakeLocal("a.txt"));
  const std::string beat = BeatText();
  server.Put("c.txt", "C.");
  Start();
  Look();
  EXPECT_NE(beat, BeatText());  // The second process beats at once, with another text.
  Run(20);
  EXPECT_EQ((Files{{"b.txt", "B."}, {"c.txt", "C."}}), Local());
  EXPECT_EQ(3, server.Count("fetch"));
  server.files.clear();
  Start();
  Run(20);
  EXPECT_EQ(Files(), Local());
}

}  // namespace

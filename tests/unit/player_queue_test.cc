#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <set>

#include "queue.h"
#include "test_util.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

// An output directory, and the queue of a player for the ids that do not begin with "x".
class QueueTest : public testing::Test {
 protected:
  // seconds_: the time at which it was written.
  void Deliver(const std::string& name_, int seconds_ = 1000) {
    const std::string path = directory.Write(name_, name_);
    const timespec times[] = {{seconds_, 0}, {seconds_, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
  }

  std::vector<std::string> Waiting() {
    EXPECT_TRUE(queue->Update());
    std::vector<std::string> names;
    for (const Piece& piece : queue->Waiting()) {
      names.push_back(piece.name);
    }
    return names;
  }

  const Piece& Named(const std::string& name_) {
    for (const Piece& piece : queue->Waiting()) {
      if (piece.name == name_) {
        return piece;
      }
    }
    abort();
  }

  Piece Take(const std::string& name_) {
    Piece taken;
    EXPECT_EQ(Queue::Result::kDone, queue->Take(Named(name_), taken)) << name_;
    return taken;
  }

  // Makes a new queue, as after a kill.
  void Restart() {
    queue = std::make_unique<Queue>(directory.path,
                                    [](const std::string& id_) { return id_[0] != 'x'; });
  }

  std::set<std::string> Files() const {
    std::set<std::string> names;
    FILE* const listing = popen(("ls -A " + directory.path).c_str(), "r");
    char line[256];
    while (fgets(line, sizeof(line), listing) != nullptr) {
      names.insert(std::string(line, strlen(line) - 1));
    }
    pclose(listing);
    return names;
  }

  const TemporaryDirectory directory;
  std::unique_ptr<Queue> queue =
      std::make_unique<Queue>(directory.path, [](const std::string& id_) { return id_[0] != 'x'; });
};

TEST_F(QueueTest, FilesAreInTheOrderOfTheirNumbers) {
  for (const char* const name : {"10_a", "9_a", "100_b", "4294967295_a", "0_b"}) {
    Deliver(name);
  }
  EXPECT_THAT(Waiting(), ElementsAre("0_b", "9_a", "10_a", "100_b", "4294967295_a"));
}

TEST_F(QueueTest, NumbersThatBeginAgainAreNewer) {
  Deliver("7_a");
  EXPECT_THAT(Waiting(), ElementsAre("7_a"));
  Deliver("0_a");
  EXPECT_THAT(Waiting(), ElementsAre("7_a", "0_a"));
  Deliver("8_a");
  Deliver("1_a");
  EXPECT_THAT(Waiting(), ElementsAre("7_a", "0_a", "1_a", "8_a"));
}

TEST_F(QueueTest, TimesDecideIfOneLookFindsOldAndNewNumbers) {
  for (const auto& [name, time] :
       {std::pair("3_a", 1000), {"4_a", 1000}, {"0_a", 1002}, {"3_b", 1003}, {"5_a", 1004}}) {
    Deliver(name, time);
  }
  EXPECT_THAT(Waiting(), ElementsAre("3_a", "4_a", "0_a", "3_b", "5_a"));
}

TEST_F(QueueTest, OtherNamesAndKindsAreIgnored) {
  Deliver(".5_a");
  Deliver("a_5");
  directory.MakeDirectory("6_a");
  ASSERT_EQ(0, symlink("a_5", (directory / "7_a").c_str()));
  Deliver("8_xylophone");
  EXPECT_THAT(Waiting(), IsEmpty());
  EXPECT_THAT(queue->OtherIds(), ElementsAre("xylophone"));
}

TEST_F(QueueTest, FileThatVanishedOrWasReplacedLosesItsPlace) {
  Deliver("1_a");
  Deliver("2_a");
  Deliver("3_a");
  Waiting();
  Deliver("1_a", 2000);
  unlink((directory / "2_a").c_str());
  EXPECT_THAT(Waiting(), ElementsAre("3_a", "1_a"));
}

TEST_F(QueueTest, TakenFileIsHiddenAndCanWaitAgain) {
  Deliver("1_a");
  Deliver("2_a");
  Waiting();
  const Piece taken = Take("1_a");
  EXPECT_THAT(Files(), UnorderedElementsAre(".playing.1_a", "2_a"));
  EXPECT_EQ(directory / ".playing.1_a", queue->PathOf(taken));
  EXPECT_THAT(Waiting(), ElementsAre("2_a"));
  queue->PutBack(taken);
  EXPECT_THAT(Waiting(), ElementsAre("1_a", "2_a"));
  queue->Remove(Take("1_a"));
  EXPECT_THAT(Files(), UnorderedElementsAre("2_a"));
}

TEST_F(QueueTest, FileThatWasMovedAsideKeepsItsPlace) {
  for (const char* const name : {"1_a", "2_a", "3_a"}) {
    Deliver(name);
  }
  Waiting();
  EXPECT_EQ(Queue::Result::kDone, queue->MoveAside(Named("2_a")));
  EXPECT_THAT(Files(), UnorderedElementsAre("1_a", ".waiting.2_a", "3_a"));
  Deliver("4_a");
  EXPECT_THAT(Waiting(), ElementsAre("1_a", "2_a", "3_a", "4_a"));
  Take("2_a");
  EXPECT_THAT(Files(), UnorderedElementsAre("1_a", ".playing.2_a", "3_a", "4_a"));
}

TEST_F(QueueTest, HiddenFilesOfAnEarlierPlayerWaitInTheirPlaces) {
  for (const char* const name : {".waiting.2_a", ".playing.1_a", "3_a", ".playing.9_x", ".4_a"}) {
    Deliver(name);
  }
  EXPECT_THAT(Waiting(), ElementsAre("1_a", "2_a", "3_a"));
}

TEST_F(QueueTest, NameThatIsUsedAgainReplacesNoHiddenFile) {
  for (int round = 0; round < 3; ++round) {
    Deliver("1_a", 1000 + round);
    Waiting();
    for (const Piece& piece : queue->Waiting()) {
      if (!piece.IsHidden()) {
        queue->MoveAside(piece);
        break;
      }
    }
  }
  EXPECT_THAT(Files(), UnorderedElementsAre(".waiting.1_a", ".waiting.1.1_a", ".waiting.2.1_a"));
  Restart();
  EXPECT_THAT(Waiting(), ElementsAre("1_a", "1_a", "1_a"));
}

TEST_F(QueueTest, LongestNamesCanBeHidden) {
  const std::string id(255 - strlen("1_.text_live_cont.raw"), 'a');
  const std::string name = "1_" + id + ".text_live_cont.raw";
  for (int round = 0; round < 2; ++round) {
    Deliver(name, 1000 + round);
    Waiting();
    queue->PutBack(Take(name));
    Waiting();
  }
  Restart();
  Waiting();
  EXPECT_EQ(2U, queue->Waiting().size());
  for (const Piece& piece : queue->Waiting()) {
    EXPECT_EQ(id, piece.parts.id);
  }
}

TEST_F(QueueTest, OnlyFilesThatWereMovedAsideAreRemovedWithTheRest) {
  for (const char* const name : {"1_a", "2_a", "3_a"}) {
    Deliver(name);
  }
  Waiting();
  queue->MoveAside(Named("2_a"));
  queue->PutBack(Take("1_a"));
  queue->RemoveMovedAside();
  EXPECT_THAT(Waiting(), ElementsAre("1_a", "3_a"));
  EXPECT_THAT(Files(), UnorderedElementsAre(".playing.1_a", "3_a"));
}

TEST_F(QueueTest, DoesNotWaitForALock) {
  Deliver("1_a");
  Waiting();
  Deliver("2_a");
  const int other = open(directory.path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, flock(other, LOCK_EX));
  Piece taken;
  EXPECT_FALSE(queue->Update());
  EXPECT_EQ(Queue::Result::kLocked, queue->Take(Named("1_a"), taken));
  EXPECT_EQ(Queue::Result::kLocked, queue->MoveAside(Named("1_a")));
  close(other);
  EXPECT_THAT(Waiting(), ElementsAre("1_a", "2_a"));
}

TEST_F(QueueTest, FileThatVanishesAtTheLastMomentIsForgotten) {
  Deliver("1_a");
  Waiting();
  unlink((directory / "1_a").c_str());
  Piece taken;
  EXPECT_EQ(Queue::Result::kGone, queue->Take(Named("1_a"), taken));
  EXPECT_THAT(Waiting(), IsEmpty());
}

TEST_F(QueueTest, FailuresNameThePath) {
  EXPECT_EQ(directory / "x is not a directory",
            ThrownText([&] { Queue(directory / "x", [](const std::string&) { return true; }); }));
  const std::string path = directory.MakeDirectory("out");
  Queue other(path, [](const std::string&) { return true; });
  directory.Write("out/1_a", "");
  other.Update();
  ASSERT_EQ(0, rename(path.c_str(), (directory / "moved").c_str()));
  EXPECT_EQ(path + " is gone", ThrownText([&] { other.Update(); }));
}

}  // namespace

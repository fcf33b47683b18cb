// Failures of the local directory.

#include <signal.h>
#include <sys/resource.h>

#include "mirror_fixtures.h"
#include "stand_ins/files.h"

namespace {

class MirrorLocalTest : public MirrorTest {
 protected:
  ~MirrorLocalTest() override { stand_ins::files = {}; }

  void Fill(const std::string& name_) const { stand_ins::files.full_file = directory / name_; }

  void Replace() const {
    ASSERT_EQ(0, system(("rm -r " + directory.path).c_str()));
    ASSERT_EQ(0, mkdir(directory.path.c_str(), 0755));
  }

  std::string Trouble(const std::string& reason_ = "No space left on device") const {
    return "cannot write to " + directory.path + ": " + reason_ + "\n";
  }
};

TEST_F(MirrorLocalTest, FullMemoryFileCausesNoRepetition) {
  Run(20);
  Fill(".helper.delivered");
  server.Put("a", "A.");
  EXPECT_EQ(Trouble(), Run(20));
  EXPECT_EQ(Files(), Local());
  stand_ins::files = {};
  EXPECT_EQ("can write files again\n", Run(20));
  EXPECT_EQ("A.", TakeLocal("a"));
  Start();
  EXPECT_EQ("", Run(20));
  EXPECT_EQ(Files(), Local());
}

TEST_F(MirrorLocalTest, IncompleteLineOfTheMemoryFileIsIgnored) {
  Run(20);
  server.Put("a", "A.");
  Run(20);
  TakeLocal("a");
  const std::string memory = ReadFile(directory / ".helper.delivered");
  EXPECT_EQ('\n', memory.back());
  server.calls.clear();
  for (size_t length = 0; length <= memory.size(); ++length) {
    SCOPED_TRACE(length);
    mirror.reset();
    directory.Write(".helper.delivered", memory.substr(0, length));
    Run(20);
    EXPECT_EQ(length < memory.size() ? 1U : 0U, Local().size());
    unlink((directory / "a").c_str());
  }
}

TEST_F(MirrorLocalTest, LineOfTheMemoryFileMayBeWrittenInPart) {
  const std::string longest(255, 'a');  // The limit applies to the captured log, too.
  server.Put(longest, "A.");
  Run(20);
  TakeLocal(longest);
  struct rlimit limit {};
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &limit));
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = ReadFile(directory / ".helper.delivered").size() + 20;
  signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
  server.Put("b", "B.");
  EXPECT_EQ(Trouble("File too large"), Run(20));
  limit.rlim_cur = before;
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
  EXPECT_EQ("can write files again\n", Run(20));
  EXPECT_EQ("B.", TakeLocal("b"));
  Start();
  Run(20);
  EXPECT_EQ(Files(), Local());
}

TEST_F(MirrorLocalTest, MemoryFileStaysSmall) {
  settings.poll_seconds = 1;
  settings.settle_seconds = 0;
  struct stat status {};
  for (int i = 0; i < 1500; ++i) {
    server.Put("a", "A.", std::to_string(i));
    Run(2);
    ASSERT_EQ("A.", TakeLocal("a")) << i;
    ASSERT_EQ(0, stat((directory / ".helper.delivered").c_str(), &status));
    ASSERT_GT(70'000, status.st_size) << i;
  }
}

TEST_F(MirrorLocalTest, HiddenFilesOfAnotherProcessAreRemoved) {
  server.Put("a", std::string(1000, 'x'));
  server.seconds["a"] = 3;
  Run(10);
  EXPECT_TRUE(Exists(directory / ".helper.part.1"));
  Start();
  EXPECT_FALSE(Exists(directory / ".helper.part.1"));
}

TEST_F(MirrorLocalTest, HiddenFileIsRemovedWithItsRemoteFile) {
  server.Put("a", std::string(1000, 'x'));
  server.seconds["a"] = 3;
  Run(10);
  EXPECT_TRUE(Exists(directory / ".helper.part.1"));
  server.files.clear();
  Run(10);
  EXPECT_FALSE(Exists(directory / ".helper.part.1"));
}

TEST_F(MirrorLocalTest, MissingDirectoryIsReportedOnce) {
  Run(20);
  ASSERT_EQ(0, system(("rm -r " + directory.path).c_str()));
  EXPECT_EQ(Trouble("No such file or directory"), Run(20));
  ASSERT_EQ(0, mkdir(directory.path.c_str(), 0755));
  EXPECT_EQ("can write files again\n", Run(20));
}

TEST_F(MirrorLocalTest, ReplacedDirectoryGetsTheMemoryFileAgain) {
  server.Put("a", "A.");
  Run(20);
  TakeLocal("a");
  Replace();
  EXPECT_EQ("", Run(20));
  Start();
  EXPECT_EQ("", Run(20));
  EXPECT_EQ(Files(), Local());
}

TEST_F(MirrorLocalTest, CopyThatVanishedWithItsDirectoryCountsAsNotTaken) {
  settings.auto_delete = true;
  server.Put("a", "A.");
  Run(20);
  Replace();
  EXPECT_EQ("", Run(20));
  EXPECT_EQ(0, server.Count("delete"));
  EXPECT_EQ("A.", TakeLocal("a"));
  Run(20);
  EXPECT_EQ(1, server.Count("delete"));
}

TEST_F(MirrorLocalTest, DeliveryIsCompletedWhenItsNameIsFree) {
  Run(20);
  directory.MakeDirectory("a");
  server.Put("a", "A.");
  EXPECT_EQ(Trouble("Is a directory"), Run(20));
  ASSERT_EQ(0, rmdir((directory / "a").c_str()));
  EXPECT_EQ("can write files again\n", Run(20));
  EXPECT_EQ("A.", TakeLocal("a"));
  EXPECT_EQ(1, server.Count("fetch"));
  Run(20);
  EXPECT_EQ(Files(), Local());
}

TEST_F(MirrorLocalTest, BeatsGoOnWhenTheirFilesAreRemoved) {
  Run(20);
  for (const char* const name : {".helper.timestamp", ".helper.timestamp.new"}) {
    const std::string before = BeatText();
    ASSERT_EQ(0, unlink((directory / name).c_str())) << name;
    EXPECT_EQ("", Look());
    EXPECT_EQ(before.size(), BeatText().size()) << name;
    EXPECT_NE(before, BeatText()) << name;
    EXPECT_EQ("", Run(20));
  }
}

TEST_F(MirrorLocalTest, BeatThatCannotBeWrittenIsReported) {
  Run(20);
  unlink((directory / ".helper.timestamp.new").c_str());
  directory.MakeDirectory(".helper.timestamp.new");
  EXPECT_EQ(Trouble("Is a directory"), Run(20));
}

}  // namespace

#include "health.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_util.h"

namespace {

Health Example() {
  Health health;
  health.station = getpid();
  health.daemon = 812;
  health.is_hung = true;
  health.saying = "lobby/train";
  health.counters = {{"messages", 5000000000}, {"pieces", 0}};
  health.problems = {{"player", "No <player> says \"hello\" & runs.", "Start it.", 5000000000},
                     {"not-queued:lobby/x", "two\nlines", "", 0}};
  return health;
}

TEST(HealthTest, IsReadAsItWasWritten) {
  const TemporaryDirectory directory;
  WriteHealth(directory / "health", Example());
  const Health read = ReadHealth(directory / "health");
  EXPECT_EQ(getpid(), read.station);
  EXPECT_LT(0, read.station_start);
  EXPECT_EQ(812, read.daemon);
  EXPECT_TRUE(read.is_hung);
  EXPECT_EQ("lobby/train", read.saying);
  EXPECT_EQ(Example().counters, read.counters);
  ASSERT_EQ(2u, read.problems.size());
  EXPECT_EQ("player", read.problems[0].id);
  EXPECT_EQ("No <player> says \"hello\" & runs.", read.problems[0].sentence);
  EXPECT_EQ("Start it.", read.problems[0].remedy);
  EXPECT_EQ(5000000000, read.problems[0].since);
  EXPECT_EQ("two?lines", read.problems[1].sentence);
  EXPECT_FALSE(Exists(directory / "health.new"));
}

// A directory with the name of the new file replaces a full file system.
TEST(HealthTest, OverwritesTheOldFileIfANewOneCannotBeMade) {
  const TemporaryDirectory directory;
  WriteHealth(directory / "health", Example());
  struct stat first {};
  ASSERT_EQ(0, stat((directory / "health").c_str(), &first));
  ASSERT_EQ(0, mkdir((directory / "health.new").c_str(), 0777));
  Health shorter = Example();
  shorter.problems.pop_back();
  Health longer = Example();
  longer.problems.push_back({"output-full", std::string(3000, 'x'), "Remove files.", 1});
  for (const Health& health : {shorter, longer, Example()}) {
    WriteHealth(directory / "health", health);
    EXPECT_EQ(health.problems.size(), ReadHealth(directory / "health").problems.size());
  }
  struct stat last {};
  ASSERT_EQ(0, stat((directory / "health").c_str(), &last));
  EXPECT_EQ(first.st_ino, last.st_ino);
  EXPECT_EQ(first.st_blocks, last.st_blocks);
  ASSERT_EQ(0, rmdir((directory / "health.new").c_str()));
}

TEST(HealthTest, RecordsKeepTheirNamesStatesAndNumbers) {
  const TemporaryDirectory directory;
  for (const char* file : {"train", "a&b", "\" b=\"c", "</health>", "it's", "\xc3\xa4"}) {
    for (int state = MessageRecord::kWaiting; state <= MessageRecord::kHeard; ++state) {
      SCOPED_TRACE(testing::Message() << file << " " << state);
      Health health;
      health.messages = {{"lobby", file, static_cast<MessageRecord::State>(state), 2, 1, 3, 4}};
      WriteHealth(directory / "health", health);
      const Health read = ReadHealth(directory / "health");
      ASSERT_EQ(1u, read.messages.size());
      const MessageRecord& record = read.messages[0];
      EXPECT_EQ("lobby", record.directory);
      EXPECT_EQ(file, record.file);
      EXPECT_EQ(state, record.state);
      EXPECT_EQ(2, record.pieces);
      EXPECT_EQ(1, record.failed);
      EXPECT_EQ(3, record.arrived);
      EXPECT_EQ(4, record.ended);
    }
  }
}

TEST(HealthTest, ReplacesCharactersInNamesThatXmlDoesNotAllow) {
  const TemporaryDirectory directory;
  Health health;
  health.messages.resize(1);
  health.messages[0].file = "a\tb\xff";
  WriteHealth(directory / "health", health);
  EXPECT_EQ("a?b\xef\xbf\xbd", ReadHealth(directory / "health").messages[0].file);
}

TEST(HealthTest, StationRunsAsLongAsItsProcess) {
  const TemporaryDirectory directory;
  const auto is_running = [&](int station_) {
    Health health;
    health.station = station_;
    WriteHealth(directory / "health", health);
    return IsStationRunning(ReadHealth(directory / "health"));
  };
  EXPECT_TRUE(is_running(getpid()));
  EXPECT_TRUE(is_running(1));  // Even if it belongs to another user.
  EXPECT_FALSE(is_running(0));
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  ASSERT_LT(0, child);
  ASSERT_EQ(child, waitpid(child, nullptr, 0));
  EXPECT_FALSE(is_running(child));
}

TEST(HealthTest, StoppedStationDoesNotRun) {
  const TemporaryDirectory directory;
  const pid_t child = fork();
  if (child == 0) {
    raise(SIGSTOP);
    _exit(0);
  }
  ASSERT_EQ(child, waitpid(child, nullptr, WUNTRACED));
  Health health;
  health.station = child;
  WriteHealth(directory / "health", health);
  const Health read = ReadHealth(directory / "health");
  EXPECT_TRUE(IsStationStopped(read));
  EXPECT_FALSE(IsStationRunning(read));
  kill(child, SIGCONT);
  ASSERT_EQ(child, waitpid(child, nullptr, 0));
  EXPECT_FALSE(IsStationStopped(read));
}

TEST(HealthTest, ProcessWithAnotherStartTimeIsNotTheStation) {
  const TemporaryDirectory directory;
  WriteHealth(directory / "health", Example());
  Health read = ReadHealth(directory / "health");
  EXPECT_TRUE(IsStationRunning(read));
  ++read.station_start;
  EXPECT_FALSE(IsStationRunning(read));
}

TEST(HealthTest, FailuresAreThrown) {
  const TemporaryDirectory directory;
  const std::string health =
      "<health daemon=\"0\" hung=\"0\" saying=\"\" station=\"1\" station-start=\"1\"";
  const std::string message =
      "<message arrived=\"0\" directory=\"\" ended=\"0\" failed=\"0\" file=\"\" pieces=\"0\" "
      "state=";
  EXPECT_EQ(1, ReadHealth(directory.Write("health", health + "/>")).station);
  for (const std::string& text :
       {std::string(), std::string("<tts-status/>"), std::string("<health/>"), health + "<",
        health + ">" + message + "\"?\"/></health>"}) {
    SCOPED_TRACE(text);
    const std::string path = directory.Write("health", text);
    EXPECT_THROW(ReadHealth(path), std::string);
  }
  EXPECT_THROW(ReadHealth(directory / "none"), std::string);
  const std::string path = directory.Write("file", "") + "/x";
  EXPECT_EQ("cannot write " + path + ": Not a directory",
            ThrownText([&] { WriteHealth(path, {}); }));
}

}  // namespace

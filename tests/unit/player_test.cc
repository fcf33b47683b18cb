#include "player.h"

#include <fcntl.h>
#include <sys/file.h>

#include "clock.h"
#include "player_fixtures.h"
#include "playerstate.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr int kRate = 1000;  // A block has 20 samples.

// Takes as many samples as the test allows.
class FakeSink : public Sink {
 public:
  void Open() override {
    if (is_missing) {
      throw DeviceLost{"no sound device"};
    }
  }
  size_t Write(const int16_t* samples_, size_t count_) override {
    Open();
    const size_t count = std::min(count_, room);
    room -= count;
    sound.insert(sound.end(), samples_, samples_ + count);
    return count;
  }
  void Check() override { Open(); }
  size_t Tail() const override { return tail; }

  bool is_missing = false;
  size_t room = SIZE_MAX;
  size_t tail = 0;
  std::vector<int16_t> sound;
};

// Samples of this value.
std::vector<int16_t> Of(int16_t value_, size_t count_) { return {std::vector(count_, value_)}; }

std::vector<int16_t> operator+(std::vector<int16_t> a_, const std::vector<int16_t>& b_) {
  a_.insert(a_.end(), b_.begin(), b_.end());
  return a_;
}

class PlayerTest : public testing::Test {
 protected:
  PlayerTest() {
    options.rate = kRate;
    options.is_verbose = true;
    options.state_path = directory / "state";
    directory.MakeDirectory("out");
    Configure(kConfiguration);
  }

  void Configure(const std::string& text_) { directory.Write("config", text_); }

  // Delivers a file whose samples all have this value. The lock or the rename makes it complete for
  // the player.
  void Deliver(const std::string& name_, int16_t value_, size_t count_ = 100) {
    const std::vector<int16_t> samples(count_, value_);
    directory.Write("new", {reinterpret_cast<const char*>(samples.data()), 2 * count_});
    ASSERT_EQ(0, rename((directory / "new").c_str(), (directory / "out/" + name_).c_str()));
  }

  void Start() {
    player.reset();
    queue = std::make_unique<Queue>(directory / "out",
                                    [](const std::string& id_) { return id_ != "other"; });
    urgency = std::make_unique<Urgency>(directory / "config", directory / "status");
    player = std::make_unique<Player>(options, *queue, *urgency, sink);
  }

  // Runs the player until is_reached_. Returns its printed lines.
  std::string Run(const std::function<bool()>& is_reached_) {
    return OutputOf([&] {
      log += LogOf([&] {
        SetDebugMask(0);
        for (const double deadline = Now() + 60; !is_reached_();) {
          ASSERT_LT(Now(), deadline);
          player->Step();
          Nap(1);
        }
      });
    });
  }
  // Runs until so many samples were written, and allows no more. The next 20 samples wait in the
  // player.
  std::string Hear(size_t count_) {
    sink.room = count_ - sink.sound.size();
    return Run([&] { return sink.room == 0; });
  }
  std::string FinishAll() {
    sink.room = SIZE_MAX;
    return Run([&] { return player->IsDone(); });
  }
  // Plays all waiting files in one run.
  std::string PlayAll() {
    options.until_empty = true;
    Start();
    return FinishAll();
  }

  std::string Files() const {
    FILE* const listing =
        popen(("cd " + directory.path + "/out && ls -A | tr '\\n' ' '").c_str(), "r");
    char line[256] = {};
    const size_t count = fread(line, 1, sizeof(line), listing);
    pclose(listing);
    return std::string(line, count);
  }

  const TemporaryDirectory directory;
  PlayerOptions options;
  FakeSink sink;
  std::unique_ptr<Queue> queue;
  std::unique_ptr<Urgency> urgency;
  std::unique_ptr<Player> player;  // Uses the others.
  std::string log;
};

// The fading end of samples of that value.
std::vector<int16_t> Fading(int16_t value_) {
  std::vector<int16_t> samples;
  for (int i = 19; i >= 0; --i) {
    samples.push_back(static_cast<int16_t>(value_ * i / 20));
  }
  return samples;
}

TEST_F(PlayerTest, PlaysByPriorityAndThenByNumber) {
  Deliver("1_lobby.raw", 1);
  Deliver("2_unknown.raw", 2);
  Deliver("3_alarm.raw", 3);
  Deliver("4_hall.raw", 4);
  Deliver("5_alarm.raw", 5);
  Deliver("6_lobby.raw", 6, 0);
  EXPECT_THAT(PlayAll(), HasSubstr("playing 3_alarm.raw\nplaying 5_alarm.raw\nplaying 4_hall.raw\n"
                                   "playing 1_lobby.raw\nplaying 6_lobby.raw\n"
                                   "playing 2_unknown.raw\n"));
  EXPECT_EQ(Of(3, 100) + Of(5, 100) + Of(4, 100) + Of(1, 100) + Of(2, 100), sink.sound);
  EXPECT_EQ("", Files());
}

TEST_F(PlayerTest, MoreUrgentFileInterrupts) {
  options.until_empty = true;
  Deliver("1_lobby.text_live_first.raw", 1000);
  Deliver("2_lobby.text_live_cont.raw", 2000);
  Start();
  Hear(140);
  Deliver("3_alarm.text_live_first.raw", 3000);
  EXPECT_EQ(
      "playing 3_alarm.text_live_first.raw\nplaying 2_lobby.text_live_cont.raw\n"
      "finished alarm files=1 seconds=0.10 interruptions=0\n"
      "finished lobby files=2 seconds=0.20 interruptions=1\n",
      FinishAll());
  EXPECT_EQ(Of(1000, 100) + Of(2000, 60) + Fading(2000) + Of(3000, 100) + Of(2000, 100),
            sink.sound);
}

TEST_F(PlayerTest, EquallyUrgentFileDoesNotInterrupt) {
  options.until_empty = true;
  Deliver("1_lobby.raw", 1000);
  Start();
  Hear(60);
  Deliver("0_lobby.raw", 2000);
  FinishAll();
  EXPECT_EQ(Of(1000, 100) + Of(2000, 100), sink.sound);
}

TEST_F(PlayerTest, LastSamplesOfAFileAreNotInterrupted) {
  options.until_empty = true;
  Deliver("1_lobby.raw", 1000, 90);
  Start();
  Hear(80);
  Deliver("2_alarm.raw", 2000);
  EXPECT_THAT(FinishAll(), HasSubstr("lobby files=1 seconds=0.09 interruptions=0\n"));
  EXPECT_EQ(Of(1000, 90) + Of(2000, 100), sink.sound);
}

TEST_F(PlayerTest, InterruptionsNest) {
  options.until_empty = true;
  Deliver("1_lobby.raw", 1000);
  Start();
  Hear(40);
  Deliver("2_hall.raw", 2000);
  Hear(120);
  Deliver("3_alarm.raw", 3000);
  FinishAll();
  EXPECT_EQ(Of(1000, 60) + Fading(1000) + Of(2000, 60) + Fading(2000) + Of(3000, 100) +
                Of(2000, 100) + Of(1000, 100),
            sink.sound);
}

TEST_F(PlayerTest, AfterPieceLetsAFileEnd) {
  options.after_piece = true;
  options.until_empty = true;
  Deliver("1_lobby.raw", 1000);
  Deliver("2_lobby.raw", 2000);
  Start();
  Hear(40);
  Deliver("3_alarm.raw", 3000);
  FinishAll();
  EXPECT_EQ(Of(1000, 100) + Of(3000, 100) + Of(2000, 100), sink.sound);
}

TEST_F(PlayerTest, PlayerMakesRoomForAMoreUrgentMessage) {
  for (const char* const name : {"1_lobby.raw", "2_lobby.raw", "3_lobby.raw"}) {
    Deliver(name, 1000);
  }
  Start();
  Hear(40);
  EXPECT_EQ(".playing.1_lobby.raw 2_lobby.raw 3_lobby.raw ", Files());
  directory.Write("status", StatusText(10, "alarm", true));
  Run([&] { return Files() == ".playing.1_lobby.raw .waiting.3_lobby.raw 2_lobby.raw "; });
  // The daemon may not have scanned the directory yet.
  directory.Write("status", StatusText(11, "alarm", true));
  Run([&] { return urgency->Timestamp() == 11; });
  EXPECT_EQ(".playing.1_lobby.raw .waiting.3_lobby.raw 2_lobby.raw ", Files());
  directory.Write("status", StatusText(12, "alarm", true));
  Run([&] { return Files() == ".playing.1_lobby.raw .waiting.2_lobby.raw .waiting.3_lobby.raw "; });
}

TEST_F(PlayerTest, PlayerMakesNoRoomWithoutNeed) {
  Deliver("1_lobby.raw", 1000);
  Deliver("2_lobby.raw", 1000);
  Start();
  Hear(40);
  int timestamp = 10;
  const auto keeps = [&](const char* active_, bool is_output_bound_) {
    const std::string before = Files();
    timestamp += 10;
    directory.Write("status", StatusText(timestamp, active_, is_output_bound_));
    Run([&] { return urgency->Timestamp() == timestamp; });
    player->Step();
    return Files() == before;
  };
  EXPECT_TRUE(keeps("alarm", false));
  EXPECT_TRUE(keeps("", true));
  EXPECT_TRUE(keeps("news", true));
  directory.Write("out/3_other.raw", "");
  Configure(
      "<tts-config><directory id=\"alarm\" priority=\"1\"/>"
      "<directory id=\"other\" priority=\"1\"/></tts-config>");
  Run([&] { return urgency->Of("other") == 1; });
  EXPECT_TRUE(keeps("alarm", true));
  unlink((directory / "out/3_other.raw").c_str());
  const std::string before = Files();
  Run([&] { return queue->OtherIds().empty(); });
  keeps("alarm", true);  // The player made room when it saw that the other file was gone.
  EXPECT_NE(before, Files());
}

TEST_F(PlayerTest, FileThatWasMovedAsideIsPlayedInItsPlaceAfterAKill) {
  Deliver("1_lobby.raw", 1);
  Deliver("2_lobby.raw", 2);
  Deliver("3_lobby.raw", 3);
  Start();
  Hear(40);
  directory.Write("status", StatusText(10, "alarm", true));
  Run([&] { return Files() == ".playing.1_lobby.raw .waiting.3_lobby.raw 2_lobby.raw "; });
  Deliver("4_lobby.raw", 4);
  unlink((directory / "status").c_str());
  sink.sound.clear();
  PlayAll();
  EXPECT_EQ(Of(1, 100) + Of(2, 100) + Of(3, 100) + Of(4, 100), sink.sound);
  EXPECT_EQ("", Files());
}

TEST_F(PlayerTest, FileThatWasMovedAsideIsRemovedWhenTheDaemonStops) {
  Deliver("1_lobby.raw", 1);
  Deliver("2_lobby.raw", 2);
  Start();
  Hear(40);
  directory.Write("status", StatusText(10, "alarm", true));
  Run([&] { return Files() == ".playing.1_lobby.raw .waiting.2_lobby.raw "; });
  directory.Write("status", StatusText(13, "", false, "stop"));
  Run([&] { return Files() == ".playing.1_lobby.raw "; });
}

TEST_F(PlayerTest, WaitsAMomentForTheRestOfAnUrgentMessage) {
  options.until_empty = true;
  directory.Write("status", StatusText(10, "alarm", false));
  Deliver("1_alarm.text_live_first.raw", 1000);
  Deliver("2_lobby.raw", 2000);
  Start();
  Run([&] { return sink.sound.size() >= 100; });
  EXPECT_EQ(100U, sink.sound.size());
  Deliver("3_alarm.text_live_cont.raw", 3000);
  FinishAll();
  EXPECT_EQ(Of(1000, 100) + Of(3000, 100) + Of(2000, 100), sink.sound);
}

TEST_F(PlayerTest, NothingIsTakenWithoutADevice) {
  sink.is_missing = true;
  options.until_empty = true;
  Deliver("1_lobby.raw", 1000);
  Start();
  const double start = Now();
  Run([&] { return Now() - start > 2.5; });
  EXPECT_EQ("1_lobby.raw ", Files());
  EXPECT_EQ("player: no sound device\n", log);
  EXPECT_FALSE(ReadPlayerState(directory / "state").device_ok);
  sink.is_missing = false;
  FinishAll();
  EXPECT_EQ(Of(1000, 100), sink.sound);
  EXPECT_EQ("player: no sound device\nplayer: the sound device is back\n", log);
  EXPECT_TRUE(ReadPlayerState(directory / "state").device_ok);
  EXPECT_EQ(kRate, ReadPlayerState(directory / "state").rate);
  EXPECT_EQ("no sound device", ReadPlayerState(directory / "state").problem);
}

TEST_F(PlayerTest, VanishedDeviceLosesNoFile) {
  options.until_empty = true;
  Deliver("1_lobby.raw", 1000);
  Deliver("2_lobby.raw", 2000);
  Start();
  Hear(40);
  sink.is_missing = true;
  sink.room = SIZE_MAX;
  Run([&] { return !ReadPlayerState(directory / "state").device_ok; });
  EXPECT_EQ("player: no sound device\n", log);
  sink.is_missing = false;
  sink.sound.clear();
  EXPECT_THAT(FinishAll(), HasSubstr("lobby files=2 seconds=0.20 interruptions=1\n"));
  EXPECT_EQ(Of(1000, 100) + Of(2000, 100), sink.sound);
}

TEST_F(PlayerTest, DeviceThatVanishesInSilenceIsReported) {
  Start();
  player->Step();
  sink.is_missing = true;
  Run([&] { return !ReadPlayerState(directory / "state").device_ok; });
  EXPECT_EQ("player: no sound device\n", log);
}

TEST_F(PlayerTest, UnreadableFileIsRemovedAndReported) {
  directory.Write("out/1_lobby.wav", "RIFF, but nothing more");
  Deliver("2_lobby.raw", 2);
  PlayAll();
  EXPECT_EQ(Of(2, 100), sink.sound);
  EXPECT_THAT(log, HasSubstr("player: cannot read the sound of 1_lobby.wav: "));
  EXPECT_EQ("", Files());
}

TEST_F(PlayerTest, VolumeScalesTheSound) {
  Deliver("1_lobby.raw", -1000);
  options.volume = 25;
  PlayAll();
  EXPECT_EQ(Of(-250, 100), sink.sound);
}

TEST_F(PlayerTest, TailFollowsTheLastSound) {
  sink.tail = 30;
  Deliver("1_lobby.raw", 1);
  Deliver("2_lobby.raw", 2);
  PlayAll();
  EXPECT_EQ(Of(1, 100) + Of(2, 100) + Of(0, 30), sink.sound);
}

TEST_F(PlayerTest, CommandsRunAroundSound) {
  const std::string path = directory / "commands";
  options.begin = "echo begin >>" + path;
  options.end = "echo end >>" + path + "; exit 3";
  Deliver("1_lobby.raw", 1);
  Deliver("2_lobby.raw", 2);
  Start();
  Run([&] { return sink.sound.size() == 200; });
  EXPECT_EQ("begin\n", ReadFile(path));
  Run([&] { return ReadFile(path) == "begin\nend\n"; });
  Run([&] { return !ReadPlayerState(directory / "state").problem.empty(); });
  EXPECT_EQ("player: --end: exit status 3\n", log);
  Deliver("3_lobby.raw", 3);
  Run([&] { return sink.sound.size() == 300; });
  LogOf([&] { player.reset(); });
  EXPECT_EQ("begin\nend\nbegin\nend\n", ReadFile(path));
}

TEST_F(PlayerTest, StateHasPlayingAndWaitingFiles) {
  options.device = "speaker";
  Deliver("1_lobby.raw", 1);
  Deliver("2_lobby.raw", 2);
  Deliver("3_hall.raw", 3);
  Start();
  Hear(40);
  const PlayerState state = ReadPlayerState(directory / "state");
  EXPECT_EQ("3_hall.raw", state.playing);
  EXPECT_THAT(state.waiting, ElementsAre("1_lobby.raw", "2_lobby.raw"));
  EXPECT_EQ("speaker", state.device);
  EXPECT_EQ(getpid(), state.pid);
  EXPECT_EQ("", state.problem);
  EXPECT_LE(time(nullptr) - 60, state.since);
  // The file is written on a change only.
  directory.Write("state", "");
  Hear(60);
  EXPECT_EQ("", ReadFile(directory / "state"));
}

TEST_F(PlayerTest, StateThatCannotBeWrittenIsReportedOnce) {
  options.state_path = directory / "none/state";
  Deliver("1_lobby.raw", 1);
  Deliver("2_lobby.raw", 2);
  PlayAll();
  EXPECT_EQ(Of(1, 100) + Of(2, 100), sink.sound);
  EXPECT_EQ("player: cannot write " + options.state_path + ": No such file or directory\n", log);
}

TEST_F(PlayerTest, UnreadableConfigurationIsReportedOnceAndTheOldOneKept) {
  Configure("<other/>");
  Deliver("1_lobby.raw", 1);
  Deliver("2_alarm.raw", 2);
  PlayAll();
  EXPECT_EQ(Of(1, 100) + Of(2, 100), sink.sound);
  EXPECT_EQ(1, std::count(log.begin(), log.end(), '\n')) << log;
}

TEST_F(PlayerTest, SoundGoesOnWhileAnotherProcessHoldsTheLock) {
  Deliver("1_lobby.raw", 1);
  Deliver("2_lobby.raw", 2);
  Start();
  Hear(40);
  const int other = open((directory / "out").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, flock(other, LOCK_EX));
  sink.room = SIZE_MAX;
  Run([&] { return sink.sound.size() == 100; });
  EXPECT_LE(player->Step(), 5);
  sink.is_missing = true;
  Run([&] { return !ReadPlayerState(directory / "state").device_ok; });
  close(other);
  Run([&] { return player->Step() > 100; });  // Waits until no work is left to do soon.
  sink.is_missing = false;
  Run([&] { return sink.sound.size() == 200; });
}

}  // namespace

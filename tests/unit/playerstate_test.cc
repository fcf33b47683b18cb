#include "playerstate.h"

#include "test_util.h"

namespace {

TEST(PlayerStateTest, IsReadAsItWasWritten) {
  const TemporaryDirectory directory;
  PlayerState state;
  state.pid = 4711;
  state.playing = "7_a&\"b\".text_live_cont.raw";
  state.since = 5000000000;
  state.waiting = {"8_lobby.raw", "9_lobby.raw"};
  state.device = "plughw:1,0";
  state.device_ok = false;
  state.rate = 16000;
  state.problem = "two\nlines";
  state.problem_time = 4999999999;
  WritePlayerState(directory / "state", state);
  const PlayerState read = ReadPlayerState(directory / "state");
  EXPECT_EQ(state.pid, read.pid);
  EXPECT_EQ(state.playing, read.playing);
  EXPECT_EQ(state.since, read.since);
  EXPECT_EQ(state.waiting, read.waiting);
  EXPECT_EQ(state.device, read.device);
  EXPECT_FALSE(read.device_ok);
  EXPECT_EQ(16000, read.rate);
  EXPECT_EQ("two?lines", read.problem);
  EXPECT_EQ(state.problem_time, read.problem_time);
  EXPECT_FALSE(Exists(directory / "state.new"));
}

TEST(PlayerStateTest, ReplacesTheFileByARename) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("state", "before");
  ASSERT_EQ(0, link(path.c_str(), (directory / "other").c_str()));
  WritePlayerState(path, {});
  EXPECT_EQ("before", ReadFile(directory / "other"));
  EXPECT_EQ(
      "<player-state device=\"\" device-ok=\"1\" pid=\"0\" playing=\"\" problem=\"\" "
      "problem-time=\"0\" rate=\"0\" since=\"0\"/>\n",
      ReadFile(path));
}

TEST(PlayerStateTest, FailuresNameTheFile) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("state", "<tts-status/>\n");
  EXPECT_EQ(path + ": holds no player's state", ThrownText([&] { ReadPlayerState(path); }));
  EXPECT_EQ(path + "x: No such file or directory",
            ThrownText([&] { ReadPlayerState(path + "x"); }));
  EXPECT_EQ("cannot write " + path + "/x: Not a directory",
            ThrownText([&] { WritePlayerState(path + "/x", {}); }));
}

TEST(PlayerStateTest, EachZoneHasAFile) {
  const TemporaryDirectory run;
  EXPECT_EQ(std::vector<std::string>{""}, PlayerZones(run.path + "/none"));
  for (const char* name : {"player-yard", "player-", "player.new", "player-hall.new", "players"}) {
    run.Write(name, "");
  }
  PlayerState state;
  state.pid = 4711;
  WritePlayerState(PlayerPath(run.path, "hall"), state);
  EXPECT_TRUE(Exists(run / "player-hall"));
  EXPECT_EQ((std::vector<std::string>{"", "hall", "yard"}), PlayerZones(run.path));
  const std::map<std::string, PlayerState> states = ReadPlayerStates(run.path);
  ASSERT_EQ(1U, states.size());
  EXPECT_EQ(4711, states.at("hall").pid);
}

}  // namespace

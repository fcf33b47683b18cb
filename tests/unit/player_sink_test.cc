#include <alsa/asoundlib.h>

#include "clock.h"
#include "sink.h"
#include "test_util.h"

using ::testing::ElementsAre;

// --- An ALSA device of the test ---

namespace {

struct Device {
  int open_error = 0;
  // Results of the next writes. After these, all samples are taken.
  std::vector<snd_pcm_sframes_t> results;
  std::vector<int16_t> sound;
  int opened = 0;
  int closed = 0;
  int prepared = 0;
  snd_pcm_state_t state = SND_PCM_STATE_RUNNING;
} device;

snd_pcm_t* const kHandle = reinterpret_cast<snd_pcm_t*>(&device);

}  // namespace

int snd_pcm_open(snd_pcm_t** pcm_, const char*, snd_pcm_stream_t, int) {
  device.opened += device.open_error == 0 ? 1 : 0;
  *pcm_ = device.open_error == 0 ? kHandle : nullptr;
  return device.open_error;
}
int snd_pcm_set_params(snd_pcm_t*, snd_pcm_format_t, snd_pcm_access_t, unsigned int, unsigned int,
                       int, unsigned int) {
  return 0;
}
snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t*, const void* samples_, snd_pcm_uframes_t count_) {
  auto result = static_cast<snd_pcm_sframes_t>(count_);
  if (!device.results.empty()) {
    result = device.results.front();
    device.results.erase(device.results.begin());
  }
  const auto* samples = static_cast<const int16_t*>(samples_);
  device.sound.insert(device.sound.end(), samples,
                      samples + std::max<snd_pcm_sframes_t>(0, result));
  return result;
}
int snd_pcm_prepare(snd_pcm_t*) {
  ++device.prepared;
  return 0;
}
snd_pcm_state_t snd_pcm_state(snd_pcm_t*) { return device.state; }
int snd_pcm_close(snd_pcm_t*) {
  ++device.closed;
  return 0;
}

namespace {

constexpr int16_t kSamples[] = {1, 2, 3};

class AlsaSinkTest : public testing::Test {
 protected:
  AlsaSinkTest() {
    device = {};
    sink = MakeAlsaSink("speaker", 22050);
  }
  size_t Write() { return sink->Write(kSamples, 3); }
  std::string LostBy(const std::function<void()>& action_) {
    try {
      action_();
    } catch (const DeviceLost& lost) {
      return lost.reason;
    }
    return "";
  }
  std::unique_ptr<Sink> sink;
};

TEST_F(AlsaSinkTest, WritesAsManySamplesAsTheDeviceTakes) {
  sink->Open();
  device.results = {3, -EAGAIN, 1};
  EXPECT_EQ(3U, Write());
  EXPECT_EQ(0U, Write());
  EXPECT_EQ(1U, Write());
  EXPECT_THAT(device.sound, ElementsAre(1, 2, 3, 1));
  sink.reset();
  EXPECT_EQ(1, device.closed);
}

TEST_F(AlsaSinkTest, DeviceThatRanDryOrWasSuspendedGoesOn) {
  sink->Open();
  device.results = {-EPIPE, 3, -ESTRPIPE, 3};
  EXPECT_EQ(3U, Write());
  EXPECT_EQ(3U, Write());
  EXPECT_EQ(2, device.prepared);
}

TEST_F(AlsaSinkTest, MissingDeviceIsTriedAgain) {
  device.open_error = -ENOENT;
  EXPECT_EQ("no sound device speaker: No such file or directory", LostBy([&] { sink->Open(); }));
  device.open_error = 0;
  sink->Open();
  EXPECT_EQ(3U, Write());
}

TEST_F(AlsaSinkTest, VanishedDeviceIsClosedAndCanComeBack) {
  for (const int error : {-ENODEV, -EIO}) {
    sink->Open();
    device.results = {error};
    EXPECT_EQ(std::string("no sound device speaker: ") + snd_strerror(error),
              LostBy([&] { Write(); }));
  }
  EXPECT_EQ(2, device.closed);
  sink->Open();
  device.state = SND_PCM_STATE_DISCONNECTED;
  EXPECT_EQ("no sound device speaker: No such device", LostBy([&] { sink->Check(); }));
  sink->Open();
  device.state = SND_PCM_STATE_XRUN;
  sink->Check();
  EXPECT_EQ(3U, Write());
}

TEST_F(AlsaSinkTest, DeviceThatTakesNothingIsLost) {
  sink->Open();
  device.results.assign(100000, -EAGAIN);
  std::string reason;
  for (const double deadline = Now() + 60; reason.empty() && Now() < deadline;) {
    reason = LostBy([&] { Write(); });
    Nap(10);
  }
  EXPECT_EQ("no sound device speaker: it takes no sound", reason);
}

// --- Others ---

TEST(PaceTest, LetsSamplesPassAtTheSpeedOfPlaying) {
  Pace pace(1000);
  const double start = Now();
  size_t passed = 0;
  for (size_t count = 0; passed < 300; passed += count) {
    count = pace.Pass(300 - passed);
    EXPECT_LE(static_cast<double>(passed + count), 1000 * (Now() - start) + 100);
  }
  pace.Drain();
  EXPECT_GE(Now() - start, 0.299);
}

void WriteAll(Sink& sink_, const std::vector<int16_t>& samples_) {
  EXPECT_EQ(samples_.size(), sink_.Write(samples_.data(), samples_.size()));
}

// Checks the sizes in the header, and all bytes after it.
void ExpectWav(const std::string& content_, const std::string& sound_) {
  const auto size = [&](size_t at_) {
    uint32_t value = 0;
    memcpy(&value, content_.data() + at_, sizeof(value));
    return value;
  };
  ASSERT_LE(44U, content_.size());
  EXPECT_EQ("RIFF", content_.substr(0, 4));
  EXPECT_EQ(content_.size() - 8, size(4));
  EXPECT_EQ("data", content_.substr(36, 4));
  EXPECT_EQ(content_.size() - 44, size(40));
  EXPECT_EQ(sound_, content_.substr(44));
}

TEST(WavSinkTest, HeaderIsRightAfterEveryWrite) {
  const TemporaryDirectory directory;
  const std::unique_ptr<Sink> sink = OpenWavSink(directory / "wav", 22050, false);
  ExpectWav(ReadFile(directory / "wav"), "");
  WriteAll(*sink, {0x6161});
  ExpectWav(ReadFile(directory / "wav"), "aa");
  WriteAll(*sink, {0x6262, 0x6363});
  ExpectWav(ReadFile(directory / "wav"), "aabbcc");
}

TEST(WavSinkTest, FileOfAnEarlierRunIsContinued) {
  const TemporaryDirectory directory;
  const std::string path = directory / "wav";
  WriteAll(*OpenWavSink(path, 22050, false), {0x6161});
  const std::string before = ReadFile(path);
  for (const char* const rest : {"", "x", "xyz"}) {  // Left by a killed run.
    directory.Write("wav", before + rest);
    WriteAll(*OpenWavSink(path, 22050, false), {0x6262, 0x6363});
    ExpectWav(ReadFile(path), "aabbcc");
  }
}

TEST(WavSinkTest, OtherFilesAreRefused) {
  const TemporaryDirectory directory;
  const std::string path = directory / "wav";
  OpenWavSink(path, 8000, false);
  const std::string before = ReadFile(path);
  const std::string why = path + " is not a WAV file of this player at 22050 Hz";
  EXPECT_EQ(why, ThrownText([&] { OpenWavSink(path, 22050, false); }));
  EXPECT_EQ(before, ReadFile(path));
  directory.Write("wav", "a letter to a friend");
  EXPECT_EQ(why, ThrownText([&] { OpenWavSink(path, 22050, false); }));
  EXPECT_EQ("a letter to a friend", ReadFile(path));
  EXPECT_EQ("cannot write /nonexistent/wav",
            ThrownText([&] { OpenWavSink("/nonexistent/wav", 22050, false); }));
}

TEST(WavSinkTest, EndsBeforeTheSizesOfTheHeaderOverflow) {
  const TemporaryDirectory directory;
  const std::string path = directory / "wav";
  OpenWavSink(path, 22050, false);
  std::string header = ReadFile(path);
  const uint32_t sound = UINT32_MAX - 36 - 3;  // There is room for one sample more.
  const uint32_t riff = sound + 36;
  memcpy(&header[4], &riff, sizeof(riff));
  memcpy(&header[40], &sound, sizeof(sound));
  directory.Write("wav", header);
  ASSERT_EQ(0, truncate(path.c_str(), off_t{44} + sound));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(path + " is full", ThrownText([&] {
                const auto sink = OpenWavSink(path, 22050, false);
                for (int i = 0; i < 2; ++i) {
                  WriteAll(*sink, {1});
                }
              }));
  }
}

TEST(WavSinkTest, FullDiskIsAnError) {
  EXPECT_NE("", ThrownText([&] {
              const auto sink = OpenWavSink("/dev/full", 22050, false);
              WriteAll(*sink, {1});
            }));
}

}  // namespace

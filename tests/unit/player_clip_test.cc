#include <math.h>
#include <sndfile.h>

#include "clip.h"
#include "test_util.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kRate = 22050;

std::vector<int16_t> Samples(const std::string& path_, size_t step_ = 441) {
  const std::unique_ptr<Clip> clip = OpenClip(path_, kRate);
  std::vector<int16_t> all;
  for (size_t count = step_; count == step_;) {
    std::vector<int16_t> some(step_);
    count = clip->Read(some.data(), step_);
    all.insert(all.end(), some.begin(), some.begin() + static_cast<ptrdiff_t>(count));
  }
  return all;
}

// A WAV file whose channels hold each of the values, or a tone of 440 Hz if there are none.
std::string WriteWav(const std::string& path_, int format_, int rate_, sf_count_t frames_,
                     const std::vector<float>& values_) {
  SF_INFO info = {};
  info.format = SF_FORMAT_WAV | format_;
  info.samplerate = rate_;
  info.channels = values_.empty() ? 1 : static_cast<int>(values_.size());
  SNDFILE* const file = sf_open(path_.c_str(), SFM_WRITE, &info);
  for (sf_count_t i = 0; i < frames_; ++i) {
    const float tone =
        0.5F * sinf(2 * 3.14159265F * 440 * static_cast<float>(i) / static_cast<float>(rate_));
    sf_writef_float(file, values_.empty() ? &tone : values_.data(), 1);
  }
  sf_close(file);
  return path_;
}

TEST(ClipTest, RawFilesAreLittleEndianSamplesWithoutAnOddByte) {
  const TemporaryDirectory directory;
  for (const auto& [content, samples] : {std::pair<std::string, std::vector<int16_t>>{"", {}},
                                         {"x", {}},
                                         {{"\1\0", 2}, {1}},
                                         {{"\1\0x", 3}, {1}},
                                         {{"\xff\xff\0\x80\xff\x7f", 6}, {-1, -32768, 32767}},
                                         {"RIF", {0x4952}}}) {
    EXPECT_EQ(samples, Samples(directory.Write("clip", content))) << content;
  }
}

TEST(ClipTest, RawFileOfManyBlocksIsRead) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("clip", std::string(2 * 10000 + 1, 'a'));
  EXPECT_EQ(std::vector<int16_t>(10000, 0x6161), Samples(path));
  EXPECT_EQ(std::vector<int16_t>(10000, 0x6161), Samples(path, 7));
}

TEST(ClipTest, ChannelsAreMixed) {
  const TemporaryDirectory directory;
  const std::string path = directory / "clip";
  for (const auto& [values, sample] : {std::pair<std::vector<float>, int16_t>{{0.5F}, 16384},
                                       {{0.5F, 0.25F}, 12288},
                                       {{1, -1}, 0},
                                       {{0.25F, 0, 0.25F, 0.5F}, 8192},
                                       {{2}, 32767},
                                       {{NAN}, 0},
                                       {{0.5F, NAN}, 0},
                                       {{INFINITY}, 32767},
                                       {{-2}, -32768}}) {
    WriteWav(path, SF_FORMAT_FLOAT, kRate, 3, values);
    EXPECT_THAT(Samples(path), ElementsAre(sample, sample, sample));
  }
}

TEST(ClipTest, NotANumberDoesNotChangeOtherSamples) {
  const TemporaryDirectory directory;
  const std::string path = WriteWav(directory / "clip", SF_FORMAT_FLOAT, 8000, 8000, {0.5F});
  std::string content = ReadFile(path);
  for (const float bad : {NAN, INFINITY, 1e30F}) {
    memcpy(&content[content.size() - 4 * 7000], &bad, sizeof(bad));
    directory.Write("clip", content);
    EXPECT_NEAR(16384, Samples(path)[kRate / 2], 2) << bad;
  }
}

TEST(ClipTest, SamplesOfTheSameFormatPassUnchanged) {
  const TemporaryDirectory directory;
  SF_INFO info = {};
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  info.samplerate = kRate;
  info.channels = 1;
  std::vector<int16_t> samples;
  for (int value = -32768; value <= 32767; ++value) {
    samples.push_back(static_cast<int16_t>(value));
  }
  SNDFILE* const file = sf_open((directory / "clip").c_str(), SFM_WRITE, &info);
  sf_write_short(file, samples.data(), static_cast<sf_count_t>(samples.size()));
  sf_close(file);
  EXPECT_EQ(samples, Samples(directory / "clip"));
}

// Compares the number of samples of a second, their peak, and the zero crossings of a tone of 440
// Hz.
TEST(ClipTest, ClipsOfOtherRatesKeepLengthLevelAndPitch) {
  const TemporaryDirectory directory;
  for (const int rate : {8000, 11025, 16000, 22050, 32000, 44100, 48000, 96000}) {
    const std::string path = WriteWav(directory / "clip", SF_FORMAT_PCM_16, rate, rate, {});
    const std::vector<int16_t> samples = Samples(path);
    EXPECT_EQ(size_t{kRate}, samples.size()) << rate;
    int peak = 0;
    int crossings = 0;
    for (size_t i = 1000; i < samples.size() - 1000; ++i) {
      peak = std::max<int>(peak, samples[i]);
      crossings += samples[i - 1] < 0 && samples[i] >= 0 ? 1 : 0;
    }
    EXPECT_NEAR(16384, peak, 200) << rate;
    EXPECT_NEAR(440.0 * (kRate - 2000) / kRate, crossings, 1) << rate;
  }
}

TEST(ClipTest, EncodingsOfWavAreRead) {
  const TemporaryDirectory directory;
  for (const int format : {SF_FORMAT_PCM_U8, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32, SF_FORMAT_FLOAT,
                           SF_FORMAT_DOUBLE, SF_FORMAT_ULAW, SF_FORMAT_ALAW}) {
    const std::vector<int16_t> samples =
        Samples(WriteWav(directory / "clip", format, kRate, 100, {0.5F}));
    ASSERT_EQ(100U, samples.size()) << format;
    EXPECT_NEAR(16384, samples[50], 600) << format;
  }
  EXPECT_THAT(Samples(WriteWav(directory / "clip", SF_FORMAT_PCM_16, 8000, 0, {})), IsEmpty());
}

TEST(ClipTest, TruncatedWavFileIsReadToItsEnd) {
  const TemporaryDirectory directory;
  WriteWav(directory / "whole", SF_FORMAT_PCM_16, kRate, 1000, {0.5F});
  const std::string path =
      directory.Write("clip", ReadFile(directory / "whole").substr(0, 44 + 2 * 100 + 1));
  EXPECT_EQ(std::vector<int16_t>(100, 16384), Samples(path));
}

TEST(ClipTest, FailuresTellTheReason) {
  const TemporaryDirectory directory;
  const auto why = [](const std::string& path_) {
    return ThrownText([&] { OpenClip(path_, kRate); });
  };
  EXPECT_EQ("No such file or directory", why(directory / "none"));
  EXPECT_THAT(why(directory.Write("clip", "RIFF, but nothing more")), ::testing::Not(IsEmpty()));
  EXPECT_EQ("its rate is 10 Hz",
            why(WriteWav(directory / "clip", SF_FORMAT_PCM_16, 10, 10, {0.5F})));
}

}  // namespace

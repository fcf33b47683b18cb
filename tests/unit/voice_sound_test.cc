#include <math.h>

#include <algorithm>

#include "sound.h"
#include "test_util.h"

namespace {

constexpr int kRate = 22050;
constexpr int16_t kTooQuiet = 98;  // 0.3 % of 32,768 is 98.3.

Samples Level(size_t count_, int16_t value_) { return Samples(count_, value_); }

Samples operator+(Samples first_, const Samples& second_) {
  first_.insert(first_.end(), second_.begin(), second_.end());
  return first_;
}

size_t LengthTrimmed(Samples samples_, int rate_ = kRate) {
  TrimEnd(samples_, rate_);
  return samples_.size();
}

Samples Tone(size_t count_, int rate_) {
  Samples samples(count_);
  for (size_t i = 0; i < count_; ++i) {
    samples[i] = static_cast<int16_t>(
        10000 * sin(2 * M_PI * 440 * static_cast<double>(i) / static_cast<double>(rate_)));
  }
  return samples;
}

TEST(TrimEndTest, RemovesSilence) {
  EXPECT_EQ(0U, LengthTrimmed({}));
  EXPECT_EQ(0U, LengthTrimmed(Level(1, 0)));
  EXPECT_EQ(0U, LengthTrimmed(Level(kRate, 0)));
  EXPECT_EQ(0U, LengthTrimmed(Level(kRate, kTooQuiet)));
}

TEST(TrimEndTest, KeepsLoudSamplesUpToTheLastFewOfThem) {
  // Five samples of this level make a window of 441 loud.
  const Samples loud = Level(kRate, 1000);
  for (const size_t silence : {0U, 1U, 440U, 441U, 442U, 10000U}) {
    EXPECT_EQ(loud.size() - 4, LengthTrimmed(loud + Level(silence, 0))) << silence;
    EXPECT_EQ(loud.size() - 4, LengthTrimmed(loud + Level(silence, kTooQuiet / 50))) << silence;
  }
}

TEST(TrimEndTest, IsTheSameForNegativeSamples) {
  EXPECT_EQ(LengthTrimmed(Level(kRate, 1000)), LengthTrimmed(Level(kRate, -1000)));
  EXPECT_EQ(size_t{kRate}, LengthTrimmed(Level(kRate, -32768) + Level(kRate, 0)));
}

TEST(TrimEndTest, SilenceAtTheStartAndInBetweenStays) {
  const Samples sound = Level(kRate, 0) + Level(kRate, 9000) + Level(kRate, 0) + Level(kRate, 9000);
  EXPECT_EQ(sound.size(), LengthTrimmed(sound + Level(kRate, 0)));
}

TEST(TrimEndTest, FaintClickIsNoSound) {
  // A single sample makes all 441 windows around it loud, or none of them.
  EXPECT_EQ(0U, LengthTrimmed(Level(kRate, 0) + Level(1, 2078) + Level(kRate, 0)));
  EXPECT_EQ(size_t{kRate} + 1, LengthTrimmed(Level(kRate, 0) + Level(1, 2079) + Level(kRate, 0)));
}

TEST(TrimEndTest, SoundOfLessThanTenMillisecondsIsSilence) {
  EXPECT_EQ(0U, LengthTrimmed(Level(219, 9000)));
  EXPECT_EQ(220U, LengthTrimmed(Level(220, 9000)));
  EXPECT_EQ(0U, LengthTrimmed(Level(159, 9000), 16000));
  EXPECT_EQ(160U, LengthTrimmed(Level(160, 9000), 16000));
}

TEST(ResampledTest, LengthFollowsTheRates) {
  const struct {
    size_t count;
    int rate;
    size_t result;
  } rows[] = {{0, 8000, 0},          {1, 8000, 0},           {2, 8000, 1},
              {22050, 8000, 8000},   {22050, 4000, 4000},    {22050, 192000, 192000},
              {10000, 48000, 21769}, {10000, 191999, 87074}, {22049, 44100, 44098}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.result, Resampled(Level(row.count, 1000), kRate, row.rate).size())
        << row.count << " " << row.rate;
  }
}

TEST(ResampledTest, KeepsTheSound) {
  for (const int rate : {8000, 16000, 48000}) {
    const Samples result = Resampled(Tone(kRate, kRate), kRate, rate);
    const Samples expected = Tone(result.size(), rate);
    // A filter has no past at the start and no future at the end.
    for (size_t i = 200; i + 200 < result.size(); ++i) {
      ASSERT_NEAR(expected[i], result[i], 100) << rate << " " << i;
    }
  }
}

}  // namespace

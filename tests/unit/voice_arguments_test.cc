#include "arguments.h"
#include "test_util.h"

namespace {

std::string WhyBad(const std::vector<std::string>& words_) {
  return ThrownText([&words_] { ParseArguments(words_); });
}

TEST(VoiceArgumentsTest, HaveDefaults) {
  const Arguments arguments = ParseArguments({});
  EXPECT_EQ("en", arguments.voice);
  EXPECT_EQ(175, arguments.speed);
  EXPECT_EQ(50, arguments.pitch);
  EXPECT_EQ(100, arguments.volume);
  EXPECT_EQ(22050, arguments.rate);
  EXPECT_EQ(20, arguments.limit);
}

TEST(VoiceArgumentsTest, LastOfEqualNamesCounts) {
  const Arguments arguments = ParseArguments({"rate=8000", "voice=a", "rate=16000", "voice=b+c"});
  EXPECT_EQ(16000, arguments.rate);
  EXPECT_EQ("b+c", arguments.voice);
}

TEST(VoiceArgumentsTest, NumbersHaveLimits) {
  const struct {
    const char* name;
    int Arguments::*place;
    int minimum;
    int maximum;
  } rows[] = {{"speed", &Arguments::speed, 80, 450},
              {"pitch", &Arguments::pitch, 0, 99},
              {"volume", &Arguments::volume, 0, 200},
              {"rate", &Arguments::rate, 4000, 192000},
              {"limit", &Arguments::limit, 1, 3600}};
  for (const auto& row : rows) {
    const std::string name = row.name;
    for (const int good : {row.minimum, row.maximum}) {
      EXPECT_EQ(good, ParseArguments({name + "=" + std::to_string(good)}).*row.place) << name;
    }
    for (const std::string& bad :
         {std::to_string(row.minimum - 1), std::to_string(row.maximum + 1), std::string(),
          std::string("1x"), std::string("1.5"), std::string("0x99"), std::string(" 99"),
          std::string("+99"), std::string("99999999999")}) {
      EXPECT_EQ(name + " must be a number from " + std::to_string(row.minimum) + " to " +
                    std::to_string(row.maximum) + ", not \"" + bad + "\"",
                WhyBad({name + "=" + bad}));
    }
  }
}

TEST(VoiceArgumentsTest, VoiceIsAName) {
  EXPECT_EQ("zh-yue+m1_a.B", ParseArguments({"voice=zh-yue+m1_a.B"}).voice);
  for (const std::string bad : {"", "a b", "../voice", "en;id", "*", "en=de"}) {
    EXPECT_EQ("\"" + bad + "\" is not the name of a voice", WhyBad({"voice=" + bad}));
  }
}

TEST(VoiceArgumentsTest, UnknownOnesAreRefused) {
  for (const std::string bad : {"", "rate", "Rate=8000", "--rate=8000", "=8000", "-v", "voice"}) {
    EXPECT_EQ("unknown argument \"" + bad + "\"", WhyBad({"pitch=9", bad}));
  }
}

}  // namespace

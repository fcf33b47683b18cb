#include "clock.h"
#include "preview.h"
#include "test_util.h"

namespace {

using testing::HasSubstr;

constexpr char kTranslator[] = R"(#!/bin/sh
case $(cat "$1") in
  hang) exec sleep 600 ;;
  fail) exit 1 ;;
  silent) exit 0 ;;
esac
printf '%s|' "$@" >"$(dirname "$0")/arguments"
{ cat "$1"; printf ' !!'; } >"$2"
)";

class PreviewsTest : public testing::Test {
 protected:
  PreviewsTest() { chmod(directory.Write("translator", kTranslator).c_str(), 0755); }

  Previews::State End(const std::string& user_, int number_, std::string& wav_) {
    Previews::State state = Previews::kRunning;
    for (const double deadline = Now() + 60; Now() < deadline && state == Previews::kRunning;
         Nap(5)) {
      previews.OnChild();
      state = previews.Get(user_, number_, wav_);
    }
    return state;
  }

  const TemporaryDirectory directory;
  Previews previews{directory / "translator"};
};

std::string Bytes(uint32_t number_) {
  std::string bytes;
  for (int i = 0; i < 4; ++i) {
    bytes += static_cast<char>(number_ >> (8 * i));
  }
  return bytes;
}

TEST(WavOfTest, WrapsRawSound) {
  const std::string format =
      std::string("\1\0\1\0", 4) + Bytes(8000) + Bytes(16000) + std::string("\2\0\x10\0", 4);
  EXPECT_EQ("RIFF" + Bytes(40) + "WAVEfmt " + Bytes(16) + format + "data" + Bytes(4) + "abcd",
            WavOf("abcde", 8000, 60));
  EXPECT_THAT(WavOf(std::string(100000, 'x'), 8000, 1), testing::SizeIs(44 + 16000));
  EXPECT_EQ("RIFF...", WavOf("RIFF...", 8000, 1));
}

TEST_F(PreviewsTest, TranslatorRunsAsTheDaemonRunsIt) {
  std::string wav;
  const int number = previews.Start("anna", "text", {"voice=en", "rate=8000"});
  EXPECT_LT(0, previews.NextTimeout());
  EXPECT_EQ(Previews::kReady, End("anna", number, wav));
  EXPECT_EQ(WavOf("text !!", 8000, 60), wav);
  const std::string scratch = previews.Scratch();
  EXPECT_EQ(scratch + "/1.text|" + scratch + "/1.sound|voice=en|rate=8000|preview|",
            ReadFile(directory / "arguments"));
  EXPECT_EQ(-1, previews.NextTimeout());
  EXPECT_EQ(Previews::kNone, previews.Get("otto", number, wav));
  EXPECT_EQ(Previews::kNone, previews.Get("anna", number + 1, wav));
  EXPECT_EQ(0100600u, ModeOf(scratch + "/1.text"));
}

TEST_F(PreviewsTest, FailureOrSilenceGivesNoPreview) {
  std::string wav;
  for (const std::string text : {"fail", "silent"}) {
    EXPECT_EQ(Previews::kFailed, End("anna", previews.Start("anna", text, {}), wav)) << text;
  }
}

TEST_F(PreviewsTest, RunsOneForEachUserAndTwoAtOnce) {
  std::string wav;
  const int first = previews.Start("anna", "hang", {});
  const int second = previews.Start("anna", "hang", {});
  EXPECT_EQ(Previews::kNone, previews.Get("anna", first, wav));
  EXPECT_EQ(Previews::kRunning, previews.Get("anna", second, wav));
  previews.Start("otto", "hang", {});
  EXPECT_THAT(ThrownText([&] { previews.Start("lena", "text", {}); }), HasSubstr("Try again"));
  EXPECT_EQ(Previews::kReady, End("anna", previews.Start("anna", "text", {}), wav));
  EXPECT_THAT(wav, HasSubstr("text"));
}

TEST_F(PreviewsTest, FilesAreRemovedAtTheEnd) {
  std::string scratch;
  {
    Previews others(directory / "translator");
    others.Start("anna", "hang", {});
    scratch = others.Scratch();
    EXPECT_EQ(0040700u, ModeOf(scratch));
  }
  EXPECT_FALSE(Exists(scratch));
  Previews none("");
  EXPECT_FALSE(none.AreThere());
  EXPECT_THAT(ThrownText([&] { none.Start("anna", "text", {}); }), HasSubstr("no previews"));
}

}  // namespace

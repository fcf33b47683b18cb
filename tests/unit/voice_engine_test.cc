#include <algorithm>

#include "engine.h"
#include "test_util.h"

namespace {

// The only engine of the process. Its voice "en" is a file, so the engine reads no directory of
// voices, which an emulated 32-bit engine cannot do on every file system.
Engine& TheEngine() {
  static Engine engine({});
  return engine;
}

TEST(VoiceEngineTest, SpeaksWords) {
  Engine& engine = TheEngine();
  EXPECT_EQ(22050, engine.Rate());
  const Samples few = engine.Speak("one");
  const Samples many = engine.Speak("one two three four five");
  EXPECT_GT(*std::max_element(few.begin(), few.end()), 1000);
  EXPECT_GT(many.size(), 2 * few.size());
}

TEST(VoiceEngineTest, BreakIsSilenceOfItsLength) {
  Engine& engine = TheEngine();
  const size_t plain = engine.Speak("one").size();
  const Samples paused = engine.Speak("<break time=\"500ms\" strength=\"weak\"/> one");
  EXPECT_NEAR(0.5 * 22050, static_cast<double>(paused.size() - plain), 0.01 * 22050);
  EXPECT_EQ(0, *std::max_element(paused.begin(), paused.begin() + 22050 / 2));
}

TEST(VoiceEngineTest, SoundOfMoreThanAnHourIsAnError) {
  std::string markup;
  for (int i = 0; i < 400; ++i) {
    markup += "<break time=\"9999ms\" strength=\"weak\"/>";
  }
  EXPECT_EQ("the sound is longer than an hour", ThrownText([&] { TheEngine().Speak(markup); }));
}

}  // namespace

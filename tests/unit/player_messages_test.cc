#include "messages.h"
#include "test_util.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MessagesTest : public testing::Test {
 protected:
  static OutputName Name(const std::string& text_) {
    OutputName name;
    EXPECT_TRUE(ParseOutputName(text_, name)) << text_;
    return name;
  }
  void Play(const std::string& name_, double now_ = 0) { messages.Played(Name(name_), 150, now_); }

  std::vector<std::string> lines;
  Messages messages{100, [this](const std::string& line_) { lines.push_back(line_); }};
};

TEST_F(MessagesTest, ClipsAndTheFirstPieceBeginAMessage) {
  for (const char* const name :
       {"0_a.warn_live_first.wav", "1_a.warn_live_first.wav", "2_a.text_live_first.raw",
        "3_b.text_live_first.raw", "4_a.text_live_cont.raw", "5_a.warn_live_first.wav",
        "6_a.text_live_first.raw", "7_a.text_live_first.raw"}) {
    Play(name);
  }
  EXPECT_THAT(lines, ElementsAre("finished a files=4 seconds=6.00 interruptions=0",
                                 "finished a files=2 seconds=3.00 interruptions=0"));
  messages.EndAll();
  EXPECT_THAT(lines,
              ElementsAre(lines[0], lines[1], "finished a files=1 seconds=1.50 interruptions=0",
                          "finished b files=1 seconds=1.50 interruptions=0"));
  EXPECT_TRUE(messages.IsEmpty());
}

TEST_F(MessagesTest, InterruptionsCountForTheMessageThatIsPlayedAgain) {
  Play("0_a.text_live_first.raw");
  messages.Interrupted(Name("1_a.text_live_first.raw"));
  messages.Interrupted(Name("1_a.text_live_first.raw"));
  Play("1_a.text_live_first.raw");
  messages.EndAll();
  EXPECT_THAT(lines, ElementsAre("finished a files=1 seconds=1.50 interruptions=0",
                                 "finished a files=1 seconds=1.50 interruptions=2"));
}

TEST_F(MessagesTest, SilenceEndsAMessageUnlessMoreIsExpected) {
  Play("0_a.text_live_first.raw", 10);
  const auto nothing = [](const std::string&) { return false; };
  messages.EndSilent(10.9, nothing);
  messages.EndSilent(20, [](const std::string& id_) { return id_ == "a"; });
  EXPECT_THAT(lines, IsEmpty());
  messages.EndSilent(11.1, nothing);
  EXPECT_THAT(lines, ElementsAre("finished a files=1 seconds=1.50 interruptions=0"));
}

}  // namespace

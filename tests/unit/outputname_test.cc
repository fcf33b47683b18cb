#include "outputname.h"

#include "test_util.h"

namespace {

struct Row {
  const char* name;
  uint64_t number;
  const char* id;
  bool is_clip;
  bool is_first;
};

TEST(ParseOutputNameTest, SplitsNames) {
  for (const Row& row : {Row{"0_lobby.text_live_first.raw", 0, "lobby", false, true},
                         Row{"7_lobby.text_pre_cont.raw", 7, "lobby", false, false},
                         Row{"12_lobby.warn_live_first.wav", 12, "lobby", true, true},
                         Row{"4294967295_a_b.text_live_cont.raw", 4294967295, "a_b", false, false},
                         Row{"9999999999_x", 9999999999, "x", false, false},
                         Row{"1_a.b.text_live_cont.raw", 1, "a.b", false, false},
                         Row{"1_lobby.raw", 1, "lobby", false, false},
                         Row{"1__.raw", 1, "_", false, false}, Row{"1_", 1, "", false, false}}) {
    OutputName name;
    EXPECT_TRUE(ParseOutputName(row.name, name)) << row.name;
    EXPECT_EQ(row.number, name.number) << row.name;
    EXPECT_EQ(row.id, name.id) << row.name;
    EXPECT_EQ(row.is_clip, name.is_clip) << row.name;
    EXPECT_EQ(row.is_first, name.is_first) << row.name;
  }
}

TEST(ParseOutputNameTest, RejectsOtherNames) {
  for (const char* const text :
       {"", "5", "5.raw", "_x", "x_5", "-1_x", "5x_y", "12345678901_x", ".playing.5_x"}) {
    OutputName name;
    EXPECT_FALSE(ParseOutputName(text, name)) << text;
  }
}

}  // namespace

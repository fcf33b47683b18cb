#include "markup.h"
#include "test_util.h"

namespace {

TEST(VoiceMarkupTest, CleaningLeavesTextWithoutCommands) {
  const struct {
    std::string text;
    std::string cleaned;
  } rows[] = {{"", ""},
              {"one two  ", "one two"},
              {" \n\t", ""},
              {std::string("a\0b\x01\x1f\x7f", 6) + "c\r\n", "a b   c"},
              {"caf\xc3\xa9 \xe2\x82\xac", "caf\xc3\xa9 \xe2\x82\xac"},
              {"a\xff"
               "b\xc3",
               "a b"},
              {"\xed\xa0\x80"
               "a\xf0\x9f\x98",
               " a"},
              {"\xc2\x85x", "\xc2\x85x"}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.cleaned, Cleaned(row.text)) << row.text;
  }
}

TEST(VoiceMarkupTest, PauseTagIsABreakAndTheRestIsEscaped) {
  const struct {
    const char* text;
    const char* markup;
  } rows[] = {
      {"", ""},
      {"\\pau=300\\ hello", "<break time=\"300ms\" strength=\"weak\"/> hello"},
      {"\\pau=1\\\\pau=0002\\",
       "<break time=\"1ms\" strength=\"weak\"/><break time=\"0002ms\" strength=\"weak\"/>"},
      {"\\pau=1\\pau=2\\", "<break time=\"1ms\" strength=\"weak\"/>pau=2\\"},
      {"\\\\pau=7\\", "\\<break time=\"7ms\" strength=\"weak\"/>"},
      {"\\pau=12345\\", "\\pau=12345\\"},
      {"\\pau=\\ \\pau=x\\ \\PAU=1\\ \\pau=-1\\", "\\pau=\\ \\pau=x\\ \\PAU=1\\ \\pau=-1\\"},
      {"\\pau=12", "\\pau=12"},
      {"\\pau=", "\\pau="},
      {"\\", "\\"},
      {"a&b <c> &lt; \"d\" 'e' [[f]]", "a&amp;b &lt;c&gt; &amp;lt; \"d\" 'e' [[f]]"},
      {"</speak><break time=\"9s\"/>", "&lt;/speak&gt;&lt;break time=\"9s\"/&gt;"}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.markup, MarkedUp(row.text)) << row.text;
  }
}

TEST(VoiceMarkupTest, WordsHaveALetterOrADigit) {
  for (const char* text : {"a", "- 7 -", "\xc3\xa9", "\xd0\xb6", "\xe6\xbc\xa2", "\\pau=12345\\"}) {
    EXPECT_TRUE(HasWords(text)) << text;
  }
  for (const char* text :
       {"", "  ", "... !?", "\\pau=300\\ -", "\xe2\x80\xa6 \xe2\x80\x94", "&<>"}) {
    EXPECT_FALSE(HasWords(text)) << text;
  }
}

TEST(VoiceMarkupTest, PauseFollowsThePunctuation) {
  const struct {
    const char* text;
    int pause;
  } rows[] = {{"", 40},      {"one", 40}, {"one.", 250}, {"one!", 250}, {"one?", 250},
              {"one,", 120}, {"a:", 120}, {"a;", 120},   {"a.)", 40},   {".a", 40}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.pause, PauseAfter(row.text)) << row.text;
  }
}

}  // namespace

#include <limits.h>

#include <random>

#include "input_fixtures.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Returns one text for every file, so that a table of texts needs only one directory.
class SplitterTest : public LocalDirectoryTest {
 protected:
  SplitterTest() {
    // Preview: a text is taken even if its checksum equals that of the text before.
    Open({{"preview", "1"}}, INT_MAX);
  }
  // The words of text. The scan's log below mask goes to log.
  Words Split(const std::string& text_, unsigned int mask_ = 0) {
    parser.texts["m"] = text_;
    Write("");
    if (mask_ == 0) {
      SetDebugMask(0);
      input->Process();
    } else {
      log = Scan(mask_);
      log.erase(0, log.find('\n') + 1);  // "Adding" or "Updating".
    }
    return input->GetWords();
  }

  std::string log;
};

TEST_F(SplitterTest, EndsWordsAtBreaksAndControlCharacters) {
  const std::vector<std::pair<std::string, Words>> cases = {
      {"one", {"one"}},
      {"one two", {"one", "two"}},
      {"  one   two  ", {"one", "two"}},
      {"one, two.", {"one,", "two."}},
      {"a!b?c:d;e,f.g", {"a!", "b?", "c:", "d;", "e,", "f.", "g"}},
      {"3.14", {"3.", "14"}},
      {"a-b 'c' (d)", {"a-b", "'c'", "(d)"}},
      {"a\tb\nc\r\nd\x7F"
       "e",
       {"a", "b", "c", "d", "e"}},
      {std::string("a\0b", 3), {"a", "b"}},
      {"a\xC2\xA0"
       "b",
       {"a", "b"}},  // No-break space.
      {"a\xC2\x80"
       "b\xC2\x9F"
       "c",
       {"a", "b", "c"}},
      {"a\xC2\xA1"
       "b",
       {"a\xC2\xA1"
        "b"}},
      {"\xC3\xA9t\xC3\xA9. \xE2\x82\xAC \xF0\x9F\x98\x80",
       {"\xC3\xA9t\xC3\xA9.", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"}},
      {"a\xE2\x80\x83"
       "b",
       {"a\xE2\x80\x83"
        "b"}},  // An em space is none of the breaks.
      {" \n\t", {}},
  };
  for (const auto& [text, words] : cases) {
    EXPECT_EQ(words, Split(text)) << testing::PrintToString(text);
  }
}

TEST_F(SplitterTest, DropsALonePunctuationMarkRightAfterAnother) {
  const std::vector<std::pair<std::string, Words>> cases = {
      {"Stop.. Go", {"Stop.", "Go"}},
      {"Stop...Go", {"Stop.", "Go"}},
      {"What?!", {"What?"}},
      {"a.,b", {"a.", "b"}},
      {".", {}},
      {"...", {}},
      {".a", {"a"}},  // The start of a text is like punctuation.
      {", a", {"a"}},
      {"a . b", {"a", ".", "b"}},
      {"a. . b", {"a.", ".", "b"}},
      {" .", {"."}},
      {"\n.", {"."}},
      {"a.\n.", {"a.", "."}},
      {"a\n..", {"a", "."}},
      {".\n", {}},
      {"a..-.", {"a.", "-."}},
      {"a.. ..", {"a.", "."}},
  };
  for (const auto& [text, words] : cases) {
    EXPECT_EQ(words, Split(text)) << testing::PrintToString(text);
  }
}

TEST_F(SplitterTest, CutsAWordToItsFirst100Characters) {
  const std::string hundred = Repeat("x", 100);
  EXPECT_THAT(Split(hundred, kDebugDefault), ElementsAre(hundred));
  EXPECT_EQ(kNoLog, log);
  EXPECT_THAT(Split(hundred + "y z", kDebugDefault), ElementsAre(hundred, "z"));
  EXPECT_EQ("Word too long\n", log);
  EXPECT_THAT(Split(Repeat("x", 150), kDebugDefault), ElementsAre(hundred));
  EXPECT_EQ(Repeat("Word too long\n", 50), log);
  EXPECT_THAT(Split(hundred + ".. z", kDebugDefault), ElementsAre(hundred, "z"));
  EXPECT_EQ("Word too long\n", log) << "the first full stop ends the word without being in it";
}

TEST_F(SplitterTest, CountsCharactersNotBytesOfAWord) {
  // The last ones of two and three bytes, and the first ones of three and four, among them.
  for (const char* character : {"\xC3\xA9", "\xDF\xBF", "\xE0\xA0\x80", "\xE2\x82\xAC",
                                "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF0\x9F\x98\x80"}) {
    EXPECT_THAT(Split(Repeat(character, 103), kDebugDefault), ElementsAre(Repeat(character, 100)));
    EXPECT_EQ(Repeat("Word too long\n", 3), log);
  }
}

TEST_F(SplitterTest, IgnoresTextAfterThe65536thCharacter) {
  const std::string text = Repeat("x ", 32768);
  EXPECT_EQ(32768U, Split(text, kDebugDefault).size());
  EXPECT_EQ(kNoLog, log);
  EXPECT_EQ(32768U, Split(text + "y. z", kDebugDefault).size());
  EXPECT_EQ(Repeat("Too many characters\n", 4), log);
}

TEST_F(SplitterTest, KeepsTheWordThatThe65536thCharacterCuts) {
  EXPECT_THAT(Split(Repeat(" ", 65530) + "abcdefgh i", kDebugDefault), ElementsAre("abcdef"));
  EXPECT_EQ(Repeat("Too many characters\n", 4), log);
  EXPECT_THAT(Split(Repeat("\xC2\xA0", 65535) + "\xE2\x82\xAC\xE2\x82\xAC", kDebugDefault),
              ElementsAre("\xE2\x82\xAC"));
  EXPECT_EQ("Too many characters\n", log);
  EXPECT_THAT(Split(Repeat("\n", 65536) + "x", kDebugDefault), IsEmpty());
  EXPECT_EQ("Too many characters\n", log);
}

using Random = std::mt19937;

int Below(Random& random_, int bound_) {
  return static_cast<int>(random_() % static_cast<unsigned int>(bound_));
}

std::vector<uint32_t> RandomText(Random& random_, const std::vector<uint32_t>& alphabet_,
                                 int max_length_) {
  std::vector<uint32_t> text(static_cast<size_t>(Below(random_, max_length_ + 1)));
  for (uint32_t& cp : text) {
    cp = alphabet_[random_() % alphabet_.size()];
  }
  return text;
}

TEST_F(SplitterTest, AgreesWithTheModel) {
  std::vector<uint32_t> latin1(256);
  for (uint32_t cp = 0; cp < 256; ++cp) {
    latin1[cp] = cp;
  }
  const std::vector<std::vector<uint32_t>> alphabets = {
      {' ', '.', ',', '\n', 'a'},
      {'.', '!', '?', ':', ';', ',', 'a', 0xE9},
      {' ', 0xA0, '\t', 0, 0x7F, 0x9F, '.', 'a', 'b', 0x20AC},
      {'a', 'b', 'c', ' ', '.', 0xE9, 0x20AC, 0xFFFD, 0x10FFFF, 0x1F600, 0xD7FF, 0xE000},
      latin1,
  };
  Random random(20261120);
  for (const std::vector<uint32_t>& alphabet : alphabets) {
    for (int i = 0; i < 6000; ++i) {
      const std::vector<uint32_t> text = RandomText(random, alphabet, 24);
      const std::string encoded = model::Encode(text);
      ASSERT_EQ(model::Splitting(text).words, Split(encoded)) << testing::PrintToString(encoded);
    }
  }
}

// Words of a few hundred characters, of one to four bytes each.
std::vector<uint32_t> LongWordAlphabet() {
  std::vector<uint32_t> alphabet = {' ', '.', '\n'};
  for (const uint32_t cp : {uint32_t{'x'}, uint32_t{0xB5}, uint32_t{0x20AC}, uint32_t{0x1F600}}) {
    alphabet.insert(alphabet.end(), 40, cp);
  }
  return alphabet;
}

TEST_F(SplitterTest, AgreesWithTheModelForLongWords) {
  Random random(1);
  for (int i = 0; i < 1000; ++i) {
    const std::vector<uint32_t> text = RandomText(random, LongWordAlphabet(), 600);
    const model::Splitting expected(text);
    const std::string encoded = model::Encode(text);
    ASSERT_EQ(expected.words, Split(encoded, kDebugDefault)) << encoded;
    ASSERT_EQ(expected.log, log) << encoded;
  }
}

TEST_F(SplitterTest, AgreesWithTheModelForLongMessages) {
  const std::vector<uint32_t> short_words = {'x', 'y', 'z', ' ', '.', 0x20AC};
  Random random(2);
  for (int i = 0; i < 20; ++i) {
    std::vector<uint32_t> text = i % 2 == 0 ? RandomText(random, short_words, 100)
                                            : RandomText(random, LongWordAlphabet(), 800);
    text.insert(text.begin(), i % 2 == 0 ? 65500 : 65200, i % 4 < 2 ? ' ' : '.');
    const model::Splitting expected(text);
    const std::string encoded = model::Encode(text);
    ASSERT_EQ(expected.words, Split(encoded, kDebugDefault)) << i;
    ASSERT_EQ(expected.log, log) << i;
  }
}

}  // namespace

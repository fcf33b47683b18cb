#include <limits.h>
#include <malloc.h>

#include <random>

#include "input_fixtures.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class MessageIdTest : public LocalDirectoryTest {};

// "w1 w2 ... w<count>"
std::string Numbered(int count_) {
  std::string text;
  for (int i = 1; i <= count_; ++i) {
    text += "w" + Number(i) + " ";
  }
  return text;
}

class SnippetTest : public LocalDirectoryTest {
 protected:
  // The sizes of the snippets of one message.
  std::vector<size_t> Sizes(const std::string& text_, int word_limit_) {
    Open({}, word_limit_);
    Activate(text_);
    std::vector<size_t> sizes;
    while (input->GetActiveMessageID() != 0) {
      sizes.push_back(input->GetWords().size());
    }
    return sizes;
  }
};

TEST_F(SnippetTest, HasTwiceTheLimitOfWordsWithoutPunctuation) {
  const std::vector<std::pair<int, std::vector<size_t>>> cases = {
      {1, {1}},   {9, {9}},      {10, {10}},    {11, {11}},     {19, {19}},
      {20, {20}}, {21, {20, 1}}, {25, {20, 5}}, {40, {20, 20}}, {41, {20, 20, 1}}};
  for (const auto& [count, sizes] : cases) {
    EXPECT_EQ(sizes, Sizes(Numbered(count), 10)) << count;
  }
}

TEST_F(SnippetTest, EndsAtTheNextFullStopOrCommaAfterTheLimit) {
  const std::vector<std::pair<std::string, std::vector<size_t>>> cases = {
      {"a b c. d e f g", {3, 4}},  // The limit is 2.
      {"a b c, d e f g", {3, 4}}, {"a b c d. e f g", {4, 3}}, {"a b c! d? e: f; g", {4, 3}},
      {"a. b, c d e", {4, 1}},    {"a. b. c. d.", {3, 1}},    {"a b . c", {3, 1}},
      {"a b c.d", {3, 1}},
  };
  for (const auto& [text, sizes] : cases) {
    EXPECT_EQ(sizes, Sizes(text, 2)) << text;
  }
}

TEST_F(SnippetTest, DoesNotEndAtTheFirstWord) {
  Open({}, 1);
  Activate("one. two. three.");
  EXPECT_THAT(input->GetWords(), ElementsAre("one.", "two."));
  EXPECT_THAT(input->GetWords(), ElementsAre("three."));
}

TEST_F(SnippetTest, IsEmptyWithoutAMessage) {
  Open();
  EXPECT_TRUE(input->FirstPlayOfActiveMessage());
  EXPECT_THAT(input->GetWords(), IsEmpty());
  EXPECT_FALSE(input->FirstPlayOfActiveMessage());
  input->RestartMessage();
  input->StopMessage();
  EXPECT_THAT(input->GetWords(), IsEmpty());
}

TEST_F(SnippetTest, StartsOverUntilAllLoopsArePlayed) {
  Open({{"loops", "2"}});
  Activate(Numbered(25));
  for (const size_t size : {20U, 5U, 20U, 5U}) {
    EXPECT_NE(0, input->GetActiveMessageID());
    EXPECT_EQ(size, input->GetWords().size());
  }
  EXPECT_EQ(0, input->GetActiveMessageID());
}

TEST_F(SnippetTest, IsPlayedOnceIfLoopsIsNotAboveOne) {
  for (const char* loops : {"1", "0", "-5", ""}) {
    Open({{"loops", loops}});
    Activate("text");
    EXPECT_THAT(input->GetWords(), ElementsAre("text")) << loops;
    EXPECT_EQ(0, input->GetActiveMessageID()) << loops;
  }
}

TEST_F(SnippetTest, BeginsAtTheFirstWordAfterARestart) {
  Open({}, 1);
  Activate("one two three");
  input->GetWords();
  input->RestartMessage();
  EXPECT_THAT(input->GetWords(), ElementsAre("one", "two"));
  EXPECT_THAT(input->GetWords(), ElementsAre("three"));
  EXPECT_FALSE(input->FirstPlayOfActiveMessage());
}

TEST_F(SnippetTest, IsFirstPlayUntilTheFirstWordsOfEachMessageAreTaken) {
  Open({{"loops", "2"}}, 1);
  for (int i = 0; i < 2; ++i) {
    Activate("one two three");
    EXPECT_TRUE(input->FirstPlayOfActiveMessage());
    for (int snippet = 0; snippet < 4; ++snippet) {
      input->GetWords();
      EXPECT_FALSE(input->FirstPlayOfActiveMessage());
    }
    Scan();  // Notices that the file is gone.
  }
}

TEST_F(SnippetTest, EndsWithAStop) {
  Open({{"loops", "2"}}, 1);
  Activate("one two three");
  input->GetWords();
  input->StopMessage();
  EXPECT_EQ(0, input->GetActiveMessageID());
  EXPECT_EQ("", input->GetActiveMessageFilename());
  EXPECT_THAT(input->GetWords(), IsEmpty());
  EXPECT_EQ("Erasing m from file_map\n", Scan(kDebugAvailable)) << "and the message is not resumed";
}

// Hundreds of directories may each have had a long message.
TEST_F(SnippetTest, FreesTheMemoryOfAMessageThatIsOver) {
  Open({}, INT_MAX);
  const auto held_bytes = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
  const std::function<void(const std::string&)> ways[] = {
      [this](const std::string& text_) {
        Activate(text_);
        input->GetWords();
      },
      [this](const std::string& text_) {
        Activate(text_);
        input->StopMessage();
      },
      [this](const std::string& text_) {
        Write(std::string(text_.size(), '.'));  // Has no words.
        Scan();
      },
  };
  for (const auto& use : ways) {
    use("short");
    const size_t before = held_bytes();
    use(Repeat("a ", 32768));
    EXPECT_LT(held_bytes(), before + 4096);
  }
}

TEST_F(SnippetTest, CountsPlaysFromZeroAfterAStop) {
  Open({{"loops", "2"}});
  Activate("one");
  input->GetWords();
  input->StopMessage();
  Scan();
  Activate("two");
  input->GetWords();
  EXPECT_THAT(input->GetWords(), ElementsAre("two"));
  EXPECT_EQ(0, input->GetActiveMessageID());
}

TEST_F(SnippetTest, AgreesWithTheModel) {
  const std::vector<std::string> vocabulary = {"a", "bb", "c.", "dd,", "e!", "\xC3\xA9"};
  std::mt19937 random(3);
  std::vector<int> limits = {INT_MAX, INT_MAX / 2 + 1, INT_MIN};
  for (int limit = -1; limit <= 20; ++limit) {
    limits.push_back(limit);
  }
  for (const int limit : limits) {
    for (int loops = -1; loops <= 3; ++loops) {
      Open({{"loops", Number(loops)}, {"preview", "1"}}, limit);
      for (int i = 0; i < 60; ++i) {
        Words words(1 + random() % 70);
        for (std::string& word : words) {
          word = vocabulary[random() % vocabulary.size()];
        }
        parser.texts["m"].clear();
        for (const std::string& word : words) {
          parser.texts["m"] += word + " ";
        }
        Write("");
        SetDebugMask(0);
        input->Process();
        std::vector<Words> snippets;
        while (input->GetActiveMessageID() != 0) {
          snippets.push_back(input->GetWords());
        }
        ASSERT_EQ(model::Snippets(words, limit, loops), snippets)
            << limit << " " << loops << " " << parser.texts["m"];
      }
    }
  }
}

TEST_F(MessageIdTest, UsesNoNumberForAFileWithoutWords) {
  Open();
  Activate("one");
  const int first = input->GetActiveMessageID();
  input->GetWords();
  Scan();
  Write("..");
  Scan();
  Scan();
  Activate("two");
  EXPECT_EQ(first + 1, input->GetActiveMessageID());
}

TEST_F(MessageIdTest, SharesTheNumbersWithAllOtherDirectories) {
  Open();
  Activate("one");
  const int first = input->GetActiveMessageID();
  const TemporaryDirectory other_directory;
  std::unique_ptr<InputDirectory> other;
  LogOf([&] {
    other = Build({{"type", "local"}, {"path", other_directory.path}});
    other->SetFileParser(&parser);
    other->Process();
    other_directory.Write("n", "text");
    other->Process();
  });
  EXPECT_EQ(first + 1, other->GetActiveMessageID());
  other.reset();
  Scan();
  Activate("two");
  EXPECT_EQ(first + 2, input->GetActiveMessageID());
}

}  // namespace

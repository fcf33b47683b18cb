#include "glossary.h"

#include <random>
#include <type_traits>

#include "model/text.h"
#include "test_util.h"

namespace {

static_assert(!std::is_copy_constructible_v<Glossary> && !std::is_copy_assignable_v<Glossary>);

class GlossaryTest : public testing::Test {
 protected:
  const std::string& Write(const std::string& content_) {
    glossary_path = directory.Write("glossary.xml", content_);
    return glossary_path;
  }
  // A glossary of these entries: written word and speech text.
  Glossary Load(const std::vector<std::pair<std::string, std::string>>& entries_) {
    std::string content = "<glossary>";
    for (const auto& [text, speech] : entries_) {
      content += "<word text=\"" + text + "\" speech=\"" + speech + "\"/>";
    }
    return Glossary(Write(content + "</glossary>"));
  }
  // The failure to load this content, and the log of it.
  void ExpectFailure(const std::string& reason_, const std::string& content_) {
    const std::string& path = Write(content_);
    EXPECT_EQ(reason_ + "\n", LogOf([&] {
                EXPECT_EQ("Reading glossary " + path + ": " + reason_,
                          ThrownText([&] { const Glossary glossary(path); }));
              }))
        << content_;
  }

  const TemporaryDirectory directory;
  std::string glossary_path;
};

TEST_F(GlossaryTest, ReplacesTheWordsThatItHas) {
  const Glossary glossary = Load({{"Dr", "doctor"}, {"km/h", "kilometres per hour"}, {"é", "ä ö"}});
  EXPECT_EQ("doctor", glossary.SubstituteSpeech("Dr"));
  EXPECT_EQ("kilometres per hour", glossary.SubstituteSpeech("km/h"));
  EXPECT_EQ("ä ö", glossary.SubstituteSpeech("é"));
  EXPECT_EQ("other", glossary.SubstituteSpeech("other"));
}

TEST_F(GlossaryTest, KeepsFullStopsAndCommasAroundAWord) {
  const Glossary glossary = Load({{"Dr", "doctor"}});
  const struct {
    const char* word;
    const char* spoken;
  } rows[] = {{"Dr.,", "doctor.,"},         {"..Dr", "..doctor"}, {"Dr...", "doctor..."},
              {",.,Dr.,.", ",.,doctor.,."}, {".Dr", ".doctor"},   {"Dr,", "doctor,"}};
  for (const auto& [word, spoken] : rows) {
    EXPECT_EQ(spoken, glossary.SubstituteSpeech(word)) << word;
  }
}

TEST_F(GlossaryTest, ComparesExactly) {
  const Glossary glossary = Load({{"Dr", "doctor"}, {"Dr!", "doctor!!"}});
  EXPECT_EQ("doctor!!", glossary.SubstituteSpeech("Dr!"));
  EXPECT_EQ(".doctor!!,", glossary.SubstituteSpeech(".Dr!,"));
  for (const std::string word :
       {"dr", "DR", "D", "Drs", " Dr", "Dr ", "Dr?", "(Dr)", "Dr.!", "D.r", "!Dr", "..dr..", ""}) {
    EXPECT_EQ(word, glossary.SubstituteSpeech(word)) << '"' << word << '"';
  }
}

TEST_F(GlossaryTest, LooksUpASingleFullStopOrComma) {
  const Glossary glossary = Load({{".", "full stop"}, {",", "comma"}});
  EXPECT_EQ("full stop", glossary.SubstituteSpeech("."));
  EXPECT_EQ("comma", glossary.SubstituteSpeech(","));
  // The last character is looked up, and the first one is replaced.
  EXPECT_EQ("full stop..", glossary.SubstituteSpeech("..."));
  EXPECT_EQ(".comma", glossary.SubstituteSpeech(".,"));
  EXPECT_EQ(",full stop", glossary.SubstituteSpeech(",."));
}

TEST_F(GlossaryTest, ReplacesFromTheFirstByteThatIsInTheKey) {
  const Glossary glossary = Load({{"a.b", "speech"}, {"x,y", "other"}});
  EXPECT_EQ("speech", glossary.SubstituteSpeech("a.b"));
  EXPECT_EQ("speechb", glossary.SubstituteSpeech(".a.b"));
  EXPECT_EQ("speech.b", glossary.SubstituteSpeech("..a.b"));
  EXPECT_EQ(",speech.", glossary.SubstituteSpeech(",a.b."));
  EXPECT_EQ(".otherx,y", glossary.SubstituteSpeech(".,,,x,y"));
}

TEST_F(GlossaryTest, LooksUpAnEmptyWord) {
  EXPECT_EQ("silence", Load({{"", "silence"}}).SubstituteSpeech(""));
  EXPECT_EQ("", Load({{"Dr", "doctor"}}).SubstituteSpeech(""));
  EXPECT_EQ(".", Load({{"", "silence"}}).SubstituteSpeech("."));
}

TEST_F(GlossaryTest, AcceptsAnEmptySpeech) {
  const Glossary glossary = Load({{"uh", ""}});
  EXPECT_EQ("", glossary.SubstituteSpeech("uh"));
  EXPECT_EQ("..,", glossary.SubstituteSpeech("..uh,"));
}

TEST_F(GlossaryTest, KeepsTheFirstOfSeveralEntries) {
  const Glossary glossary = Load({{"a", "first"}, {"b", "other"}, {"a", "second"}, {"a", ""}});
  EXPECT_EQ("first", glossary.SubstituteSpeech("a"));
  EXPECT_EQ("other", glossary.SubstituteSpeech("b"));
}

TEST_F(GlossaryTest, SubstitutesAWordOnlyOnce) {
  const Glossary glossary = Load({{"a", "b"}, {"b", "c"}});
  EXPECT_EQ("b", glossary.SubstituteSpeech("a"));
}

TEST_F(GlossaryTest, ReadsOnlyTheWordsBelowItsRoot) {
  const Glossary glossary(
      Write("<?xml version='1.0'?>\n<!-- words -->\n"
            "<glossary version='2'>\n"
            "  text <other text='b' speech='no'/>\n"
            "  <word text='a' speech='&lt;A&gt; &amp; &quot;B&quot;' more='x'>ignored</word>\n"
            "  <group><word text='c' speech='no'/><word/></group>\n"
            "  <Word text='d' speech='no'/>\n"
            "</glossary>\n"));
  EXPECT_EQ("<A> & \"B\"", glossary.SubstituteSpeech("a"));
  for (const std::string word : {"b", "c", "d"}) {
    EXPECT_EQ(word, glossary.SubstituteSpeech(word));
  }
}

TEST_F(GlossaryTest, LogsNothingInTheNormalClassOnSuccess) {
  Write("<glossary><word text='a' speech='b'/></glossary>");
  EXPECT_EQ("", LogOf([&] { Glossary(glossary_path).SubstituteSpeech("a"); }));
}

TEST_F(GlossaryTest, FailsWithoutAFile) {
  const std::string path = directory / "missing";
  const std::string reason = "Could not open \"" + path + "\" for reading";
  EXPECT_EQ(reason + "\n", LogOf([&] {
              EXPECT_EQ("Reading glossary " + path + ": " + reason,
                        ThrownText([&] { const Glossary glossary(path); }));
            }));
}

TEST_F(GlossaryTest, FailsWithoutItsRoot) {
  for (const char* const content :
       {"", " ", "<!-- no root -->", "<words/>", "<Glossary/>", "<words><glossary/></words>"}) {
    ExpectFailure("No \"glossary\" root element", content);
  }
}

TEST_F(GlossaryTest, FailsForAWordWithoutAnAttribute) {
  ExpectFailure("Element word has no attribute text", "<glossary><word speech='b'/></glossary>");
  ExpectFailure("Element word has no attribute speech", "<glossary><word text='a'/></glossary>");
  ExpectFailure("Element word has no attribute text", "<glossary><word/></glossary>");
  ExpectFailure("Element word has no attribute speech",
                "<glossary><word text='a' speech='b'/><word text='c' Speech='d'/></glossary>");
}

TEST_F(GlossaryTest, AgreesWithTheModel) {
  std::mt19937 random(20261120);
  const auto random_text = [&random](const std::string& alphabet_, size_t max_length_) {
    std::string text;
    for (size_t length = random() % (max_length_ + 1); length > 0; --length) {
      text += alphabet_[random() % alphabet_.size()];
    }
    return text;
  };
  size_t substituted = 0;
  for (int round = 0; round < 20; ++round) {
    std::vector<std::pair<std::string, std::string>> entries;
    for (int i = 0; i < 60; ++i) {
      entries.emplace_back(random_text("aabB.,!", 4), random_text("aX., ", 6));
    }
    // A map keeps the first of several entries, too.
    const std::map<std::string, std::string> map(entries.begin(), entries.end());
    const Glossary glossary = Load(entries);
    for (int i = 0; i < 5000; ++i) {
      const std::string word = random_text("aabB..,,!", 7);
      const std::string spoken = glossary.SubstituteSpeech(word);
      ASSERT_EQ(model::Speech(map, word), spoken) << "word \"" << word << "\" in " << glossary_path;
      substituted += spoken != word ? 1 : 0;
    }
  }
  EXPECT_GT(substituted, 10000U);  // The words and entries do meet.
}

}  // namespace

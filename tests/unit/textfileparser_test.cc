#include "textfileparser.h"

#include "stand_ins/files.h"
#include "stand_ins/heap.h"
#include "test_util.h"

namespace {

// The results for one file.
struct Outcome {
  std::string text;
  std::string log;
  std::string dump;
};

void ExpectOutcome(const std::string& text_, const std::string& log_, const std::string& dump_,
                   const Outcome& outcome_) {
  EXPECT_EQ(text_, outcome_.text);
  EXPECT_EQ(log_, outcome_.log);
  EXPECT_EQ(dump_, outcome_.dump);
}

constexpr char kReplacement[] = "\xEF\xBF\xBD";

class TextFileParserTest : public testing::Test {
 protected:
  Outcome Parse(const std::string& encoding_, const std::string& content_,
                unsigned int mask_ = kDebugAvailable) {
    directory.Write("message", content_);
    return ParseMessage(encoding_, mask_);
  }
  Outcome ParseMessage(const std::string& encoding_, unsigned int mask_ = kDebugAvailable) {
    const std::unique_ptr<const FileParser> parser = std::make_unique<TextFileParser>(encoding_);
    Outcome outcome;
    outcome.dump = OutputOf(
        [&] { outcome.log = LogOf([&] { outcome.text = parser->ParseFile(path); }, mask_); });
    return outcome;
  }
  // The whole log of a valid text.
  std::string ValidLog(const std::string& text_) const {
    return "Original is valid UTF-8\n" + FromLine(text_);
  }
  std::string ReplacedLog(const std::string& text_) const {
    return "Re-encoding file to UTF-8\nre-encode\n" + FromLine(text_);
  }
  std::string Utf16Log(const std::string& text_) const {
    return "Encoding from UTF-16 to UTF-8\n" + FromLine(text_);
  }
  std::string FromLine(const std::string& text_) const {
    return "From " + path + ": " + text_ + "\n";
  }

  const TemporaryDirectory directory;
  const std::string path = directory / "message";
};

// Text with zero bytes in it.
std::string Bytes(const char* bytes_, size_t length_) { return std::string(bytes_, length_); }

TEST_F(TextFileParserTest, ReturnsValidUtf8AsItIs) {
  for (const std::string text : {"", "plain", "two\r\nlines\n", "añejo ¿Qué?", "\uFEFFafter a mark",
                                 "日本 \xF0\x9F\x98\x80"}) {
    ExpectOutcome(text, ValidLog(text), "", Parse("utf8", text));
  }
}

TEST_F(TextFileParserTest, TreatsAnyOtherEncodingAsUtf8) {
  for (const std::string encoding : {"utf8", "", "UTF-8", "utf-16", "UTF16", "ASCII", "latin1"}) {
    EXPECT_EQ("é", Parse(encoding, "é").text) << encoding;
    EXPECT_EQ(kReplacement, Parse(encoding, "\xE9").text) << encoding;
  }
}

TEST_F(TextFileParserTest, KeepsAZeroByteInTheTextButNotInTheLog) {
  const std::string text("before\0after", 12);
  const Outcome outcome = Parse("utf8", text);
  EXPECT_EQ(text, outcome.text);
  EXPECT_EQ(ValidLog("before"), outcome.log);
}

TEST_F(TextFileParserTest, ReplacesInvalidUtf8) {
  const struct {
    const char* content;
    const char* text;
    const char* dump;
  } rows[] = {
      {"a\xFF.", "a\uFFFD.", "0x61 0xef 0xbf 0xbd 0x2e \n\r"},
      {"\xC3", "\uFFFD", "0xef 0xbf 0xbd \n\r"},
      {"\xC0\x80.", "\uFFFD.", "0xef 0xbf 0xbd 0x2e \n\r"},
      {"\xED\xA0\x80.", "\uFFFD.", "0xef 0xbf 0xbd 0x2e \n\r"},
      {"\x80\x81", "\uFFFD\uFFFD", "0xef 0xbf 0xbd 0xef 0xbf 0xbd \n\r"},
      {"\n\xE2\x82\t", "\n\uFFFD\t", "0x0a 0xef 0xbf 0xbd 0x09 \n\r"},
      {"é\xF0\x9F\x98", "é\uFFFD", "0xc3 0xa9 0xef 0xbf 0xbd \n\r"},
  };
  for (const auto& [content, text, dump] : rows) {
    ExpectOutcome(text, ReplacedLog(text), dump, Parse("utf8", content));
  }
}

TEST_F(TextFileParserTest, DumpsReplacedBytesWithEveryMask) {
  const Outcome outcome = Parse("utf8", "\xFF", 0);
  EXPECT_EQ("", outcome.log);
  EXPECT_EQ("0xef 0xbf 0xbd \n\r", outcome.dump);
}

TEST_F(TextFileParserTest, DumpsInOneWriteAfterBufferedOutput) {
  directory.Write("message", std::string(65533, 'a') + "\xFF");
  const std::string dump = Repeat("0x61 ", 65533) + "0xef 0xbf 0xbd \n\r";
  stand_ins::files.writes_to_stdout.clear();
  const auto print_and_parse = [&] {
    printf("before ");
    SetDebugMask(0);
    TextFileParser("utf8").ParseFile(path);
    SetDebugMask(kDebugDefault);
  };
  EXPECT_EQ("before " + dump, OutputOf(print_and_parse));
  EXPECT_THAT(stand_ins::files.writes_to_stdout, testing::ElementsAre(dump.size()));
}

TEST_F(TextFileParserTest, LogsInTheNormalClassUnlessItIsAboutUtf16) {
  EXPECT_EQ(ValidLog("a"), Parse("utf8", "a", kDebugNormal).log);
  EXPECT_EQ(ReplacedLog(kReplacement), Parse("utf8", "\xFF", kDebugNormal).log);
  EXPECT_EQ(FromLine("a"), Parse("utf16", Bytes("a\0", 2), kDebugNormal).log);
  EXPECT_EQ("Encoding from UTF-16 to UTF-8\n", Parse("utf16", "a", kDebugTrace).log);
}

TEST_F(TextFileParserTest, ReadsTheFirst65536Bytes) {
  for (const size_t length : {65535U, 65536U, 65537U, 70000U}) {
    const std::string content = Repeat("0123456789", length / 10 + 1).substr(0, length);
    const std::string text = content.substr(0, 65536);
    const Outcome outcome = Parse("utf8", content);
    EXPECT_EQ(text, outcome.text) << length;
    EXPECT_EQ(ValidLog(text), outcome.log) << length;
  }
}

TEST_F(TextFileParserTest, ReplacesACharacterThatTheLimitCuts) {
  const std::string start(65535, 'a');
  const Outcome outcome = Parse("utf8", start + "é");
  EXPECT_EQ(start + kReplacement, outcome.text);
  EXPECT_EQ(Repeat("0x61 ", 65535) + "0xef 0xbf 0xbd \n\r", outcome.dump);
  EXPECT_EQ(start.substr(1) + "é", Parse("utf8", start.substr(1) + "éé").text);
}

TEST_F(TextFileParserTest, TreatsAnUnreadableFileAsEmpty) {
  for (const std::string encoding : {"utf8", "ascii"}) {
    const Outcome outcome = ParseMessage(encoding);
    EXPECT_EQ("", outcome.text);
    EXPECT_EQ(ValidLog(""), outcome.log) << encoding;
    EXPECT_EQ("", outcome.dump);
  }
  EXPECT_EQ(Utf16Log(""), ParseMessage("utf16").log);
  directory.MakeDirectory("message");
  EXPECT_EQ(ValidLog(""), ParseMessage("utf8").log);
  ASSERT_EQ(0, rmdir(path.c_str()));
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  EXPECT_EQ(ValidLog(""), ParseMessage("utf8").log);
  ASSERT_EQ(0, unlink(path.c_str()));
  ASSERT_EQ(0, symlink("/dev/zero", path.c_str()));
  EXPECT_EQ(ValidLog(""), ParseMessage("utf8").log);
}

TEST_F(TextFileParserTest, YieldsNothingWithoutMemory) {
  directory.Write("message", std::string(20000, 'x'));
  EXPECT_EQ("Unable to read " + path + ": std::bad_alloc\n", LogOf([&] {
              const TextFileParser parser("utf8");
              stand_ins::failing_request = 10000;
              EXPECT_EQ("", parser.ParseFile(path));
              stand_ins::failing_request = SIZE_MAX;
            }));
}

TEST_F(TextFileParserTest, ConvertsUtf16) {
  const struct {
    std::string content;
    std::string text;
  } rows[] = {
      {"", ""},
      {Bytes("A\0B\0", 4), "AB"},
      {Bytes("\xE9\0\xAC\x20", 4), "é€"},
      {Bytes("\xFF\xFE\x41\0", 4), "\uFEFFA"},       // The mark is a character like any other.
      {Bytes("\xFE\xFF\0\x41", 4), "\uFFFE\u4100"},  // No other byte order.
      {Bytes("\x3D\xD8\0\xDE", 4), "\xF0\x9F\x98\x80"},
      {Bytes("\0\xD8\0\xDC\xFF\xDB\xFF\xDF", 8), "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
      {Bytes("\xFF\xD7\0\xE0\xFF\xFF", 6), "\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"},
      // The odd last byte is a unit by itself.
      {"A", "A"},
      {Bytes("A\0B", 3), "AB"},
      {Bytes("A\0\xE9", 3), "Aé"},
  };
  for (const auto& [content, text] : rows) {
    ExpectOutcome(text, Utf16Log(text), "", Parse("utf16", content));
  }
}

TEST_F(TextFileParserTest, YieldsNothingForUnpairedSurrogates) {
  const std::string rows[] = {
      Bytes("\0\xD8\x41\0", 4),     // High, then a letter.
      Bytes("\0\xD8", 2),           // High at the end.
      Bytes("\0\xD8\0\xD8", 4),     // High twice.
      Bytes("\0\xDC", 2),           // Low alone.
      Bytes("\0\xDC\0\xD8", 4),     // Low before high.
      Bytes("A\0B\0\xFF\xDF", 6),   // Low after valid characters.
      Bytes("A\0\xFF\xDB\xDC", 5),  // High, then half of a low one.
  };
  for (const std::string& content : rows) {
    const Outcome outcome = Parse("utf16", content);
    EXPECT_EQ("", outcome.text);
    EXPECT_EQ(
        "Encoding from UTF-16 to UTF-8\n"
        "Error converting from UTF-16 to UTF-8: Invalid UTF-16\n" +
            FromLine(""),
        outcome.log);
  }
  EXPECT_EQ("Error converting from UTF-16 to UTF-8: Invalid UTF-16\n" + FromLine(""),
            Parse("utf16", rows[0], kDebugNormal).log);
}

TEST_F(TextFileParserTest, ReadsTheFirst32768Utf16Units) {
  const std::string start = Repeat(Bytes("a\0", 2), 32767);
  const std::string text(32767, 'a');
  EXPECT_EQ(text + "b", Parse("utf16", start + Bytes("b\0c\0", 4)).text);
  const Outcome cut_pair = Parse("utf16", start + Bytes("\x3D\xD8\0\xDE", 4));
  EXPECT_EQ("", cut_pair.text);
  EXPECT_EQ(
      "Encoding from UTF-16 to UTF-8\n"
      "Error converting from UTF-16 to UTF-8: Invalid UTF-16\n" +
          FromLine(""),
      cut_pair.log);
}

TEST_F(TextFileParserTest, ConvertsExtendedAscii) {
  const struct {
    std::string content;
    const char* text;
  } rows[] = {
      {"", ""},
      {"plain\n", "plain\n"},
      {"\xA4", "ñ"},
      {"\xA8Qu\xE9?", "¿Qué?"},
      {"\xAD\xA5\xA0\xA1\xA2\xA3!", "¡Ñáíóú!"},
      {"\xBF", "\u009F"},
      {Bytes("\0a\0b", 4), "ab"},
      {Bytes("\0", 1), ""},
  };
  for (const auto& [content, text] : rows) {
    ExpectOutcome(text, ValidLog(text), "", Parse("ascii", content));
  }
}

TEST_F(TextFileParserTest, ReplacesExtendedAsciiWithoutCharacter) {
  for (int byte = 0x80; byte <= 0x9F; ++byte) {
    const char shifted = static_cast<char>(byte - 0x20);
    const std::string text = kReplacement + std::string(1, shifted);
    const Outcome outcome = Parse("ascii", std::string(1, static_cast<char>(byte)));
    EXPECT_EQ(text, outcome.text) << byte;
    EXPECT_EQ(ReplacedLog(text), outcome.log) << byte;
    char dump[64];
    snprintf(dump, sizeof(dump), "0xef 0xbf 0xbd 0x%02x \n\r", static_cast<unsigned int>(shifted));
    EXPECT_EQ(dump, outcome.dump) << byte;
  }
}

TEST_F(TextFileParserTest, LimitsExtendedAsciiBeforeItsConversion) {
  EXPECT_EQ(Repeat("é", 65536), Parse("ascii", std::string(65537, '\xE9')).text);
}

}  // namespace

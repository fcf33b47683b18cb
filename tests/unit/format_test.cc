#include "format.h"

#include <errno.h>
#include <limits.h>

#include "test_util.h"

namespace {

TEST(FormatTest, ReturnsATextWithoutConversionsUnchanged) {
  EXPECT_EQ("plain text\n", Format("plain text\n"));
  EXPECT_EQ("", Format("%s", ""));
}

TEST(FormatTest, FormatsAsPrintfDoes) {
  EXPECT_EQ("12_lobby.text_live_first.raw",
            Format("%u_%s.%s", 12U, "lobby", "text_live_first.raw"));
  EXPECT_EQ("-42 0x0f 100% [  x]", Format("%d 0x%02x 100%% [%3s]", -42, 15U, "x"));
}

TEST(FormatTest, HasNoLimitOfLength) {
  const std::string text(1000000, 'x');
  EXPECT_EQ("<" + text + ">", Format("<%s>", text.c_str()));
}

TEST(FormatTest, YieldsNothingIfTheTextCannotBeFormatted) {
  // A character that the "C" locale does not have.
  EXPECT_EQ("", WholeLogOf([] { EXPECT_EQ("", Format("wide %ls", L"\x20AC")); }));
}

TEST(ParseIntegerTest, AcceptsNumbers) {
  const struct {
    const char* text;
    int value;
  } rows[] = {
      {"0", 0},
      {"-0", 0},
      {"7", 7},
      {"-7", -7},
      {"+7", 7},
      {" 12", 12},
      {"\t\n\v\f\r -12", -12},
      {"010", 10},
      {"017", 17},
      {"-010", -10},
      {"0000000000000000000000000000001", 1},
      {"0x0", 0},
      {"0x1F", 31},
      {"0x10", 16},
      {"0xabcdef", 0xABCDEF},
      {"-0x10", -16},
      {"+0x10", 16},
      {" 0x1F", 31},
      {"2147483646", INT_MAX - 1},
      {"2147483647", INT_MAX},
      {"-2147483647", INT_MIN + 1},
      {"-2147483648", INT_MIN},
      {"0x7FFFFFFF", INT_MAX},
      {"-0x80000000", INT_MIN},
  };
  for (const auto& [text, value] : rows) {
    EXPECT_EQ(value, ParseInteger(text)) << '"' << text << '"';
  }
}

TEST(ParseIntegerTest, RejectsOtherTexts) {
  const char* const rows[] = {
      // No number, or more than a number.
      "", " ", "\t", "-", "+", "x", "--7", "+-7", "- 7", "12 ", "12\n", "1 2", "12x", "1.5", "1.0",
      "1e3", "1,000", "12%", "\u00A012",
      // Not hexadecimal.
      "1F", "0X1F", "0X10", "0x", "-0x", "0x1G", "0x1F ", "0x 1F", "0x-1F", "x10",
      // "0x" somewhere else: the automatic base, and the number ends before it.
      "1 0x2", "00x10", "10x2", "0x1 0x2", "010 0x", "080x",
      // Outside of the range.
      "2147483648", "-2147483649", "0x80000000", "-0x80000001", "0xFFFFFFFF", "4294967296",
      "99999999999", "-99999999999", "9223372036854775807", "9223372036854775808",
      "-9223372036854775808", "-9223372036854775809", "99999999999999999999999999",
      "0xFFFFFFFFFFFFFFFFFFFF"};
  for (const std::string text : rows) {
    EXPECT_EQ("Could not convert \"" + text + "\" to integer",
              ThrownText([&] { ParseInteger(text); }))
        << '"' << text << '"';
  }
}

TEST(ParseIntegerTest, RejectsAZeroByteAnywhere) {
  const struct {
    std::string text;
    const char* shown;
  } rows[] = {
      {std::string("\0", 1), ""},       {std::string("\00012", 3), ""},
      {std::string("12\0", 3), "12"},   {std::string("12\00034", 5), "12"},
      {std::string("1\0000x", 4), "1"}, {std::string("010\0000x", 6), "010"},
  };
  for (const auto& [text, shown] : rows) {
    EXPECT_EQ(std::string("Could not convert \"") + shown + "\" to integer",
              ThrownText([&t = text] { ParseInteger(t); }));
  }
}

TEST(ParseIntegerTest, IgnoresAnOlderError) {
  errno = ERANGE;
  EXPECT_EQ(12, ParseInteger("12"));
}

TEST(AddTrailingSlashTest, AddsASlashWhereThereIsNone) {
  const struct {
    const char* path;
    const char* with_slash;
  } rows[] = {{"a", "a/"},  {"a/", "a/"},   {"", ""},          {"/", "/"},
              {"//", "//"}, {"a//", "a//"}, {"/a/b", "/a/b/"}, {".", "./"}};
  for (const auto& [path, with_slash] : rows) {
    EXPECT_EQ(with_slash, AddTrailingSlash(path)) << '"' << path << '"';
  }
}

TEST(ListToStringTest, JoinsWithBars) {
  using List = std::list<std::string>;
  EXPECT_EQ("", ListToString(List{}));
  EXPECT_EQ("a", ListToString(List{"a"}));
  EXPECT_EQ("a|b|c", ListToString(List{"a", "b", "c"}));
  EXPECT_EQ("a|b||", ListToString(List{"a|b", "", ""}));
}

TEST(ListToStringTest, AddsNoBarForEmptyWordsAtTheHead) {
  using List = std::list<std::string>;
  EXPECT_EQ("a", ListToString(List{"", "a"}));
  EXPECT_EQ("a|b", ListToString(List{"", "", "a", "b"}));
  EXPECT_EQ("", ListToString(List{"", "", ""}));
  EXPECT_EQ("a||b|", ListToString(List{"", "a", "", "b", ""}));
}

}  // namespace

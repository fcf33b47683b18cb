#include "charencoding.h"

#include <set>

#include "model/text.h"
#include "test_util.h"

namespace {

// All code points of the ranges, ends included.
std::set<uint32_t> Points(const std::vector<std::pair<uint32_t, uint32_t>>& ranges_) {
  std::set<uint32_t> points;
  for (const auto& [first, last] : ranges_) {
    for (uint32_t cp = first; cp <= last; ++cp) {
      points.insert(cp);
    }
  }
  return points;
}

void ExpectTrueExactlyFor(const std::set<uint32_t>& points_, bool (*classifier_)(uint32_t)) {
  for (uint32_t cp = 0; cp <= 0x200; ++cp) {
    EXPECT_EQ(points_.count(cp) == 1, classifier_(cp)) << std::hex << cp;
  }
  // Code points whose low byte or low half belongs to a class must be false too.
  for (const uint32_t cp :
       {0x2003U, 0x2020U, 0x202FU, 0x3000U, 0x4141U, 0xFFFFU, 0x10020U, 0x10041U, 0x1F3A0U,
        0x10FFFFU, 0x110000U, 0x80000020U, 0xFFFFFF20U, 0xFFFFFF41U, 0xFFFFFFFFU}) {
    EXPECT_FALSE(classifier_(cp)) << std::hex << cp;
  }
}

std::string Hex(const std::string& bytes_) {
  std::string hex;
  char digits[4];
  for (const char c : bytes_) {
    snprintf(digits, sizeof(digits), "%02X ", static_cast<unsigned int>(c) & 0xFF);
    hex += digits;
  }
  return hex.substr(0, hex.empty() ? 0 : hex.size() - 1);
}

TEST(CharacterClassTest, HasLettersAndNumbers) {
  ExpectTrueExactlyFor(
      Points({{0x30, 0x3F}, {0x41, 0x5A}, {0x61, 0x7A}, {0xC0, 0xD6}, {0xD8, 0xF6}, {0xF8, 0xFF}}),
      Utf8IsLetterOrNum);
}

TEST(CharacterClassTest, HasBreaks) {
  ExpectTrueExactlyFor({0x20, 0x21, 0x2C, 0x2E, 0x3A, 0x3B, 0x3F, 0xA0}, Utf8IsBreak);
}

TEST(CharacterClassTest, HasSpaces) { ExpectTrueExactlyFor({0x20, 0xA0}, Utf8IsSpace); }

TEST(CharacterClassTest, HasControls) {
  ExpectTrueExactlyFor(Points({{0x00, 0x1F}, {0x7F, 0x9F}}), Utf8IsControl);
}

TEST(ExtAsciiToUtf8CharTest, ConvertsAll256Bytes) {
  for (unsigned int byte = 0; byte < 256; ++byte) {
    EXPECT_EQ(Hex(model::FromExtendedAscii(static_cast<unsigned char>(byte))),
              Hex(ExtAsciiToUtf8Char(static_cast<char>(byte))))
        << std::hex << byte;
  }
}

TEST(ExtAsciiToUtf8CharTest, ConvertsTheEdgesOfItsRanges) {
  const struct {
    char byte;
    const char* hex;
  } rows[] = {{'\x00', ""},      {'\x01', "01"},    {'\x7F', "7F"},    {'\x80', "C2 60"},
              {'\x9F', "C2 7F"}, {'\xA0', "C3 A1"}, {'\xA1', "C3 AD"}, {'\xA2', "C3 B3"},
              {'\xA3', "C3 BA"}, {'\xA4', "C3 B1"}, {'\xA5', "C3 91"}, {'\xA6', "C2 86"},
              {'\xA7', "C2 87"}, {'\xA8', "C2 BF"}, {'\xA9', "C2 89"}, {'\xAC', "C2 8C"},
              {'\xAD', "C2 A1"}, {'\xAE', "C2 8E"}, {'\xBF', "C2 9F"}, {'\xC0', "C3 80"},
              {'\xD7', "C3 97"}, {'\xE9', "C3 A9"}, {'\xFF', "C3 BF"}};
  for (const auto& [byte, hex] : rows) {
    EXPECT_EQ(hex, Hex(ExtAsciiToUtf8Char(byte))) << hex;
  }
}

TEST(ExtAsciiToUtf8StringTest, ConvertsEveryByteInOrder) {
  EXPECT_EQ("", ExtAsciiToUtf8String(""));
  EXPECT_EQ("café", ExtAsciiToUtf8String("caf\xE9"));
  EXPECT_EQ("¿Qué?", ExtAsciiToUtf8String("\xA8Qu\xE9?"));
  std::string all;
  std::string expected;
  for (unsigned int byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
    expected += model::FromExtendedAscii(static_cast<unsigned char>(byte));
  }
  EXPECT_EQ(Hex(expected), Hex(ExtAsciiToUtf8String(all)));
}

TEST(ExtAsciiToUtf8StringTest, DropsZeroBytes) {
  EXPECT_EQ("ab", ExtAsciiToUtf8String(std::string("\0a\0\0b\0", 6)));
  EXPECT_EQ("", ExtAsciiToUtf8String(std::string(3, '\0')));
}

TEST(Utf8Test, FindsAndReplacesInvalidSequences) {
  const struct {
    std::string text;
    const char* replaced;  // The same text if it was valid.
  } rows[] = {
      {"", ""},
      {"plain", "plain"},
      {"\x7F", "\x7F"},
      {"\xC2\x80 \xDF\xBF", "\xC2\x80 \xDF\xBF"},
      {"\xE0\xA0\x80 \xED\x9F\xBF \xEE\x80\x80 \xEF\xBF\xBF",
       "\xE0\xA0\x80 \xED\x9F\xBF \xEE\x80\x80 \xEF\xBF\xBF"},
      {"\xF0\x90\x80\x80 \xF4\x8F\xBF\xBF", "\xF0\x90\x80\x80 \xF4\x8F\xBF\xBF"},
      {"\uFEFFmark", "\uFEFFmark"},
      // One mark for each byte that cannot begin a sequence.
      {"a\xFF.", "a\uFFFD."},
      {"\x80", "\uFFFD"},
      {"\x80\x80", "\uFFFD\uFFFD"},
      {"\xFF\xFE", "\uFFFD\uFFFD"},
      {"\xF8\x88\x80\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},
      // One mark for a whole sequence that is cut short, overlong or no character.
      {"\xC3(", "\uFFFD("},
      {"\xE2\x82.", "\uFFFD."},
      {"\xC3", "\uFFFD"},
      {"a\xE2\x82", "a\uFFFD"},
      {"a\xF0\x9F\x98", "a\uFFFD"},
      {"\xC0\x80.", "\uFFFD."},
      {"\xE0\x80\x80.", "\uFFFD."},
      {"\xED\xA0\x80.", "\uFFFD."},
      {"\xED\xBF\xBF.", "\uFFFD."},
      {"\xF4\x90\x80\x80.", "\uFFFD."},
      {"\xF5\x80\x80\x80.", "\uFFFD."},
  };
  for (const auto& [text, replaced] : rows) {
    EXPECT_EQ(text == replaced, Utf8IsValid(text)) << Hex(text);
    EXPECT_EQ(Hex(replaced), Hex(Utf8ReplaceInvalid(text))) << Hex(text);
    EXPECT_TRUE(Utf8IsValid(replaced)) << Hex(text);
  }
}

TEST(Utf8Test, KeepsZeroBytes) {
  const std::string text("a\0b\xFF\0", 5);
  EXPECT_TRUE(Utf8IsValid(text.substr(0, 3)));
  EXPECT_FALSE(Utf8IsValid(text));
  EXPECT_EQ(std::string("a\0b\uFFFD\0", 7), Utf8ReplaceInvalid(text));
}

}  // namespace

// What was made fast against the plain version of it.

#include <string.h>
#include <utf8.h>

#include <algorithm>
#include <list>
#include <random>
#include <string_view>
#include <vector>

#include "charencoding.h"
#include "crc.h"
#include "directory.h"
#include "inputdirectory.h"
#include "retelling.h"
#include "test_util.h"
#include "xml.h"

namespace {

uint16_t BitwiseCRC(uint16_t crc, const uint8_t* data, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    crc = static_cast<uint16_t>(crc ^ data[i]);
    for (int bit = 0; bit < 8; ++bit) {
      crc = static_cast<uint16_t>((crc & 1) != 0 ? (crc >> 1) ^ 0x8408 : crc >> 1);
    }
  }
  return crc;
}

TEST(ReferenceTest, CRCAgreesAtEveryLengthAndAlignment) {
  std::mt19937 random(1);
  std::vector<uint8_t> bytes(200);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
  for (size_t start = 0; start < 16; ++start) {
    for (size_t length = 0; start + length <= bytes.size(); ++length) {
      const auto initial = static_cast<uint16_t>(random());
      EXPECT_EQ(BitwiseCRC(initial, &bytes[start], length), CRC(initial, &bytes[start], length))
          << start << " " << length;
    }
  }
}

bool IsValidToUtfcpp(const std::string& text) {
  return utf8::find_invalid(text.begin(), text.end()) == text.end();
}

TEST(ReferenceTest, Utf8CheckAgreesOnEveryCodePoint) {
  for (uint32_t cp = 0; cp < 0x110000; ++cp) {
    std::string text;
    if (cp < 0xD800 || cp > 0xDFFF) {
      utf8::append(static_cast<char32_t>(cp), std::back_inserter(text));
      ASSERT_EQ(IsValidToUtfcpp(text), Utf8IsValid(text)) << cp;
      ASSERT_TRUE(Utf8IsValid(text)) << cp;
    }
  }
}

// Every lead byte with second bytes of every class and, where they can matter, third and fourth
// ones; cut at every length; at the start and after ASCII text of every length up to 40.
TEST(ReferenceTest, Utf8CheckAgreesOnEverySequence) {
  constexpr int kClasses[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90,
                              0x9F, 0xA0, 0xBF, 0xC0, 0xC2, 0xFF};
  for (int lead = 0x80; lead < 0x100; ++lead) {
    for (int second = 0; second < 0x100; ++second) {
      for (const int third : kClasses) {
        for (const int fourth : kClasses) {
          const char bytes[] = {static_cast<char>(lead), static_cast<char>(second),
                                static_cast<char>(third), static_cast<char>(fourth)};
          for (size_t length = 1; length <= sizeof(bytes); ++length) {
            const std::string text(bytes, length);
            ASSERT_EQ(IsValidToUtfcpp(text), Utf8IsValid(text))
                << lead << " " << second << " " << third << " " << fourth << " " << length;
          }
        }
      }
    }
  }
}

TEST(ReferenceTest, Utf8CheckAgreesWhereverTheOtherBytesStand) {
  for (const std::string sequence : {"\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x9A\x86", "\xFF", "\xC3",
                                     "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xC0\xAF"}) {
    for (size_t before = 0; before <= 40; ++before) {
      for (size_t after = 0; after <= 40; ++after) {
        const std::string text = std::string(before, 'a') + sequence + std::string(after, 'b');
        ASSERT_EQ(IsValidToUtfcpp(text), Utf8IsValid(text)) << before << " " << after;
      }
    }
  }
}

// The words by the second telling of the rules.
retelling::Words PlainWords(const std::string& text) {
  std::vector<uint32_t> code_points;
  for (auto next = text.begin(); next != text.end();) {
    code_points.push_back(utf8::next(next, text.end()));
  }
  return retelling::Splitting(code_points).words;
}

// A scan of a directory with one message: the message's words, handed out at once.
std::list<std::string> WordsOf(const std::string& text) {
  const TemporaryDirectory directory;
  FakeParser parser;
  XMLElement element("directory");
  element.SetAttributeString("type", "local");
  element.SetAttributeString("path", directory.path());
  std::list<std::string> words;
  LogOf([&] {
    InputDirectory input(element, "", "", 1000000);
    input.SetFileParser(&parser);
    input.Process();
    directory.Write("message", text);
    input.Process();
    words = input.GetWords();
  });
  return words;
}

// Letters, breaks, spaces, controls, and what only looks like them, of one to four bytes.
std::string RandomText(std::mt19937& random, size_t characters) {
  constexpr const char* kCharacters[] = {"a",
                                         "b",
                                         "Z",
                                         "-",
                                         " ",
                                         ".",
                                         ",",
                                         "?",
                                         "\n",
                                         "\t",
                                         "\x7F",
                                         "\xC2\x80",
                                         "\xC2\x9F",
                                         "\xC2\xA0",
                                         "\xC2\xA1",
                                         "\xC3\x80",
                                         "\xC3\xBF",
                                         "\xC4\x80",
                                         "\xE2\x82\xAC",
                                         "\xF0\x9F\x9A\x86"};
  std::string text;
  for (size_t i = 0; i < characters; ++i) {
    text += kCharacters[random() % (sizeof(kCharacters) / sizeof(kCharacters[0]))];
  }
  return text;
}

TEST(ReferenceTest, WordsAgreeOnRandomTexts) {
  std::mt19937 random(1);
  for (size_t characters = 0; characters < 300; ++characters) {
    const std::string text = RandomText(random, characters);
    EXPECT_EQ(PlainWords(text), WordsOf(text)) << text;
  }
}

TEST(ReferenceTest, WordsAgreeAtTheLimits) {
  for (const size_t length :
       std::initializer_list<size_t>{1, 99, 100, 101, 102, 65535, 65536, 65537, 65600}) {
    for (const std::string letter : {"a", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x9A\x86"}) {
      std::string text;
      for (size_t i = 0; i < length; ++i) {
        text += length > 1000 && i % 7 == 6 ? " " : letter;
      }
      EXPECT_EQ(PlainWords(text), WordsOf(text)) << length << letter;
      EXPECT_EQ(PlainWords(text + "."), WordsOf(text + ".")) << length << letter;
    }
  }
}

// Lines that just fit the place where lines are formatted, and those that just do not.
TEST(ReferenceTest, LogLinesAreWholeWhateverTheirLength) {
  for (size_t length = 72 * 1024 - 3; length <= 72 * 1024 + 3; ++length) {
    const std::string text(length, 'x');
    EXPECT_EQ(text + "\n", LogOf([&] { Debug(kDebugNormal, "%s", text.c_str()); })) << length;
  }
}

// As qsort sorts whole slots.
TEST(ReferenceTest, NamesAreInByteOrderAndWhole) {
  const TemporaryDirectory directory;
  std::mt19937 random(1);
  std::vector<std::string> names;
  for (int i = 0; i < 300; ++i) {
    std::string name;
    const size_t length = i < 250 ? 1 + random() % 20 : 200 + random() % 56;
    while (name.size() < length) {
      const char byte = static_cast<char>(1 + random() % 255);
      if (byte != '/' && (byte != '.' || !name.empty())) {
        name += byte;
      }
    }
    directory.Write(name, "");
    names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  Directory listed(directory.path());
  const std::list<std::string> expected(names.begin(), names.end());
  EXPECT_EQ(expected, listed.GetFileNames());
  for (size_t i = 0; i < names.size(); i += 2) {
    unlink((directory / names[i]).c_str());
  }
  const std::list<std::string> fewer = listed.GetFileNames();
  EXPECT_EQ(names.size() / 2, fewer.size());
  EXPECT_TRUE(std::is_sorted(fewer.begin(), fewer.end()));
}

}  // namespace

#include <utf8.h>

#include <iterator>

#include "charencoding.h"
#include "model/text.h"
#include "test_util.h"

namespace {

TEST(Utf8ModelTest, AgreesOnEveryCodePoint) {
  for (uint32_t cp = 0; cp < 0x110000; ++cp) {
    std::string text;
    if (cp < 0xD800 || cp > 0xDFFF) {
      utf8::append(static_cast<char32_t>(cp), std::back_inserter(text));
      ASSERT_EQ(model::IsUtf8(text), Utf8IsValid(text)) << cp;
      ASSERT_TRUE(Utf8IsValid(text)) << cp;
    }
  }
}

// Sequences of every lead byte with second, third and fourth bytes of every class, cut at every
// length. They are at the start, and after ASCII text of every length up to 40.
TEST(Utf8ModelTest, AgreesOnEverySequence) {
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
            ASSERT_EQ(model::IsUtf8(text), Utf8IsValid(text))
                << lead << " " << second << " " << third << " " << fourth << " " << length;
          }
        }
      }
    }
  }
}

TEST(Utf8ModelTest, AgreesWithAnyBytesAround) {
  for (const std::string sequence : {"\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x9A\x86", "\xFF", "\xC3",
                                     "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xC0\xAF"}) {
    for (size_t before = 0; before <= 40; ++before) {
      for (size_t after = 0; after <= 40; ++after) {
        const std::string text = std::string(before, 'a') + sequence + std::string(after, 'b');
        ASSERT_EQ(model::IsUtf8(text), Utf8IsValid(text)) << before << " " << after;
      }
    }
  }
}

}  // namespace

#include "forms.h"
#include "test_util.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

std::string WithNul(const std::string& text_) { return text_ + '\0'; }

TEST(IsCleanTextTest, RejectsControlCharacters) {
  for (const std::string text : {"", "a b", "\xC3\xA9", "\xC2\xA0", "\xF0\x9F\x94\x94"}) {
    EXPECT_TRUE(IsCleanText(text, false)) << text;
  }
  for (const std::string& text :
       {WithNul(""), std::string("\x1F"), std::string("\x7F"), std::string("\xC2\x80"),
        std::string("a\xC2\x9F"), std::string("\xC2"), std::string("\xFF"), std::string("\r")}) {
    EXPECT_FALSE(IsCleanText(text, true)) << text;
  }
  for (const std::string text : {"a\nb", "\t"}) {
    EXPECT_TRUE(IsCleanText(text, true)) << text;
    EXPECT_FALSE(IsCleanText(text, false)) << text;
  }
}

TEST(DecodePathTest, DecodesOnce) {
  for (const auto& [path, decoded] : std::map<std::string, std::string>{
           {"/", "/"}, {"/a%20b+c", "/a b+c"}, {"/%252e", "/%2e"}, {"/%C3%A9", "/\xC3\xA9"}}) {
    EXPECT_EQ(decoded, DecodePath(path));
  }
}

TEST(DecodePathTest, RejectsPathsOfInvalidText) {
  for (const std::string path :
       {"", "a", "*", "/%", "/%2", "/%2g", "/%00", "/%0a", "/%ff", "/\x01"}) {
    EXPECT_NE("", ThrownText([&] { DecodePath(path); })) << path;
  }
}

TEST(ParseFormTest, DecodesNamesAndValues) {
  EXPECT_THAT(ParseForm("a=1+2&b=%2B%26%3D&%61c=d=e"),
              ElementsAre(Pair("a", "1 2"), Pair("ac", "d=e"), Pair("b", "+&=")));
  EXPECT_THAT(ParseForm("a=1&&b&a=2&"), ElementsAre(Pair("a", "2"), Pair("b", "")));
  EXPECT_THAT(ParseForm(""), IsEmpty());
}

TEST(ParseFormTest, ConvertsLineEnds) {
  EXPECT_THAT(ParseForm("a=1%0D%0A2%0D3%0A%0D%0A"), ElementsAre(Pair("a", "1\n2\n3\n\n")));
}

TEST(ParseFormTest, RejectsInvalidText) {
  for (const std::string body :
       {"=1", "a=%", "a=%ff", "a=%00", "a=\x1b", "a%0a=1", "a=%C3&b=%A9"}) {
    EXPECT_NE("", ThrownText([&] { ParseForm(body); })) << body;
  }
}

TEST(ParseFormTest, LimitsLengthAndNumberOfNames) {
  EXPECT_EQ(1u, ParseForm(std::string(kMaxFieldName, 'a') + "=1").size());
  EXPECT_EQ("a field without a usable name",
            ThrownText([] { ParseForm(std::string(kMaxFieldName + 1, 'a') + "=1"); }));
  EXPECT_EQ(1u, ParseForm(Repeat("a=1&", kMaxFields)).size());
  EXPECT_EQ("too many fields", ThrownText([] { ParseForm(Repeat("a=1&", kMaxFields + 1)); }));
}

TEST(FindCookieTest, FindsTheFirstCookieOfThatName) {
  for (const auto& [header, value] :
       std::map<std::string, std::string>{{"", ""},
                                          {"desk=1", "1"},
                                          {"a=2; desk=1; desk=3", "1"},
                                          {"xdesk=2;desk=1", "1"},
                                          {"desk", ""},
                                          {"desk=", ""},
                                          {"a=desk=1", ""},
                                          {";;  ;desk=a=b;", "a=b"}}) {
    EXPECT_EQ(value, FindCookie(header, "desk")) << header;
  }
}

}  // namespace

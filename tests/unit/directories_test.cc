#include "directories.h"

#include "test_util.h"

namespace {

TEST(PublicPartTest, LeavesOutSecretsAndUnknownAttributes) {
  const std::string secrets =
      " password=\"secret\" username=\"secret\" mount-opts=\"secret\" new=\"secret\"";
  const auto root = ParseXML(
      "<tts-config state=\"run\" key=\"secret\">secret"
      "<directory id=\"far\" type=\"ftp\" path=\"u:secret@host\" subdir=\"secret\" priority=\"2\""
      " parser=\"secret\" conv-opts=\"secret\" display-id=\"yard\"" +
      secrets + "/><directory id=\"odd\" path=\"/secret\"" + secrets +
      "/><directory id=\"near\" type=\"local\" path=\"/in\" subdir=\"sub\" conv-opts=\"voice=en\"" +
      secrets + "><secret/></directory><secret/></tts-config>");
  EXPECT_EQ(
      "<tts-config state=\"run\">\n"
      "    <directory display-id=\"yard\" id=\"far\" priority=\"2\" type=\"ftp\"/>\n"
      "    <directory id=\"odd\"/>\n"
      "    <directory conv-opts=\"voice=en\" id=\"near\" path=\"/in\" subdir=\"sub\""
      " type=\"local\"/>\n"
      "</tts-config>\n",
      DumpOf(*PublicPart(*root)));
}

TEST(PublicPartTest, KeepsParsersAndIsWellFormed) {
  const auto root = ParseXML(
      "<tts-config state=\"run\"><parser id=\"a&amp;&quot;\" type=\"xml\" attr-mode=\"\">"
      "<field tag=\"t\" attr=\"lang\" attr_value=\"&lt;en&gt;\" parent=\"p\"/>"
      "<field tag=\"u\" attr=\"\" attr_value=\"\"/></parser></tts-config>");
  const auto again = ParseXML(DumpOf(*PublicPart(*root)));
  const XMLElement& parser = *again->GetChildren("parser").front();
  EXPECT_EQ("a&\"", parser.GetAttributeString("id"));
  EXPECT_EQ("", parser.GetAttributeString("attr-mode", "-"));
  EXPECT_EQ("<en>", parser.GetChildren("field").front()->GetAttributeString("attr_value"));
  EXPECT_EQ("-", parser.GetChildren("field").back()->GetAttributeString("parent", "-"));
}

}  // namespace

#include "statusfile.h"

#include "test_util.h"

namespace {

constexpr char kStatus[] =
    "<tts-status now-playing=\"7\" output-bound=\"0\" state=\"run\" timestamp=\"12\">\n"
    "    <directory id=\"a\" path=\"/in\" status=\"1\" total-file-count=\"2\" "
    "updated-file-count=\"1\">\n"
    "        <message filename=\"fire.txt\" id=\"7\" plays=\"0\"/>\n"
    "    </directory>\n"
    "    <directory id=\"b\" path=\"\" status=\"0\" total-file-count=\"0\" "
    "updated-file-count=\"0\"/>\n"
    "</tts-status>\n";

std::string WithId(const std::string& id_) {
  return "<tts-status now-playing=\"0\" output-bound=\"0\" state=\"\" timestamp=\"0\">\n"
         "    <directory id=\"" +
         id_ +
         "\" path=\"p\" status=\"1\" total-file-count=\"0\" updated-file-count=\"0\"/>\n"
         "</tts-status>\n";
}

TEST(ParseStatusTest, YieldsTheTreeThatWasDumped) {
  const std::unique_ptr<XMLElement> status = ParseStatus(kStatus);
  ASSERT_TRUE(status);
  EXPECT_EQ(kStatus, DumpOf(*status));
}

TEST(ParseStatusTest, RejectsEveryTruncation) {
  const std::string status = kStatus;
  for (size_t length = 0; length < status.size(); ++length) {
    EXPECT_FALSE(ParseStatus(status.substr(0, length))) << length;
  }
}

TEST(ParseStatusTest, RejectsTextAfterTheEnd) {
  EXPECT_FALSE(ParseStatus(std::string(kStatus) + "x"));
  EXPECT_FALSE(ParseStatus(std::string(kStatus) + kStatus));
}

TEST(ParseStatusTest, TakesValuesByteForByte) {
  for (const std::string id :
       {"", "&", "<", ">", "\"", "a\"b", "/>", "a&amp;b", "two\nlines", "\xFF", "\" \"", "=\""}) {
    const std::unique_ptr<XMLElement> status = ParseStatus(WithId(id));
    ASSERT_TRUE(status) << id;
    EXPECT_EQ(id, status->GetChildren("directory").front()->GetAttributeString("id"));
  }
}

TEST(ParseStatusTest, TakesAStatusWithoutDirectories) {
  EXPECT_TRUE(ParseStatus(
      "<tts-status now-playing=\"0\" output-bound=\"0\" state=\"run\" timestamp=\"0\"/>\n"));
}

TEST(ParseStatusTest, RejectsOtherDocuments) {
  const char without_attributes[] =
      "<tts-status now-playing=\"0\" output-bound=\"0\" state=\"\" timestamp=\"0\">\n"
      "    <directory id=\"a\"/>\n</tts-status>\n";
  for (const char* text :
       {"", "\n", "x\n", "<a/>\n", "</tts-status>\n", "<tts-status/>\n", "<tts-status>\n</x>\n",
        "<tts-status now-playing=\"x\" output-bound=\"0\" state=\"\" timestamp=\"0\"/>\n",
        without_attributes}) {
    EXPECT_FALSE(ParseStatus(text)) << text;
  }
}

TEST(ReadStatusTest, ThrowsForAMissingFile) {
  const TemporaryDirectory directory;
  EXPECT_EQ(directory / "none" + ": No such file or directory",
            ThrownText([&] { ReadStatus(directory / "none"); }));
}

TEST(ReadStatusTest, ThrowsForAnIncompleteFile) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("status", std::string(kStatus).substr(0, 100));
  EXPECT_EQ(path + ": holds no whole status", ThrownText([&] { ReadStatus(path); }));
}

}  // namespace

#include "inbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "test_util.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

TEST(WhyNoMessageTest, AcceptsBytesThatAreValidInTheEncoding) {
  const std::string wrong = "it is not valid in the encoding ";
  const struct {
    std::string bytes, encoding;
    bool is_xml;
    std::string why;
  } rows[] = {
      {"Zug \xC3\xA4", "utf8", false, ""},
      {"Zug \xE4", "utf8", false, wrong + "\"utf8\""},
      {"", "utf8", false, "it is empty"},
      {std::string(1 << 20, 'a'), "utf8", false, ""},
      {std::string((1 << 20) + 1, 'a'), "utf8", false, "it is larger than 1 MiB"},
      {"Zug \xE4", "ascii", false, ""},
      {"Zug \x80", "ascii", false, wrong + "\"ascii\""},
      {std::string("a\0", 2), "ascii", false, wrong + "\"ascii\""},
      {std::string("a\0\x34\xD8\x1E\xDD", 6), "utf16", false, ""},
      {std::string("a\0\x34\xD8", 4), "utf16", false, wrong + "\"utf16\""},
      {std::string("\x1E\xDD", 2), "utf16", false, wrong + "\"utf16\""},
      {"abc", "utf16", false, wrong + "\"utf16\""},
      {"\xFE\xFF\xD8\x34\xDD\x1E", "utf16", true, ""},
      {"\xFE\xFF\xD8\x34", "utf16", true, wrong + "\"utf16\""},
      {"\xFE\xFF\x1E\xDD", "utf16", false, wrong + "\"utf16\""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.why, WhyNoMessage(row.bytes, row.encoding, row.is_xml))
        << row.encoding << " " << testing::PrintToString(row.bytes.substr(0, 10));
  }
}

TEST(SafeCharactersTest, KeepsCharactersThatAreSafeInAShell) {
  EXPECT_EQ("aZ09._+=@-", SafeCharacters("a Z/09;$(._+=@-)\n\xC3\xA4"));
  EXPECT_EQ(std::string(100, 'x'), SafeCharacters(std::string(101, 'x')));
}

std::vector<std::string> NamesIn(const std::string& path_) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(path_.c_str()), closedir);
  while (const dirent* entry = listing ? readdir(listing.get()) : nullptr) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
      names.emplace_back(entry->d_name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

class InboxTest : public testing::Test {
 protected:
  InboxTest() { Configure(input); }

  void Configure(const std::string& path_) const {
    directory.Write("config",
                    "<tts-config state=\"run\"><directory id=\"a\" type=\"local\" path=\"" + path_ +
                        "\"/></tts-config>");
  }

  void LookAfter(double seconds_) {
    time += seconds_;
    inbox.Look();
  }

  // Looks until all files are settled.
  void Settle() {
    LookAfter(0);
    LookAfter(3);
  }

  const TemporaryDirectory directory;
  const std::string box = directory.MakeDirectory("box");
  const std::string input = directory.MakeDirectory("in");
  double time = 1000;
  std::vector<std::string> reports;
  Inbox inbox{{box, directory / "config", "a", "", 3},
              [this] { return time; },
              [this](const std::string& line_) { reports.push_back(line_); }};
};

TEST_F(InboxTest, HandsOverSettledFiles) {
  directory.Write("box/b c", "Zug");
  LookAfter(0);
  LookAfter(2);
  EXPECT_THAT(NamesIn(input), IsEmpty());
  directory.Write("box/b c", "Zug fährt");
  LookAfter(1);
  LookAfter(2.9);
  EXPECT_THAT(NamesIn(input), IsEmpty());
  LookAfter(0.1);
  ASSERT_THAT(NamesIn(input),
              ElementsAre(MatchesRegex("inbox-[0-9]{8}-[0-9]{6}-[0-9]{9}-[0-9]+-0-bc")));
  const std::string path = input + "/" + NamesIn(input)[0];
  EXPECT_EQ("Zug fährt", ReadFile(path));
  EXPECT_EQ(0644U, ModeOf(path) & 07777);
  EXPECT_THAT(NamesIn(box), IsEmpty());
  EXPECT_THAT(reports, IsEmpty());
}

TEST_F(InboxTest, HandsOverTheOldestFirst) {
  for (const char* name : {"2", "1", "3"}) {
    directory.Write(std::string("box/") + name, name);
    const timespec times[2] = {{100 - name[0], 0}, {100 - name[0], 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, (box + "/" + name).c_str(), times, 0));
  }
  Settle();
  EXPECT_THAT(NamesIn(input), ElementsAre(EndsWith("-0-3"), EndsWith("-1-2"), EndsWith("-2-1")));
}

TEST_F(InboxTest, LeavesHiddenFilesAlone) {
  directory.Write("box/.part", "Zug");
  Settle();
  EXPECT_THAT(NamesIn(box), ElementsAre(".part"));
}

TEST_F(InboxTest, MovesFilesThatAreNoMessages) {
  directory.Write("box/a", "");
  directory.Write("box/b", "\xE4");
  directory.Write("secret", "Zug");
  ASSERT_EQ(0, symlink((directory / "secret").c_str(), (box + "/c").c_str()));
  ASSERT_EQ(0, mkfifo((box + "/d").c_str(), 0644));
  Settle();
  LookAfter(10);
  EXPECT_THAT(NamesIn(input), IsEmpty());
  EXPECT_THAT(NamesIn(box), ElementsAre("refused"));
  EXPECT_THAT(NamesIn(box + "/refused"), ElementsAre("a", "b", "c", "d"));
  EXPECT_THAT(reports,
              UnorderedElementsAre(
                  "a: refused: it is empty; it is now refused/a",
                  "b: refused: it is not valid in the encoding \"utf8\"; it is now refused/b",
                  "c: refused: it is a symbolic link; it is now refused/c",
                  "d: refused: it is not a regular file; it is now refused/d"));
}

TEST_F(InboxTest, KeepsFilesThatWereRefusedBefore) {
  for (int i = 0; i < 2; ++i) {
    directory.Write("box/a", "");
    Settle();
  }
  EXPECT_THAT(NamesIn(box + "/refused"), ElementsAre("a", MatchesRegex("again-[0-9-]+-0-a")));
}

TEST_F(InboxTest, ReportsOnceThatAFileCannotBeMoved) {
  directory.Write("box/a", "");
  directory.Write("box/refused", "in the way");
  Settle();
  LookAfter(10);
  EXPECT_THAT(reports, ElementsAre("a: refused: it is empty; it cannot be moved: Not a directory"));
  EXPECT_THAT(NamesIn(box), ElementsAre("a", "refused"));
}

TEST_F(InboxTest, WaitsWhileTheDirectoryCannotBeUsed) {
  Configure(directory / "none");
  directory.Write("box/a", "Zug");
  Settle();
  LookAfter(1);
  EXPECT_THAT(reports, ElementsAre("files wait: cannot write to " + (directory / "none/") +
                                   ": No such file or directory"));
  Configure(input);
  LookAfter(1);
  EXPECT_THAT(NamesIn(input), ElementsAre(EndsWith("-a")));
  EXPECT_EQ("it works again", reports.back());
}

TEST_F(InboxTest, ReportsTheErrorOfTheDirectory) {
  directory.Write("box/a", "Zug");
  const std::string config = directory / "config";
  const std::pair<std::string, std::string> rows[] = {
      {"", "no local directory \"a\" in " + config},
      {"<directory id=\"a\" type=\"ftp\"/>", "no local directory \"a\" in " + config},
      {"<directory id=\"a\" type=\"local\"/>", "directory \"a\" has no path or no usable encoding"},
      {"<directory id=\"a\" type=\"local\" path=\"/x\" parser=\"text\"/>",
       "directory \"a\" has no path or no usable encoding"},
  };
  for (const auto& [element, why] : rows) {
    directory.Write("config", "<tts-config state=\"run\">" + element + "</tts-config>");
    Settle();
    EXPECT_EQ("files wait: " + why, reports.back()) << element;
  }
  EXPECT_THAT(NamesIn(box), ElementsAre("a"));
}

}  // namespace

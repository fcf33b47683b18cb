#include "input_fixtures.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TakenFileTest : public LocalDirectoryTest {};

// Makes a directory of one file once it is indexed, so that the file cannot be removed.
class StickyParser : public FileParser {
 public:
  explicit StickyParser(std::string name_) : name(std::move(name_)) {}
  std::string ParseFile(const std::string& path_) const override {
    const bool is_sticky = path_.substr(path_.rfind('/') + 1) == name;
    if (!is_sticky || text.empty()) {
      const std::string content = ReadFile(path_);
      if (!is_sticky) {
        return content;
      }
      text = content;
      EXPECT_EQ(0, unlink(path_.c_str()));
      EXPECT_EQ(0, mkdir(path_.c_str(), 0777));
    }
    return text;
  }

 private:
  const std::string name;
  mutable std::string text;
};

TEST_F(TakenFileTest, CopiesATakenFileToTheEmptiedLastPlayedDirectory) {
  OpenWithLastPlayed();
  last_played.Write("old", "old");
  last_played.Write(".hidden", "");
  Write("text");
  EXPECT_EQ("Adding m " + CRCText("text") +
                " to file_map\nParser returned: \"text\"\nOriginal is valid UTF-8\nFrom " + Path() +
                ": text\n",
            Scan(kDebugAvailable));
  EXPECT_EQ("text", ReadFile(last_played / "m"));
  EXPECT_FALSE(Exists(last_played / "old"));
  EXPECT_TRUE(Exists(last_played / ".hidden"));
  EXPECT_TRUE(Exists(Path()));
}

TEST_F(TakenFileTest, AcceptsASlashAtTheEndOfTheLastPlayedPath) {
  Open({{"last-played-path", last_played / ""}});
  Activate("text");
  EXPECT_EQ("text", ReadFile(last_played / "m"));
}

TEST_F(TakenFileTest, SpeaksAFileThatCouldNotBeCopied) {
  const std::string path = last_played.MakeDirectory("gone");
  Open({{"last-played-path", path}, {"auto-delete", "1"}});
  ASSERT_EQ(0, rmdir(path.c_str()));
  Activate("text");
  EXPECT_THAT(input->GetWords(), ElementsAre("text"));
  EXPECT_FALSE(Exists(Path()));
}

TEST_F(TakenFileTest, SkipsAFileThatCannotBeRemoved) {
  Open();
  const StickyParser sticky("m");
  input->SetFileParser(&sticky);
  Write("text");
  EXPECT_EQ("Adding m " + CRCText("text") +
                " to file_map\nParser returned: \"text\"\nOriginal is valid UTF-8\nFrom " + Path() +
                ": text\nCould not remove " + Path() + "\n",
            Scan(kDebugAvailable));
  EXPECT_EQ(0, input->GetActiveMessageID());
  EXPECT_THAT(input->GetWords(), IsEmpty());
  EXPECT_EQ("0", Queued());
  EXPECT_EQ("Erasing m from file_map\n", Scan(kDebugAvailable)) << "it is not tried again";
}

TEST_F(TakenFileTest, SkipsAFileThatAutoDeleteCannotRemove) {
  OpenWithLastPlayed({{"auto-delete", "1"}});
  const StickyParser sticky("m");
  input->SetFileParser(&sticky);
  Write("text");
  EXPECT_THAT(Scan(), testing::HasSubstr("Could not remove " + Path() + "\n"));
  EXPECT_EQ(0, input->GetActiveMessageID());
}

TEST_F(TakenFileTest, TakesTheNextFileAfterOneThatCannotBeRemoved) {
  Open();
  const StickyParser sticky("a");
  input->SetFileParser(&sticky);
  directory.Write("a", "first");
  directory.Write("b", "second");
  Scan();
  EXPECT_EQ("b", input->GetActiveMessageFilename());
  EXPECT_THAT(input->GetWords(), ElementsAre("second"));
}

TEST_F(TakenFileTest, SkipsAFileThatVanishesWhileItIsTaken) {
  Open();
  int calls = 0;
  const FunctionParser function_parser([&](const std::string& path_) {
    if (++calls == 2) {
      EXPECT_EQ(0, unlink(path_.c_str()));
    }
    return "text";
  });
  input->SetFileParser(&function_parser);
  Write("");
  EXPECT_EQ("Adding m " + CRCText("text") + " to file_map\nCould not remove " + Path() + "\n",
            Scan());
  EXPECT_EQ(0, input->GetActiveMessageID());
}

TEST_F(TakenFileTest, InCacheModeGoesOnIfAFileCannotBeRemoved) {
  Open({{"dir-mode", "cache"}});
  const StickyParser sticky("a");
  input->SetFileParser(&sticky);
  directory.Write("a", "first");
  directory.Write("b", "second");
  EXPECT_EQ("Adding a " + CRCText("first") + " to file_map\nAdding b " + CRCText("second") +
                " to file_map\nCould not remove " + Path("a") + "\n",
            Scan());
  EXPECT_FALSE(Exists(Path("b")));
}

TEST_F(TakenFileTest, InCacheModeCopiesQueuedFilesAndKeepsTheOlderCopies) {
  OpenWithLastPlayed({{"dir-mode", "cache"}, {"auto-delete", "1"}});
  for (const char* name : {"a", "b"}) {
    directory.Write(name, name);
    EXPECT_EQ("Adding " + std::string(name) + " " + CRCText(name) + " to file_map\n",
              Scan(kDebugAvailable));
  }
  EXPECT_EQ("a", ReadFile(last_played / "a"));
  EXPECT_EQ("b", ReadFile(last_played / "b"));
  EXPECT_TRUE(Exists(Path("a"))) << "auto-delete is not looked at";
  EXPECT_EQ(0, input->GetActiveMessageID());
}

TEST_F(TakenFileTest, TreatsAnyOtherModeAsTheDefault) {
  Open({{"dir-mode", "Cache"}});
  directory.Write("n", "next");
  Activate("text");
  EXPECT_EQ("1", Queued());
}

}  // namespace

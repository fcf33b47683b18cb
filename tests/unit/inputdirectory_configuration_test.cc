#include "input_fixtures.h"

namespace {

TEST(InputDirectoryTest, HasDefaultsForEveryAttribute) {
  const auto input = Build({});
  EXPECT_EQ(0, input->GetPriority());
  EXPECT_EQ(0, input->GetActiveMessageID());
  EXPECT_EQ("", input->GetActiveMessageFilename());
  EXPECT_EQ("", input->GetDisplayId());
  EXPECT_EQ("", input->GetTranslatorArguments());
  EXPECT_EQ(0, input->GetPreview());
  EXPECT_EQ("", input->GetLastPlayedPath());
  EXPECT_EQ("", input->GetBumperPath());
  EXPECT_EQ("", input->GetSpacerPath());
  EXPECT_EQ("", input->GetSilencePath());
  EXPECT_EQ("", input->GetParserID());
  EXPECT_EQ("", input->GetEncoding());
  EXPECT_TRUE(input->FirstPlayOfActiveMessage());
}

TEST(InputDirectoryTest, ReturnsItsAttributes) {
  const TemporaryDirectory directory;
  SetDebugMask(0);
  const auto input = Build({{"id", "a"},
                            {"display-id", "lobby"},
                            {"parser", "alert"},
                            {"encoding", "utf16"},
                            {"priority", "-3"},
                            {"conv-opts", "-s 2 \"x\""},
                            {"preview", "0x10"},
                            {"last-played-path", directory.path},
                            {"bumper-path", "/b"},
                            {"spacer-path", "/sp"},
                            {"silence-path", "/si"}});
  EXPECT_EQ("lobby", input->GetDisplayId());
  EXPECT_EQ("alert", input->GetParserID());
  EXPECT_EQ("utf16", input->GetEncoding());
  EXPECT_EQ(-3, input->GetPriority());
  EXPECT_EQ("-s 2 \"x\"", input->GetTranslatorArguments());
  EXPECT_EQ(16, input->GetPreview());
  EXPECT_EQ(directory.path, input->GetLastPlayedPath());
  EXPECT_EQ("/b", input->GetBumperPath());
  EXPECT_EQ("/sp", input->GetSpacerPath());
  EXPECT_EQ("/si", input->GetSilencePath());
}

TEST(InputDirectoryTest, HasItsIdAsDefaultDisplayId) {
  EXPECT_EQ("a", Build({{"id", "a"}})->GetDisplayId());
  EXPECT_EQ("", Build({{"id", "a"}, {"display-id", ""}})->GetDisplayId());
}

TEST(InputDirectoryTest, IsIdenticalToAnElementOfTheSameNameAndAttributes) {
  const auto input = Build({{"id", "a"}, {"priority", "1"}});
  EXPECT_TRUE(input->IsIdentical(*ParseXML("<directory priority='1' id='a'/>")));
  EXPECT_TRUE(input->IsIdentical(*ParseXML("<directory priority='1' id='a'>x<y/></directory>")));
  for (const char* other :
       {"<directory priority='2' id='a'/>", "<directory id='a'/>", "<parser priority='1' id='a'/>",
        "<directory priority='1' id='a' loops='1'/>", "<directory Priority='1' id='a'/>"}) {
    EXPECT_FALSE(input->IsIdentical(*ParseXML(other))) << other;
  }
}

TEST(InputDirectoryTest, ThrowsForEveryBadIntegerBeforeAnythingIsRemoved) {
  const TemporaryDirectory directory;
  directory.Write("kept", "");
  for (const char* name : {"priority", "loops", "preview", "auto-delete", "ftp-poll-rate"}) {
    const std::string text = std::string("While processing attribute \"") + name +
                             "\" of \"directory\": Could not convert \"1x\" to integer";
    const Attributes attributes = {{name, "1x"},
                                   {"type", "local"},
                                   {"path", directory.path},
                                   {"last-played-path", directory.path}};
    ExpectLoggedAndThrown(text, [&] { Build(attributes); });
  }
  EXPECT_TRUE(Exists(directory / "kept"));
}

TEST(InputDirectoryTest, EmptiesALocalDirectory) {
  const TemporaryDirectory directory;
  directory.Write("a", "1");
  directory.Write("b", "2");
  directory.Write(".hidden", "3");
  EXPECT_EQ("Removing contents of directory " + directory.path + "\n", WholeLogOf([&] {
              Build({{"type", "local"}, {"path", directory.path}});
            }));
  EXPECT_FALSE(Exists(directory / "a"));
  EXPECT_FALSE(Exists(directory / "b"));
  EXPECT_TRUE(Exists(directory / ".hidden"));
}

TEST(InputDirectoryTest, EmptiesTheRootOfALocalDirectoryNotItsSubdirectory) {
  const TemporaryDirectory directory;
  directory.MakeDirectory("sub");
  directory.Write("sub/kept", "");
  const std::string command = "rm " + directory.path + "/* > /dev/null 2>&1";
  EXPECT_EQ("Removing contents of directory " + directory.path + "\nCould not execute \"" +
                command + "\"\n",
            LogOf([&] {
              Build({{"type", "local"}, {"path", directory.path}, {"subdir", "sub"}});
            }));
  EXPECT_TRUE(Exists(directory / "sub/kept"));
}

TEST(InputDirectoryTest, EmptiesTheLastPlayedDirectoryFirst) {
  const TemporaryDirectory last_played;
  const TemporaryDirectory directory;
  last_played.Write("old", "");
  directory.Write("old", "");
  EXPECT_EQ(
      "Removing contents of directory " + last_played.path + "\nRemoving contents of directory " +
          directory.path + "\n",
      LogOf([&] {
        Build(
            {{"type", "local"}, {"path", directory.path}, {"last-played-path", last_played.path}});
      }));
  EXPECT_FALSE(Exists(last_played / "old"));
  EXPECT_FALSE(Exists(directory / "old"));
}

TEST(InputDirectoryTest, RemovesNothingWithoutAPath) {
  EXPECT_EQ(kNoLog, WholeLogOf([] { Build({{"type", "local"}}); }));
}

TEST(InputDirectoryTest, EmptiesOnlyTheLastPlayedDirectoryForAnUnknownType) {
  const TemporaryDirectory last_played;
  const TemporaryDirectory directory;
  last_played.Write("old", "");
  directory.Write("kept", "");
  for (const char* type : {"", "Local", "smb"}) {
    last_played.Write("old", "");
    EXPECT_EQ(
        "Removing contents of directory " + last_played.path + "\n", WholeLogOf([&] {
          const auto input = Build(
              {{"type", type}, {"path", directory.path}, {"last-played-path", last_played.path}});
          EXPECT_EQ("", StatusAttribute(*input, "path")) << type;
        }));
    EXPECT_FALSE(Exists(last_played / "old")) << type;
  }
  EXPECT_TRUE(Exists(directory / "kept"));
}

TEST(InputDirectoryTest, QueuesNothingForAnUnknownType) {
  const TemporaryDirectory directory;
  const FakeParser parser;
  const auto input = Build({{"id", "a"}, {"type", "other"}, {"subdir", directory.path}});
  input->SetFileParser(&parser);
  LogOf([&] { input->Process(); });
  directory.Write("m", "new");
  EXPECT_EQ("Adding m " + CRCText("new") + " to file_map\n", WholeLogOf([&] { input->Process(); }));
  EXPECT_EQ(
      "<directory id=\"a\" path=\"\" status=\"0\" total-file-count=\"1\" "
      "updated-file-count=\"0\"/>\n",
      StatusOf(*input));
}

TEST(InputDirectoryTest, ThrowsForAScanWithoutAPath) {
  for (const char* type : {"", "local"}) {
    EXPECT_EQ("Could not open directory ", ThrownText([&] { Build({{"type", type}})->Process(); }));
  }
}

}  // namespace

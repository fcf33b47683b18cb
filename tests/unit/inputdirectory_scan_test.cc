#include <string.h>

#include <filesystem>
#include <random>
#include <set>

#include "input_fixtures.h"
#include "model/directory.h"

namespace {

using testing::ElementsAre;

class ScanTest : public LocalDirectoryTest {};

TEST_F(ScanTest, TurnsANewFileIntoTheActiveMessage) {
  Open();
  Write("Hello world");
  EXPECT_EQ("Adding m " + CRCText("Hello world") +
                " to file_map\n"
                "Parser returned: \"Hello world\"\n"
                "Original is valid UTF-8\n"
                "From " +
                Path() + ": Hello|world\n",
            Scan(kDebugAvailable));
  EXPECT_NE(0, input->GetActiveMessageID());
  EXPECT_EQ("m", input->GetActiveMessageFilename());
  EXPECT_FALSE(Exists(Path()));
  EXPECT_THAT(input->GetWords(), ElementsAre("Hello", "world"));
}

TEST_F(ScanTest, LeavesFilesOfTheFirstScanAlone) {
  LogOf([&] { input = Build({{"type", "local"}, {"path", directory.path}}); });
  input->SetFileParser(&parser);
  Write("old");
  EXPECT_EQ("Adding m " + CRCText("old") + " to file_map\n", Scan(kDebugAvailable));
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  EXPECT_EQ(0, input->GetActiveMessageID());
  EXPECT_TRUE(Exists(Path()));
}

TEST_F(ScanTest, ScansItsSubdirectory) {
  directory.MakeDirectory("sub");
  Open({{"subdir", "sub"}});
  directory.Write("m", "above");
  directory.Write("sub/n", "below");
  EXPECT_EQ("Adding n " + CRCText("below") + " to file_map\n", Scan());
  EXPECT_EQ("n", input->GetActiveMessageFilename());
  EXPECT_TRUE(Exists(Path()));
}

TEST_F(ScanTest, AcceptsSlashesAtTheEndsOfItsPaths) {
  directory.MakeDirectory("sub");
  const std::string path = directory / "";
  LogOf([&] { input = Build({{"type", "local"}, {"path", path}, {"subdir", "sub/"}}); });
  input->SetFileParser(&parser);
  Scan();
  directory.Write("sub/m", "text");
  EXPECT_EQ(
      "From " + path + "sub/m: text\n",
      Scan(kDebugTrace).substr(strlen("Parser returned: \"text\"\nOriginal is valid UTF-8\n")));
}

TEST_F(ScanTest, ThrowsWhileTheDirectoryIsGone) {
  const TemporaryDirectory parent;
  const std::string path = parent.MakeDirectory("d");
  LogOf([&] { input = Build({{"type", "local"}, {"path", path}}); });
  input->SetFileParser(&parser);
  parent.Write("d/old", "old");
  Scan();
  ASSERT_EQ(0, unlink((path + "/old").c_str()));
  ASSERT_EQ(0, rmdir(path.c_str()));
  EXPECT_EQ("Could not open directory " + path + "/", ThrownText([&] { input->Process(); }));
  EXPECT_EQ("1", StatusAttribute(*input, "total-file-count")) << "as in the last scan";
  parent.MakeDirectory("d");
  parent.Write("d/m", "new");
  EXPECT_EQ("Adding m " + CRCText("new") +
                " to file_map\nErasing old from file_map\nParser returned: \"new\"\nOriginal is "
                "valid UTF-8\nFrom " +
                path + "/m: new\n",
            Scan(kDebugAvailable));
}

TEST_F(ScanTest, TakesNewFilesInByteOrderOneMessageAtATime) {
  Open();
  for (const char* name : {"b", "a", "B", "10", "9"}) {
    directory.Write(name, name);
  }
  Words order;
  for (int left = 4; left >= 0; --left) {
    Scan();
    EXPECT_EQ(Number(left), Queued());
    order.splice(order.end(), input->GetWords());
  }
  EXPECT_THAT(order, ElementsAre("10", "9", "B", "a", "b"));
}

TEST_F(ScanTest, QueuesAForgottenFileThatReturns) {
  Open();
  Activate("text");
  EXPECT_EQ("Erasing m from file_map\n", Scan(kDebugAvailable));
  Write("text");
  EXPECT_EQ("Adding m " + CRCText("text") + " to file_map\n", Scan());
  EXPECT_EQ("1", Queued());
}

TEST_F(ScanTest, MissesAnEqualFileThatReplacesATakenOneBetweenTwoScans) {
  Open();
  Activate("text");
  Write("text");
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  EXPECT_EQ("0", Queued());
}

TEST_F(ScanTest, RecordsButNeverQueuesAFileWithoutText) {
  for (const char* preview : {"0", "1"}) {
    Open({{"preview", preview}});
    Write("");
    EXPECT_EQ("Adding m 0 to file_map\n", Scan()) << preview;
    Scan();
    EXPECT_EQ("0", Queued()) << preview;
    EXPECT_TRUE(Exists(Path()));
  }
}

TEST_F(ScanTest, WithPreviewQueuesEveryFileAtEveryScan) {
  OpenWithLastPlayed({{"preview", "1"}});
  Write("text");
  Scan();
  EXPECT_EQ("0", Queued());
  for (int i = 1; i < 4; ++i) {
    EXPECT_EQ("Updating m in file_map\n", Scan());
    EXPECT_EQ(Number(i), Queued());
  }
}

TEST_F(ScanTest, LogsOnlyNewAndChangedFilesByDefault) {
  Open();
  int calls = 0;
  const FunctionParser function_parser([&](const std::string& path_) {
    if (++calls == 3) {
      throw std::string("bad file");
    }
    return ReadFile(path_);
  });
  input->SetFileParser(&function_parser);
  directory.Write("a", "first");
  directory.Write("b", "second \xFF");
  EXPECT_EQ("Adding a " + CRCText("first") + " to file_map\nAdding b " + CRCText("second \xFF") +
                " to file_map\n",
            Scan());
  EXPECT_EQ("b", input->GetActiveMessageFilename());
  EXPECT_EQ(kNoLog, Scan()) << "nor which are gone";
}

TEST_F(ScanTest, ReadsAFileAgainWhenItIsTaken) {
  Open();
  int calls = 0;
  const FunctionParser function_parser(
      [&](const std::string&) { return "call " + Number(++calls); });
  input->SetFileParser(&function_parser);
  Write("");
  Scan();
  EXPECT_THAT(input->GetWords(), ElementsAre("call", "2"));
}

model::Files FilesIn(const TemporaryDirectory& directory_) {
  model::Files files;
  for (const auto& entry : std::filesystem::directory_iterator(directory_.path)) {
    files[entry.path().filename()] = ReadFile(entry.path());
  }
  return files;
}

// Random files come, change and go; the parser throws for some.
class ScanModelTest : public ScanTest {
 protected:
  ScanModelTest() { setenv("LC_ALL", "C", 1); }  // For the texts of cp.

  unsigned int Below(unsigned int bound_) { return static_cast<unsigned int>(random()) % bound_; }

  // A new directory, and its model. Each bit of round_ is an attribute.
  void Begin(unsigned int round_) {
    expected = model::Directory();
    expected.id = "d";
    expected.path = directory.path;
    expected.word_limit = 2;
    expected.loops = static_cast<int>(Below(3));
    expected.preview = round_ & 1;
    expected.auto_delete = round_ >> 1 & 1;
    expected.is_cache = (round_ & 4) != 0;
    expected.has_last_played = (round_ & 8) != 0;
    expected.parse = [this](const std::string& name_, const std::string& content_) {
      if (parser.thrown.count(name_) != 0) {
        throw parser.thrown[name_];
      }
      return content_;
    };
    Open({{"id", "d"},
          {"loops", Number(expected.loops)},
          {"preview", Number(expected.preview)},
          {"auto-delete", Number(expected.auto_delete)},
          {"dir-mode", expected.is_cache ? "cache" : ""},
          {"last-played-path", expected.has_last_played ? last_played.path : ""}},
         expected.word_limit);
    unlink((directory / ".hidden").c_str());
    for (const auto& [name, content] : FilesIn(last_played)) {
      unlink((last_played / name).c_str());
    }
    last_id = first_id = 0;
    expected.Process(last_id);
  }

  void ChangeFiles() {
    const std::vector<std::string> texts = {"", "one", "two. 2, 2", "..", "three\xFF"};
    parser.thrown.clear();
    for (const std::string name : {"!", "0", "10", "9", "A", "a", "aa", "b", ".hidden"}) {
      if (Below(6) == 0) {
        parser.thrown[name] = name + " is bad";
      }
      if (Below(3) == 0) {
        expected.files[name] = texts[Below(5)];
        directory.Write(name, expected.files[name]);
      } else if (Below(4) == 0 && expected.files.erase(name) != 0) {
        ASSERT_EQ(0, unlink(Path(name).c_str()));
      }
    }
    expected.has_parser = Below(8) != 0;
    input->SetFileParser(expected.has_parser ? &parser : nullptr);
  }

  void ScanBoth() {
    expected.Process(last_id);
    ASSERT_EQ(expected.log, Scan(kDebugAvailable));
    if (last_id == 1 && first_id == 0) {
      first_id = input->GetActiveMessageID() - 1;
    }
    model::Directory shown = expected;
    shown.message_id += shown.message_id == 0 ? 0 : first_id;
    ASSERT_EQ(shown.Status(), StatusOf(*input));
    ASSERT_EQ(expected.is_first_play, input->FirstPlayOfActiveMessage());
    ASSERT_EQ(expected.files, FilesIn(directory));
    ASSERT_EQ(expected.last_played, FilesIn(last_played));
  }

  void TakeOrStop() {
    switch (Below(4)) {
      case 0:
        input->StopMessage();
        expected.StopMessage();
        break;
      case 1:
        input->RestartMessage();
        expected.RestartMessage();
        break;
      default:
        ASSERT_EQ(expected.GetWords(), input->GetWords());
    }
  }

 private:
  std::mt19937 random{20261120};
  model::Directory expected;
  int last_id = 0;
  int first_id = 0;  // The real id of the model's message 0.
};

TEST_F(ScanModelTest, AgreesWithTheModel) {
  for (unsigned int round = 0; round < 16 && !HasFatalFailure(); ++round) {
    Begin(round);
    for (int scan = 0; scan < 25 && !HasFatalFailure(); ++scan) {
      SCOPED_TRACE(testing::Message() << "round " << round << ", scan " << scan);
      ChangeFiles();
      ScanBoth();
      TakeOrStop();
    }
  }
}

}  // namespace

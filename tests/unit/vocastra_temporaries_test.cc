#include <string.h>

#include "stand_ins/files.h"
#include "stand_ins/temporaries.h"
#include "vocastra_fixtures.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

class TemporaryFilesTest : public VocastraTest {
 protected:
  ~TemporaryFilesTest() override {
    stand_ins::temporaries = {};
    stand_ins::files = {};
  }

  static std::string TextFile() { return stand_ins::temporaries.files.at(0); }
  static std::string SpeechFile() { return stand_ins::temporaries.files.at(1); }
};

TEST_F(TemporaryFilesTest, OwnsTwoEmptyTemporaryFilesWhileItLives) {
  player = Build(settings);
  ASSERT_EQ(2U, stand_ins::temporaries.files.size());
  EXPECT_THAT(TextFile(), StartsWith("/tmp/text"));
  EXPECT_THAT(SpeechFile(), StartsWith("/tmp/speech"));
  EXPECT_TRUE(Exists(TextFile()) && Exists(SpeechFile()));
  EXPECT_EQ("", ReadFile(TextFile()) + ReadFile(SpeechFile()));
  player.reset();
  EXPECT_FALSE(Exists(TextFile()) || Exists(SpeechFile()));
}

TEST_F(TemporaryFilesTest, NeedsOnlyTheOutputDirectory) {
  settings.translator = "";
  EXPECT_EQ(kNoLog, WholeLogOf([&] { player = Build(settings); }));
  settings.output = "";
  EXPECT_EQ(kNoLog, WholeLogOf([&] { player = Build(settings); }));
}

TEST_F(TemporaryFilesTest, RemovesItsFilesIfTheOutputDirectoryCannotBeOpened) {
  settings.output = tree / "missing";
  EXPECT_EQ("Could not open directory " + settings.output + "/",
            ThrownText([&] { Build(settings); }));
  ASSERT_EQ(2U, stand_ins::temporaries.files.size());
  EXPECT_FALSE(Exists(TextFile()) || Exists(SpeechFile()));
}

TEST_F(TemporaryFilesTest, RemovesItsFilesIfATemporaryFileCannotBeMade) {
  for (const std::string path : {"/tmp/textXXXXXX", "/tmp/speechXXXXXX"}) {
    stand_ins::temporaries.failing_template = path;
    EXPECT_EQ("Could not create temporary file with template \"" + path + "\"",
              ThrownText([&] { Build(settings); }));
    for (const std::string& made : stand_ins::temporaries.files) {
      EXPECT_FALSE(Exists(made)) << made;
    }
  }
  EXPECT_EQ(1U, stand_ins::temporaries.files.size());
}

TEST_F(TemporaryFilesTest, DestroysItsDirectoriesBeforeItsTemporaryFiles) {
  settings.cifs_helper = "/bin/true";
  Start("<directory id='r' type='cifs'/>" + Element("a"), "stop");
  bool stopped_helper = false;
  stand_ins::pauses.on_sleep = [&] {
    EXPECT_TRUE(Exists(TextFile()) && Exists(SpeechFile()));
    stopped_helper = true;
  };
  const std::string log = WholeLogOf([&] { player.reset(); });
  EXPECT_THAT(log, MatchesRegex("Sending SIGTERM to PID [0-9]+\n"
                                "Removing temporary directory /tmp/watch[^\n]*\n"));
  EXPECT_TRUE(stopped_helper);
  EXPECT_FALSE(Exists(TextFile()) || Exists(SpeechFile()));
}

TEST_F(TemporaryFilesTest, CallsTheTranslatorWithFilesArgumentsAndMessageName) {
  Start(Element("a", "conv-opts='-v  en --rate=2'") + Element("b"));
  Drop("a", "text", "a name");
  Run();
  EXPECT_EQ("<" + TextFile() + "><" + SpeechFile() + "><-v><en><--rate=2><a name>",
            TranslatorCalls());
  Drop("b", "text");
  Run();
  EXPECT_EQ("<" + TextFile() + "><" + SpeechFile() + "><m>",
            TranslatorCalls().substr(TranslatorCalls().rfind("<" + TextFile())));
}

TEST_F(TemporaryFilesTest, WritesOnlyTheSnippetToTheTextFile) {
  settings.words = 1;
  UseTranslator("wc -c <\"$1\" >>\"$0.calls\"\n");
  Start(Element("a"));
  Drop("a", "aaaaaaaa bbbbbbbb c");
  Run();
  EXPECT_EQ("28\n2\n", TranslatorCalls());
}

TEST_F(TemporaryFilesTest, LosesTheWordsThatCannotBeTranslated) {
  settings.words = 1;
  UseTranslator("grep 1 \"$1\" && exit 3; cp \"$1\" \"$2\"\n");
  Start(Element("a"));
  Drop("a", "1 2 3 4");
  EXPECT_EQ(Taken("a", "1 2 3 4") + "calling engine\ndone calling engine\nCould not execute \"" +
                settings.translator + " " + TextFile() + " " + SpeechFile() +
                "  \"m\" > /dev/null 2>&1\"\n",
            Run());
  EXPECT_THAT(Delivered(), IsEmpty());
  EXPECT_THAT(stand_ins::pauses.usleeps, ElementsAre(kPassPause));
  EXPECT_EQ("1", StatusAttribute("timestamp"));
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_cont.raw"));
  EXPECT_EQ("3 4 ", DeliveredFile("0_a.text_live_cont.raw"));
}

TEST_F(TemporaryFilesTest, LosesTheWordsForWhichTheTextFileCannotBeOpened) {
  settings.words = 1;
  const std::string other = tree.Write("other", "precious");
  const std::function<int(const char*)> obstacles[] = {
      [](const char* path_) { return mkdir(path_, 0700); },
      [&](const char* path_) { return symlink(other.c_str(), path_); },
      [](const char* path_) { return mkfifo(path_, 0600); },  // It has no reader.
  };
  for (const auto& obstacle : obstacles) {
    stand_ins::temporaries = {};
    Start(Element("a"));
    ASSERT_EQ(0, unlink(TextFile().c_str()));
    ASSERT_EQ(0, obstacle(TextFile().c_str()));
    Drop("a", "1 2 3 4");
    EXPECT_EQ(Taken("a", "1 2 3 4") + "Could not open temporary file \"" + TextFile() +
                  "\" for writing\n",
              Run());
    EXPECT_EQ("", TranslatorCalls());
    ASSERT_EQ(0, remove(TextFile().c_str()));
    Run();
    EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_cont.raw"));
    EXPECT_EQ("3 4 ", DeliveredFile("0_a.text_live_cont.raw"));
    ASSERT_EQ(0, unlink((settings.translator + ".calls").c_str()));
    Directory(settings.output).ClearDirectoryLocked();
  }
  EXPECT_EQ("precious", ReadFile(other)) << "no link is followed";
}

TEST_F(TemporaryFilesTest, LosesTheWordsForWhichTheTextFileHasNoRoom) {
  settings.words = 1;
  Start(Element("a"));
  Drop("a", "1 2 3 4");
  stand_ins::files.full_file = TextFile();
  EXPECT_THAT(Run(),
              EndsWith("\nCould not open temporary file \"" + TextFile() + "\" for writing\n"));
  EXPECT_EQ("", TranslatorCalls());
  stand_ins::files.full_file = "";
  Run();
  EXPECT_EQ("3 4 ", DeliveredFile("0_a.text_live_cont.raw"));
}

TEST_F(TemporaryFilesTest, MakesAPrivateTextFileIfItIsGone) {
  Start(Element("a"));
  ASSERT_EQ(0, unlink(TextFile().c_str()));
  Drop("a", "text");
  const mode_t saved = umask(0);
  Run();
  umask(saved);
  EXPECT_EQ(kPauseTag + std::string("text "), DeliveredFile("0_a.text_live_first.raw"));
  EXPECT_EQ(S_IFREG | 0600U, ModeOf(TextFile()));
}

TEST_F(TemporaryFilesTest, CountsASnippetAsMadeIfItsAudioCannotBeCopied) {
  settings.words = 1;
  UseTranslator("rm -f \"$2\"\n");
  Start(Element("a"));
  Drop("a", "1 2 3");
  const std::string log = Run();
  EXPECT_THAT(log, testing::HasSubstr("Could not execute \"cp " + SpeechFile() + " " +
                                      settings.output + "/1_a.text_live_cont.raw\"\n"));
  EXPECT_THAT(stand_ins::pauses.usleeps, ElementsAre(kPassPause, kPassPause, kPassPause));
  EXPECT_EQ("2", StatusAttribute("timestamp"));
}

}  // namespace

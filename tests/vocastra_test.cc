#include "vocastra.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <list>
#include <tuple>
#include <utility>
#include <vector>

#include "crc.h"
#include "directory.h"
#include "inputdirectory.h"
#include "test_util.h"

namespace {

// What the functions below, which stand in for those of the C library, do and what they saw.
struct System {
  std::string failing_template;  // mkostemp() fails for it.
  std::string full_file;         // fclose() reports that there was no room for all of it.
  std::vector<std::string> temporary_files;     // Made by mkostemp(), oldest first.
  std::vector<useconds_t> pauses;               // Microseconds; nothing here really waits.
  std::function<void()> on_pause = [] {};       // What others do meanwhile.
  std::function<void()> on_long_pause = [] {};  // The same for sleep().
};

System& TheSystem() {
  static System system;
  return system;
}

bool LeadsTo(int fd, const std::string& path) {
  struct stat wanted {};
  struct stat found {};
  return !path.empty() && stat(path.c_str(), &wanted) == 0 && fstat(fd, &found) == 0 &&
         found.st_dev == wanted.st_dev && found.st_ino == wanted.st_ino;
}

}  // namespace

int fclose(FILE* file) {
  static const auto real = reinterpret_cast<int (*)(FILE*)>(dlsym(RTLD_NEXT, "fclose"));
  const bool is_full = LeadsTo(fileno(file), TheSystem().full_file);
  const int result = real(file);
  if (is_full) {
    errno = ENOSPC;
    return EOF;
  }
  return result;
}

int mkostemp(char* path, int flags) {
  if (path == TheSystem().failing_template) {
    errno = EACCES;
    return -1;
  }
  const auto real = reinterpret_cast<int (*)(char*, int)>(dlsym(RTLD_NEXT, "mkostemp"));
  const int fd = real(path, flags);
  if (fd >= 0) {
    TheSystem().temporary_files.emplace_back(path);
  }
  return fd;
}

int usleep(useconds_t microseconds) {
  TheSystem().pauses.push_back(microseconds);
  TheSystem().on_pause();
  return 0;
}

unsigned int sleep(unsigned int) {
  TheSystem().on_long_pause();
  return 0;
}

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr char kNoLog[] = "";
constexpr useconds_t kPassPause = 100000;
constexpr useconds_t kClipPause = 70000;
constexpr char kPauseTag[] = "\\pau=300\\ ";

std::string Number(int value) { return std::to_string(value); }

std::string CRCText(const std::string& text) {
  return Number(CRC(0, reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

// text with a comment behind it that makes its checksum 0.
std::string WithCRCZero(const std::string& text) {
  std::string candidate;
  for (int i = 0; candidate.empty() || CRCText(candidate) != "0"; ++i) {
    candidate = text + "<!--" + Number(i) + "-->";
  }
  return candidate;
}

// The id that the next active message of any directory will have.
int NextMessageID() {
  const TemporaryDirectory directory;
  int id = 0;
  LogOf(
      [&] {
        XMLElement element("directory");
        element.SetAttributeString("type", "local");
        element.SetAttributeString("path", directory.path());
        InputDirectory input(element, "", "", 1);
        const FakeParser parser;
        input.SetFileParser(&parser);
        input.Process();
        directory.Write("m", "x");
        input.Process();
        id = input.GetActiveMessageID();
      },
      0);
  return id + 1;
}

// The command line.
struct Settings {
  std::string config;
  std::string status;
  std::string output;
  std::string translator;
  std::string glossary;
  std::string cifs_helper;
  std::string ftp_helper;
  int words = 10;
  int files = 10;
};

std::unique_ptr<Vocastra> Build(const Settings& settings) {
  return std::make_unique<Vocastra>(settings.config, settings.status, settings.output,
                                    settings.translator, settings.glossary, settings.cifs_helper,
                                    settings.ftp_helper, settings.words, settings.files);
}

// A player in a tree of its own: configuration, status file, output directory, a translator that
// notes its arguments and delivers the text as "audio", and an input directory for each id.
class VocastraTest : public testing::Test {
 protected:
  VocastraTest() {
    TheSystem() = System();
    settings_.config = tree_ / "config.xml";
    settings_.status = tree_ / "status.xml";
    settings_.output = tree_.MakeDirectory("out");
    UseTranslator(
        "for argument; do printf '<%s>' \"$argument\"; done >>\"$0.calls\"\n"
        "cp \"$1\" \"$2\"\n");
  }
  ~VocastraTest() override {
    TheSystem().on_pause = [] {};
    LogOf([&] { player_.reset(); }, 0);
    TheSystem() = System();
  }

  void UseTranslator(const std::string& body) {
    settings_.translator = WriteScript("translator", body);
  }
  std::string WriteScript(const std::string& name, const std::string& body) const {
    const std::string path = tree_.Write(name, "#!/bin/sh\n" + body);
    EXPECT_EQ(0, chmod(path.c_str(), 0755));
    return path;
  }
  // The arguments of all calls of the translator.
  std::string TranslatorCalls() const { return ReadFile(settings_.translator + ".calls"); }
  std::string TextFile() const { return TheSystem().temporary_files.at(0); }
  std::string SpeechFile() const { return TheSystem().temporary_files.at(1); }

  // The element of a local directory, which it makes if there is none.
  std::string Element(const std::string& id, const std::string& attributes = "") const {
    mkdir(Input(id).c_str(), 0777);
    return "<directory id='" + id + "' type='local' path='" + Input(id) + "' " + attributes + "/>";
  }
  std::string Input(const std::string& id) const { return tree_ / "in-" + id; }
  void Drop(const std::string& id, const std::string& text, const std::string& name = "m") const {
    tree_.Write("in-" + id + "/" + name, text);
  }
  void Configure(const std::string& elements, const std::string& state = "run") const {
    tree_.Write("config.xml", "<tts-config state='" + state + "'>" + elements + "</tts-config>");
  }
  // Builds the player and runs a first pass, so that what is dropped afterwards counts as new.
  void Start(const std::string& elements, const std::string& state = "run") {
    Configure(elements, state);
    player_ = Build(settings_);
    Run(0);
    TheSystem().pauses.clear();
  }

  // The log of one pass, with 0x for the addresses of parsers.
  std::string Run(unsigned int mask = kDebugDefault) {
    return WithoutAddresses(LogOf([&] { player_->Run(); }, mask));
  }
  // The same for a pass that throws; the text is in thrown_.
  std::string RunToFailure(unsigned int mask = kDebugDefault) {
    return WithoutAddresses(LogOf([&] { thrown_ = ThrownText([&] { player_->Run(); }); }, mask));
  }
  static std::string WithoutAddresses(const std::string& log) {
    const std::string address = "using parser 0x";
    std::string text;
    size_t position = 0;
    for (size_t found = 0; (found = log.find(address, position)) != std::string::npos;) {
      text += log.substr(position, found - position) + address;
      position = log.find(' ', found + address.size());
    }
    return text + log.substr(position);
  }
  std::list<std::string> Delivered() const { return Directory(settings_.output).GetFileNames(); }
  std::string DeliveredFile(const std::string& name) const {
    return ReadFile(settings_.output + "/" + name);
  }
  std::string Status() const { return ReadFile(settings_.status); }
  std::string StatusAttribute(const std::string& name) const {
    return ParseXML(Status())->GetAttributeString(name);
  }

  static unsigned int ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
    return status.st_mode;
  }

  // What parsers and directories log about a file with valid text.
  std::string Parsed(const std::string& id, const std::string& text,
                     const std::string& name = "m") const {
    return "Original is valid UTF-8\nFrom " + Input(id) + "/" + name + ": " + text + "\n";
  }
  std::string Created(const std::string& id) const {
    return "Removing contents of directory " + Input(id) + "\nCould not execute \"rm " + Input(id) +
           "/* > /dev/null 2>&1\"\nCreated new input directory " + id + "\n";
  }
  static std::string Attached(const std::string& id, const std::string& parser = "text-utf8") {
    return "Directory \"" + id + "\" using parser 0x " + parser + "\n";
  }
  std::string Processing() const { return "Processing configuration " + settings_.config + "\n"; }

  TemporaryDirectory tree_;
  Settings settings_;
  std::unique_ptr<Vocastra> player_;
  std::string thrown_;
};

// --- Construction and destruction ---

TEST_F(VocastraTest, OwnsTwoEmptyTemporaryFilesWhileItLives) {
  player_ = Build(settings_);
  ASSERT_EQ(2U, TheSystem().temporary_files.size());
  EXPECT_THAT(TextFile(), StartsWith("/tmp/text"));
  EXPECT_THAT(SpeechFile(), StartsWith("/tmp/speech"));
  EXPECT_TRUE(Exists(TextFile()) && Exists(SpeechFile()));
  EXPECT_EQ("", ReadFile(TextFile()) + ReadFile(SpeechFile()));
  player_.reset();
  EXPECT_FALSE(Exists(TextFile()) || Exists(SpeechFile()));
}

TEST_F(VocastraTest, NeedsNoFileButTheOutputDirectoryToBeBuilt) {
  settings_.translator = "";
  EXPECT_EQ(kNoLog, LogOf([&] { player_ = Build(settings_); }, kDebugAvailable));
  settings_.output = "";
  EXPECT_EQ(kNoLog, LogOf([&] { player_ = Build(settings_); }, kDebugAvailable));
}

TEST_F(VocastraTest, LeavesNothingBehindIfTheOutputDirectoryCannotBeOpened) {
  settings_.output = tree_ / "missing";
  EXPECT_EQ("Could not open directory " + settings_.output + "/",
            ThrownText([&] { Build(settings_); }));
  ASSERT_EQ(2U, TheSystem().temporary_files.size());
  EXPECT_FALSE(Exists(TextFile()) || Exists(SpeechFile()));
}

TEST_F(VocastraTest, LeavesNothingBehindIfATemporaryFileCannotBeMade) {
  for (const std::string path : {"/tmp/textXXXXXX", "/tmp/speechXXXXXX"}) {
    TheSystem().failing_template = path;
    EXPECT_EQ("Could not create temporary file with template \"" + path + "\"",
              ThrownText([&] { Build(settings_); }));
    for (const std::string& made : TheSystem().temporary_files) {
      EXPECT_FALSE(Exists(made)) << made;
    }
  }
  EXPECT_EQ(1U, TheSystem().temporary_files.size());
}

TEST_F(VocastraTest, EndsItsDirectoriesBeforeItsTemporaryFiles) {
  settings_.cifs_helper = "/bin/true";
  Start("<directory id='r' type='cifs'/>" + Element("a"), "stop");
  bool stopped_helper = false;
  TheSystem().on_long_pause = [&] {
    EXPECT_TRUE(Exists(TextFile()) && Exists(SpeechFile()));
    stopped_helper = true;
  };
  const std::string log = LogOf([&] { player_.reset(); }, kDebugAvailable);
  EXPECT_THAT(log, MatchesRegex("Sending SIGTERM to PID [0-9]+\n"
                                "Removing temporary directory /tmp/watch[^\n]*\n"));
  EXPECT_TRUE(stopped_helper);
  EXPECT_FALSE(Exists(TextFile()) || Exists(SpeechFile()));
}

// --- Passes ---

TEST_F(VocastraTest, WritesTheStatusOnceAndPausesOnceInAnIdlePass) {
  Start(Element("a"));
  EXPECT_EQ("0", StatusAttribute("timestamp"));
  EXPECT_EQ(kNoLog, Run());
  EXPECT_EQ("1", StatusAttribute("timestamp"));
  EXPECT_THAT(TheSystem().pauses, ElementsAre(kPassPause));
}

TEST_F(VocastraTest, WritesTheStatusAndPausesAfterEverySnippet) {
  settings_.words = 1;
  Start(Element("a"));
  std::vector<std::string> timestamps;
  TheSystem().on_pause = [&] { timestamps.push_back(StatusAttribute("timestamp")); };
  Drop("a", "1 2 3 4 5 6");
  Run();
  EXPECT_EQ(3U, Delivered().size());
  EXPECT_EQ(std::vector<useconds_t>(4, kPassPause), TheSystem().pauses);
  EXPECT_THAT(timestamps, ElementsAre("0", "1", "2", "3"));
}

TEST_F(VocastraTest, ScansTheDirectoriesInOrderOfTheirIDs) {
  Start(Element("b", "priority='1'") + Element("B", "priority='3'") +
            Element("10", "priority='2'") + Element("9"),
        "wait");
  for (const char* id : {"b", "B", "10", "9"}) {
    Drop(id, id);
  }
  std::string expected;
  for (const std::string id : {"10", "9", "B", "b"}) {
    expected += Parsed(id, id) + "Adding m " + CRCText(id) + " to file_map\n" + Parsed(id, id);
  }
  EXPECT_EQ(expected, Run());
}

TEST_F(VocastraTest, SpeaksInTheSamePassWhatArrivesDuringIt) {
  Start(Element("a"));
  Drop("a", "first");
  TheSystem().on_pause = [&] {
    if (TheSystem().pauses.size() == 1) {
      Drop("a", "second", "n");
    }
  };
  Run();
  EXPECT_EQ("first ", DeliveredFile("0_a.text_live_first.raw").substr(strlen(kPauseTag)));
  EXPECT_EQ("second ", DeliveredFile("1_a.text_live_first.raw").substr(strlen(kPauseTag)));
}

TEST_F(VocastraTest, InterruptsAMessageForAMoreUrgentOne) {
  settings_.words = 1;
  Start(Element("a", "priority='5'") + Element("u", "priority='1'"));
  Drop("a", "1 2 3 4");
  TheSystem().on_pause = [&] {
    if (TheSystem().pauses.size() == 1) {
      Drop("u", "urgent");
    }
  };
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw", "1_u.text_live_first.raw",
                                       "2_a.text_live_cont.raw"));
  EXPECT_EQ("3 4 ", DeliveredFile("2_a.text_live_cont.raw"));
}

TEST_F(VocastraTest, PausesAtTheEndOfAFailingPassToo) {
  player_ = Build(settings_);
  for (int i = 1; i < 4; ++i) {
    RunToFailure();
    EXPECT_EQ(std::vector<useconds_t>(static_cast<size_t>(i), kPassPause), TheSystem().pauses);
  }
  EXPECT_FALSE(Exists(settings_.status));
}

TEST_F(VocastraTest, EndsThePassIfADirectoryCannotBeScanned) {
  Start(Element("a") + Element("b"));
  ASSERT_EQ(0, rmdir(Input("a").c_str()));
  Drop("b", "text");
  EXPECT_EQ(kNoLog, RunToFailure(kDebugAvailable));
  EXPECT_EQ("Could not open directory " + Input("a") + "/", thrown_);
  EXPECT_EQ("0", StatusAttribute("timestamp"));
  EXPECT_THAT(TheSystem().pauses, ElementsAre(kPassPause));
  ASSERT_EQ(0, mkdir(Input("a").c_str(), 0777));
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_b.text_live_first.raw"));
}

TEST_F(VocastraTest, EndsThePassIfADirectoryVanishesDuringIt) {
  settings_.words = 1;
  Start(Element("a"));
  Drop("a", "1 2 3 4");
  TheSystem().on_pause = [&] { rmdir(Input("a").c_str()); };
  RunToFailure();
  EXPECT_EQ("Could not open directory " + Input("a") + "/", thrown_);
  EXPECT_THAT(TheSystem().pauses, ElementsAre(kPassPause, kPassPause));
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
  EXPECT_EQ("0", StatusAttribute("timestamp")) << "written only after the scan";
}

// --- Glossary ---

std::string Glossary(const std::string& speech) {
  return "<glossary><word text='Dr' speech='" + speech + "'/></glossary>";
}

TEST_F(VocastraTest, RebuildsTheGlossaryInEveryPass) {
  settings_.glossary = tree_.Write("glossary.xml", Glossary("doctor"));
  Start("");
  const std::string log = "Processing glossary " + settings_.glossary +
                          "\nOriginal is valid UTF-8\nEndElement: word\nEndElement: glossary\n";
  EXPECT_EQ(log, Run(kDebugAvailable));
  EXPECT_EQ(log, Run(kDebugAvailable));
}

TEST_F(VocastraTest, KeepsAGlossaryWhoseChecksumIsZero) {
  settings_.glossary = tree_.Write("glossary.xml", WithCRCZero(Glossary("doctor")));
  Configure("");
  player_ = Build(settings_);
  EXPECT_NE(std::string::npos, Run(kDebugAvailable).find("Processing glossary"));
  EXPECT_EQ(kNoLog, Run(kDebugAvailable));
}

TEST_F(VocastraTest, KeepsTheGlossaryWhenItsFileVanishes) {
  settings_.glossary = tree_.Write("glossary.xml", Glossary("doctor"));
  Start(Element("a"));
  ASSERT_EQ(0, unlink(settings_.glossary.c_str()));
  Drop("a", "Dr. No");
  Run();
  EXPECT_EQ(kPauseTag + std::string("doctor. No "), DeliveredFile("0_a.text_live_first.raw"));
}

TEST_F(VocastraTest, SpeaksTheGlossarysFormOfEveryWord) {
  settings_.glossary = tree_.Write(
      "glossary.xml",
      "<glossary><word text='Dr' speech='doctor'/><word text='St' speech='%s $1'/></glossary>");
  Start(Element("a"));
  Drop("a", "Dr. St, Dr Drs");
  Run();
  EXPECT_EQ(kPauseTag + std::string("doctor. %s $1, doctor Drs "),
            DeliveredFile("0_a.text_live_first.raw"));
}

TEST_F(VocastraTest, UsesAnEditedGlossaryFromTheNextPassOn) {
  settings_.glossary = tree_.Write("glossary.xml", Glossary("doctor"));
  settings_.words = 1;
  Start(Element("a"));
  Drop("a", "Dr Dr Dr Dr");
  TheSystem().on_pause = [&] { tree_.Write("glossary.xml", Glossary("drive")); };
  Run();
  Drop("a", "Dr", "n");
  Run();
  EXPECT_EQ("doctor doctor ", DeliveredFile("1_a.text_live_cont.raw"));
  EXPECT_EQ(kPauseTag + std::string("drive "), DeliveredFile("2_a.text_live_first.raw"));
}

TEST_F(VocastraTest, EndsThePassIfTheGlossaryCannotBeRead) {
  settings_.glossary = tree_ / "glossary.xml";
  Configure(Element("a"));
  player_ = Build(settings_);
  const std::string missing = "Could not open \"" + settings_.glossary + "\" for reading";
  EXPECT_EQ(Processing() + Created("a") + Attached("a") + "Now in \"run\" state\n" + missing + "\n",
            RunToFailure());
  EXPECT_EQ("Reading glossary " + settings_.glossary + ": " + missing, thrown_);
  EXPECT_EQ(missing + "\n", RunToFailure()) << "the configuration has been applied";
  EXPECT_FALSE(Exists(settings_.status));
}

TEST_F(VocastraTest, ScansNoDirectoryWhileTheGlossaryIsBroken) {
  settings_.glossary = tree_.Write("glossary.xml", Glossary("doctor"));
  Start(Element("a"));
  tree_.Write("glossary.xml", "<glossary></oops>");
  Drop("a", "Dr");
  EXPECT_EQ("mismatched tag at line 1\n", RunToFailure()) << "the file is not indexed";
  EXPECT_TRUE(Exists(Input("a") + "/m")) << "nor taken";
  tree_.Write("glossary.xml", Glossary("drive"));
  Run();
  EXPECT_EQ(kPauseTag + std::string("drive "), DeliveredFile("0_a.text_live_first.raw"));
}

TEST_F(VocastraTest, DropsTheOldGlossaryIfTheNewOneIsMalformed) {
  settings_.glossary = tree_.Write("glossary.xml", Glossary("doctor"));
  Start(Element("a"));
  tree_.Write("glossary.xml", "<glossary>\n<word text='Dr'>\n</glossary>");
  EXPECT_EQ("mismatched tag at line 3\n", RunToFailure());
  EXPECT_EQ("Reading glossary " + settings_.glossary + ": mismatched tag at line 3", thrown_);
  // The checksum of a missing file is that of the last one, but there is no glossary to keep.
  ASSERT_EQ(0, unlink(settings_.glossary.c_str()));
  RunToFailure();
  EXPECT_EQ("Reading glossary " + settings_.glossary + ": Could not open \"" + settings_.glossary +
                "\" for reading",
            thrown_);
}

TEST_F(VocastraTest, DoesWithoutAGlossary) {
  Start(Element("a"));
  Drop("a", "Dr. No");
  Run();
  EXPECT_EQ(kPauseTag + std::string("Dr. No "), DeliveredFile("0_a.text_live_first.raw"));
}

// --- Configuration ---

TEST_F(VocastraTest, LogsHowItIsConfigured) {
  Configure(Element("b") + Element("a", "parser='text' encoding='ascii'"));
  player_ = Build(settings_);
  EXPECT_EQ(Processing() + Created("b") + Created("a") + Attached("a", "text-ascii") +
                Attached("b") + "Now in \"run\" state\n",
            Run());
}

TEST_F(VocastraTest, LooksAtAnUnchangedConfigurationOnlyOnce) {
  Start(Element("a"));
  EXPECT_EQ(kNoLog, Run(0x3));
  Configure(Element("a"));
  EXPECT_EQ(kNoLog, Run(0x3)) << "written again with the same bytes";
}

TEST_F(VocastraTest, NoticesAConfigurationThatChangesWhileItIsApplied) {
  settings_.cifs_helper = "/bin/true";
  Start("<directory id='r' type='cifs'/>");
  TheSystem().on_long_pause = [&] { Configure(Element("b")); };  // While the helper is stopped.
  Configure(Element("a"));
  Run();
  EXPECT_EQ(Processing() + Created("b") + "Deleted input directory a\n" + Attached("b"), Run());
}

TEST_F(VocastraTest, HandsTheHelpersAndTheWordLimitToItsDirectories) {
  settings_.words = 2;
  settings_.cifs_helper = tree_ / "missing-cifs";
  settings_.ftp_helper = "";
  Configure(Element("a") + "<directory id='c' type='cifs'/><directory id='f' type='ftp'/>");
  player_ = Build(settings_);
  const std::string log = Run();
  EXPECT_NE(std::string::npos, log.find("Created new input directory c\n")) << log;
  EXPECT_NE(std::string::npos,
            log.find("Skipped directory f: Ignoring FTP dir; no FTP helper directory\n"))
      << log;
  Drop("a", "1 2 3 4 5");
  Run();
  EXPECT_EQ("5 ", DeliveredFile("1_a.text_live_cont.raw"));
}

TEST_F(VocastraTest, SkipsRemoteDirectoriesWithoutTheirHelper) {
  settings_.cifs_helper = "";
  settings_.ftp_helper = "/bin/true";
  Configure("<directory id='c' type='cifs'/>");
  player_ = Build(settings_);
  EXPECT_EQ(Processing() +
                "Skipped directory c: Ignoring CIFS mount; no CIFS helper directory\n"
                "Now in \"run\" state\n",
            Run());
}

TEST_F(VocastraTest, ReplacesOnlyTheDirectoryWhoseElementChanged) {
  Start(Element("a") + Element("b") + Element("c"));
  Configure(Element("c") + Element("b", "loops='2'") + Element("a"));
  EXPECT_EQ(Processing() + "Deleted input directory b\n" + Created("b") + Attached("a") +
                Attached("b") + Attached("c"),
            Run());
}

TEST_F(VocastraTest, KeepsTheMessageOfAnUnchangedDirectory) {
  settings_.words = 1;
  Start(Element("a", "loops='1'"), "wait");
  Drop("a", "1 2 3 4");
  Run();
  tree_.Write("config.xml", "<tts-config state='run' note='x'><directory loops='1' path='" +
                                Input("a") +
                                "' type='local' id='a'>text<x/></directory></tts-config>");
  EXPECT_EQ(Processing() + Attached("a") + "Now in \"run\" state\n",
            Run().substr(0, (Processing() + Attached("a") + "Now in \"run\" state\n").size()));
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw", "1_a.text_live_cont.raw"));
}

TEST_F(VocastraTest, LosesTheMessageOfAReplacedDirectory) {
  Start(Element("a"), "wait");
  Drop("a", "text");
  Run();
  EXPECT_NE(std::string::npos, Status().find("<message"));
  Configure(Element("a", "loops='2'"));
  Run();
  EXPECT_THAT(Delivered(), IsEmpty());
}

TEST_F(VocastraTest, DeletesDirectoriesThatAreNoLongerConfigured) {
  Start(Element("a") + Element("b") + Element("c"));
  Configure(Element("b"));
  EXPECT_EQ(Processing() + "Deleted input directory a\nDeleted input directory c\n" + Attached("b"),
            Run());
  Configure("");
  EXPECT_EQ(Processing() + "Deleted input directory b\n", Run());
}

TEST_F(VocastraTest, TakesTheFirstOfTwoDirectoriesWithTheSameID) {
  Configure(Element("a", "display-id='one'") + Element("a", "display-id='two'"));
  player_ = Build(settings_);
  EXPECT_EQ(Processing() + Created("a") + "Duplicate directory ID \"a\"\n" + Attached("a") +
                "Now in \"run\" state\n",
            Run());
  Drop("a", "text");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_one.text_live_first.raw"));
}

TEST_F(VocastraTest, TakesAnIDForUsedEvenIfItsFirstDirectoryIsSkipped) {
  Configure(Element("a", "priority='x'") + Element("a"));
  player_ = Build(settings_);
  const std::string text =
      "While processing attribute \"priority\" of \"directory\": Could not convert \"x\" to "
      "integer";
  EXPECT_EQ(Processing() + text + "\nSkipped directory a: " + text +
                "\nDuplicate directory ID \"a\"\nNow in \"run\" state\n",
            Run());
}

TEST_F(VocastraTest, SkipsBadDirectoriesAndLoadsTheOthers) {
  Configure("<directory type='local'/>" + Element("a", "loops=' 1 '") + Element("b") +
            "<directory id='' type='ftp'/>");
  player_ = Build(settings_);
  const std::string no_id = "Element directory has no attribute id";
  const std::string bad_loops =
      "While processing attribute \"loops\" of \"directory\": Could not convert \" 1 \" to integer";
  EXPECT_EQ(Processing() + no_id + "\nSkipped directory : " + no_id + "\n" + bad_loops +
                "\nSkipped directory a: " + bad_loops + "\n" + Created("b") +
                "Skipped directory : Ignoring FTP dir; no FTP helper directory\n" + Attached("b") +
                "Now in \"run\" state\n",
            Run());
}

TEST_F(VocastraTest, DeletesADirectoryWhoseNewElementIsBad) {
  Start(Element("a") + Element("b"));
  Configure(Element("a", "priority='x'") + Element("b"));
  const std::string text =
      "While processing attribute \"priority\" of \"directory\": Could not convert \"x\" to "
      "integer";
  EXPECT_EQ(Processing() + "Deleted input directory a\n" + text + "\nSkipped directory a: " + text +
                "\n" + Attached("b"),
            Run());
  EXPECT_EQ(std::string::npos, Status().find("id=\"a\""));
  EXPECT_EQ(kNoLog, Run()) << "applied all the same";
}

TEST_F(VocastraTest, IgnoresOtherAndNestedElements) {
  Configure("<Directory id='x'/><group>" + Element("y") + "</group>" + Element("a"));
  player_ = Build(settings_);
  EXPECT_EQ(Processing() + Created("a") + Attached("a") + "Now in \"run\" state\n", Run());
}

TEST_F(VocastraTest, FailsEveryPassWhileTheConfigurationIsUnusable) {
  const std::string no_root = "No \"tts-config\" root element";
  const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
      {"", "", no_root},
      {"<config state='run'/>", "", no_root},
      {"<config state='run'>", "", no_root},
      {"no xml", "syntax error at line 1\n", no_root},
      {"<config></x>", "mismatched tag at line 1\n", no_root},
      {"<tts-config state='run'>\n<a>\n</tts-config>", "", "mismatched tag at line 3"},
      {"<tts-config state='run'/><tts-config/>", "", "junk after document element at line 1"},
  };
  for (const auto& [text, log, thrown] : cases) {
    tree_.Write("config.xml", text);
    player_ = Build(settings_);
    for (int pass = 0; pass < 2; ++pass) {
      EXPECT_EQ(log + thrown + "\n", RunToFailure()) << text;
      EXPECT_EQ(thrown, thrown_) << text;
    }
  }
}

TEST_F(VocastraTest, FailsEveryPassWhileTheConfigurationIsMissing) {
  player_ = Build(settings_);
  const std::string text = "Could not open \"" + settings_.config + "\" for reading";
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(text + "\n", RunToFailure(kDebugAvailable));
    EXPECT_EQ(text, thrown_);
  }
  Configure("");
  EXPECT_EQ(Processing() + "Now in \"run\" state\n", Run());
}

TEST_F(VocastraTest, RequiresAState) {
  Start(Element("a"));
  tree_.Write("config.xml", "<tts-config>" + Element("b") + "</tts-config>");
  const std::string text = "Element tts-config has no attribute state";
  EXPECT_EQ(Processing() + text + "\n", RunToFailure());
  EXPECT_EQ(text, thrown_);
}

TEST_F(VocastraTest, KeepsTheOldConfigurationWholeIfTheNewOneIsBroken) {
  settings_.words = 1;
  Start(Element("a"), "wait");
  Drop("a", "1 2 3 4");
  Run();
  const std::string good = ReadFile(settings_.config);
  for (const std::string broken :
       {"", "<tts-config state='run'><directory id='b'/></b>", "<tts-config/>", "<x/>"}) {
    tree_.Write("config.xml", broken);
    RunToFailure();
    EXPECT_FALSE(thrown_.empty()) << broken;
    tree_.Write("config.xml", good);
    EXPECT_EQ(kNoLog, Run()) << broken;
    EXPECT_EQ("wait", StatusAttribute("state")) << broken;
    EXPECT_NE(std::string::npos, Status().find("<message")) << broken;
  }
}

TEST_F(VocastraTest, AcceptsAConfigurationThatMerelyEndsEarly) {
  tree_.Write("config.xml", "<tts-config state='run'>" + Element("a") + "<directory id='");
  player_ = Build(settings_);
  EXPECT_EQ(Processing() + Created("a") + Attached("a") + "Now in \"run\" state\n", Run());
}

TEST_F(VocastraTest, TakesAMissingConfigurationForUnchangedIfItsChecksumWasZero) {
  tree_.Write("config.xml",
              WithCRCZero("<tts-config state='run'>" + Element("a") + "</tts-config>"));
  player_ = Build(settings_);
  EXPECT_EQ(Processing() + Created("a") + Attached("a") + "Now in \"run\" state\n", Run());
  ASSERT_EQ(0, unlink(settings_.config.c_str()));
  EXPECT_EQ(kNoLog, Run());
}

// --- Parsers ---

TEST_F(VocastraTest, AttachesTheParserOfEveryEncoding) {
  std::string elements = "<parser id='x' type='xml'/>";
  std::string log = Processing();
  for (const std::string parser : {"text", "x"}) {
    for (const std::string encoding : {"ascii", "utf16", "utf8"}) {
      const std::string id = parser + "-" + encoding;
      elements += Element(id, "parser='" + parser + "' encoding='" + encoding + "'");
      log += Created(id);
    }
  }
  for (const std::string id :
       {"text-ascii", "text-utf16", "text-utf8", "x-ascii", "x-utf16", "x-utf8"}) {
    log += Attached(id, id);
  }
  Configure(elements);
  player_ = Build(settings_);
  EXPECT_EQ(log + "Now in \"run\" state\n", Run());
}

TEST_F(VocastraTest, ReadsEveryDirectoryInItsEncoding) {
  const std::string utf16 = std::string("\xE9\0", 2);
  const std::string fields = "<field tag='t' attr='' attr_value=''/>";
  std::string elements = "<parser id='x' type='xml'>" + fields + "</parser>";
  for (const std::string parser : {"text", "x"}) {
    for (const std::string encoding : {"ascii", "utf16", "utf8"}) {
      elements += Element(parser + encoding, "parser='" + parser + "' encoding='" + encoding + "'");
    }
  }
  Start(elements);
  Drop("textascii", "\xE9");
  Drop("textutf8", "\xC3\xA9");
  Drop("textutf16", utf16);
  const std::string xml = "<r><t>\xE9</t></r>";
  Drop("xascii", xml);
  Drop("xutf8", "<r><t>\xC3\xA9</t></r>");
  std::string wide = "\xFF\xFE";
  for (const char c : xml) {
    wide += c;
    wide += '\0';
  }
  Drop("xutf16", wide);
  Run();
  EXPECT_EQ(6U, Delivered().size());
  for (const std::string& name : Delivered()) {
    EXPECT_EQ(kPauseTag + std::string("\xC3\xA9 "), DeliveredFile(name)) << name;
  }
}

TEST_F(VocastraTest, SharesOneParserAmongTheDirectoriesThatNameIt) {
  Configure(Element("a") + Element("b", "parser='text' encoding='utf8'") +
            Element("c", "parser='text' encoding='ascii'"));
  player_ = Build(settings_);
  const std::string log = LogOf([&] { player_->Run(); });
  const std::string lead = " using parser ";
  std::vector<std::string> parsers;
  for (size_t at = log.find(lead); at != std::string::npos; at = log.find(lead, at + 1)) {
    const size_t start = at + lead.size();
    parsers.push_back(log.substr(start, log.find(' ', start) - start));
  }
  ASSERT_EQ(3U, parsers.size()) << log;
  EXPECT_EQ(parsers[0], parsers[1]);
  EXPECT_NE(parsers[0], parsers[2]);
}

TEST_F(VocastraTest, AttachesNoParserIfTheNamedOneDoesNotExist) {
  Configure(Element("a", "parser='text'") + Element("b", "parser='x' encoding='utf8'") +
            Element("c", "encoding='nonsense'") + Element("d", "parser='text' encoding='UTF8'"));
  player_ = Build(settings_);
  const auto missing = [](const std::string& id, const std::string& parser) {
    return "Directory \"" + id + "\" uses nonexistent parser \"" + parser + "\"\nDirectory \"" +
           id + "\" using parser (nil) " + parser + "\n";
  };
  EXPECT_EQ(Processing() + Created("a") + Created("b") + Created("c") + Created("d") +
                missing("a", "text-") + missing("b", "x-utf8") + Attached("c") +
                missing("d", "text-UTF8") + "Now in \"run\" state\n",
            Run());
  Drop("b", "text");
  EXPECT_EQ(kNoLog, Run());
}

TEST_F(VocastraTest, IgnoresParsersOfOtherTypes) {
  Configure("<parser id='p' type='json'/><parser id='q' type=''/>");
  player_ = Build(settings_);
  EXPECT_EQ(Processing() +
                "Ignoring parser ID \"p\"; type \"json\" not supported\n"
                "Ignoring parser ID \"q\"; type \"\" not supported\n"
                "Now in \"run\" state\n",
            Run());
}

TEST_F(VocastraTest, ReportsAParserOnlyIfItsIDIsAnEncodedOne) {
  Configure(
      "<parser id='text-utf8'/><parser id='x' type='xml'/><parser id='x-ascii' type='xml'/>"
      "<parser id='text' type='xml'/><parser id='x' type='other'/>");
  player_ = Build(settings_);
  EXPECT_EQ(Processing() +
                "Duplicate parser ID \"text-utf8\"\n"
                "Duplicate parser ID \"x-ascii\"\n"
                "Ignoring parser ID \"x\"; type \"other\" not supported\n"
                "Now in \"run\" state\n",
            Run());
}

TEST_F(VocastraTest, TakesTheFirstOfTwoParsersWithTheSameIDWithoutAWord) {
  const auto parser = [](const std::string& id, const std::string& tag) {
    return "<parser id='" + id + "' type='xml'><field tag='" + tag +
           "' attr='' attr_value=''/></parser>";
  };
  Configure(parser("x", "one") + parser("x", "two") + parser("text", "one") +
            Element("a", "parser='x' encoding='utf8'") +
            Element("b", "parser='text' encoding='utf8'"));
  player_ = Build(settings_);
  EXPECT_EQ(Processing() + Created("a") + Created("b") + Attached("a", "x-utf8") +
                Attached("b", "text-utf8") + "Now in \"run\" state\n",
            Run());
  Drop("a", "<r><one>1</one><two>2</two></r>");
  Drop("b", "plain");
  Run();
  EXPECT_EQ(kPauseTag + std::string("1 "), DeliveredFile("0_a.text_live_first.raw"));
  EXPECT_EQ(kPauseTag + std::string("plain "), DeliveredFile("1_b.text_live_first.raw"));
}

TEST_F(VocastraTest, FailsEveryPassWhileAParserIsUnusable) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"<parser type='xml'/>", "Element parser has no attribute id"},
      {"<parser id='x'/>", "Element parser has no attribute type"},
      {"<parser id='x' type='xml' attr-mode='y'/>",
       "While processing attribute \"attr-mode\" of \"parser\": Could not convert \"y\" to "
       "integer"},
      {"<parser id='x' type='xml'><field/></parser>", "Element field has no attribute tag"},
  };
  Start(Element("a"));
  for (const auto& [parser, text] : cases) {
    Configure(parser + Element("a"));
    for (int pass = 0; pass < 2; ++pass) {
      EXPECT_EQ(Processing() + text + "\n", RunToFailure()) << parser;
      EXPECT_EQ(text, thrown_);
    }
  }
  EXPECT_EQ("0", StatusAttribute("timestamp"));
}

TEST_F(VocastraTest, KeepsTheDirectoryChangesMadeBeforeAParserFailed) {
  Start(Element("a") + Element("b"), "wait");
  Drop("a", "text");
  Run();
  Configure(Element("a") + Element("c") + "<parser/>");
  const std::string text = "Element parser has no attribute id\n";
  EXPECT_EQ(Processing() + Created("c") + "Deleted input directory b\n" + text, RunToFailure());
  EXPECT_EQ(Processing() + text, RunToFailure());
  Configure(Element("a") + Element("c"));
  EXPECT_EQ(
      Processing() + Attached("a") + Attached("c") + "Now in \"run\" state\n",
      Run().substr(
          0, (Processing() + Attached("a") + Attached("c") + "Now in \"run\" state\n").size()));
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
}

TEST_F(VocastraTest, RebuildsTheParsersAtEveryReload) {
  const auto parser = [](const std::string& tag) {
    return "<parser id='x' type='xml'><field tag='" + tag + "' attr='' attr_value=''/></parser>";
  };
  const std::string element = Element("a", "parser='x' encoding='utf8'");
  Start(element + parser("one"));
  Configure(element + parser("two"));
  EXPECT_EQ(Processing() + Attached("a", "x-utf8"), Run());
  Drop("a", "<r><one>1</one><two>2</two></r>");
  Run();
  EXPECT_EQ(kPauseTag + std::string("2 "), DeliveredFile("0_a.text_live_first.raw"));
  Configure(element);
  EXPECT_EQ(Processing() +
                "Directory \"a\" uses nonexistent parser \"x-utf8\"\n"
                "Directory \"a\" using parser (nil) x-utf8\n",
            Run());
}

// --- State ---

TEST_F(VocastraTest, ProducesOnlyInTheStateRun) {
  for (const std::string state : {"stop", "Run", "run ", "", "pause"}) {
    Start(Element("a"), state);
    Drop("a", "text");
    EXPECT_EQ(Parsed("a", "text") + "Adding m " + CRCText("text") + " to file_map\n" +
                  Parsed("a", "text"),
              Run())
        << state;
    EXPECT_EQ(state, StatusAttribute("state"));
    EXPECT_THAT(Delivered(), IsEmpty()) << state;
  }
}

TEST_F(VocastraTest, LogsEveryChangeOfTheState) {
  Start("", "run");
  for (const std::string state : {"stop", "pause", "run", ""}) {
    Configure("", state);
    EXPECT_EQ(Processing() + "Now in \"" + state + "\" state\n", Run());
    Configure(" ", state);
    EXPECT_EQ(Processing(), Run());
  }
}

TEST_F(VocastraTest, DoesNotLogAnEmptyFirstState) {
  Configure("", "");
  player_ = Build(settings_);
  EXPECT_EQ(Processing(), Run());
}

TEST_F(VocastraTest, StopsMessagesAndEmptiesTheOutputDirectoryOnceWhenStopped) {
  settings_.words = 1;
  settings_.files = 1;
  Start(Element("a"));
  Drop("a", "1 2 3 4");
  Run();
  tree_.Write("out/.hidden", "");
  ASSERT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
  Configure(Element("a"), "stop");
  EXPECT_EQ(Processing() + Attached("a") + "Now in \"stop\" state\n", Run());
  EXPECT_THAT(Delivered(), IsEmpty());
  EXPECT_TRUE(Exists(tree_ / "out/.hidden"));
  EXPECT_EQ(std::string::npos, Status().find("<message"));
  tree_.Write("out/kept", "");
  Drop("a", "other");
  Configure(Element("a") + " ", "stop");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("kept"));
  EXPECT_NE(std::string::npos, Status().find("<message"));
}

TEST_F(VocastraTest, KeepsMessagesAndOutputInAnyOtherState) {
  settings_.words = 1;
  settings_.files = 1;
  Start(Element("a"));
  Drop("a", "1 2 3 4");
  Run();
  Configure(Element("a"), "pause");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
  ASSERT_EQ(0, unlink((settings_.output + "/0_a.text_live_first.raw").c_str()));
  Configure(Element("a"), "run");
  Run();
  EXPECT_EQ("3 4 ", DeliveredFile("1_a.text_live_cont.raw"));
}

TEST_F(VocastraTest, EmptiesTheOutputDirectoryIfItStartsStopped) {
  tree_.Write("out/old", "");
  Start("", "stop");
  EXPECT_THAT(Delivered(), IsEmpty());
  tree_.Write("out/old", "");
  Start("", "run");
  EXPECT_THAT(Delivered(), ElementsAre("old"));
}

TEST_F(VocastraTest, AppliesTheOldConfigurationAnewAfterAParserFailed) {
  Start(Element("a") + Element("b"));
  const std::string good = ReadFile(settings_.config);
  Configure(Element("a") + Element("c") + "<parser/>");
  RunToFailure();
  tree_.Write("config.xml", good);
  EXPECT_EQ(
      Processing() + Created("b") + "Deleted input directory c\n" + Attached("a") + Attached("b"),
      Run());
  EXPECT_EQ(kNoLog, Run());
  Drop("a", "text");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
}

TEST_F(VocastraTest, AppliesTheOldConfigurationAnewAfterAStopFailed) {
  Start(Element("a"));
  const std::string good = ReadFile(settings_.config);
  ASSERT_EQ(0, rmdir(settings_.output.c_str()));
  Configure(Element("b"), "stop");
  RunToFailure();
  ASSERT_EQ(0, mkdir(settings_.output.c_str(), 0777));
  tree_.Write("config.xml", good);
  EXPECT_EQ(Processing() + Created("a") + "Deleted input directory b\n" + Attached("a"), Run());
}

TEST_F(VocastraTest, EndsItsDirectoriesInOrderOfTheirIDs) {
  settings_.cifs_helper = "/bin/true";
  std::string elements;
  for (const std::string id : {"d", "b", "a", "c", "e"}) {
    elements += "<directory id='" + id + "' type='cifs'/>";
  }
  Start(elements, "stop");
  std::string expected;
  const auto status = ParseXML(Status());
  for (const XMLElement* directory : status->GetChildren("directory")) {
    expected += "Sending SIGTERM to PID [0-9]+\nRemoving temporary directory " +
                directory->GetAttributeString("path") + "\n";
  }
  EXPECT_THAT(LogOf([&] { player_.reset(); }, kDebugAvailable), MatchesRegex(expected));
}

TEST_F(VocastraTest, RetriesToStopUntilTheOutputDirectoryCanBeEmptied) {
  Start("");
  ASSERT_EQ(0, rmdir(settings_.output.c_str()));
  Configure("", "stop");
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(Processing(), RunToFailure());
    EXPECT_EQ("Could not open \"" + settings_.output + "/\" for enumeration: " + strerror(ENOENT),
              thrown_);
  }
  ASSERT_EQ(0, mkdir(settings_.output.c_str(), 0777));
  EXPECT_EQ(Processing() + "Now in \"stop\" state\n", Run());
}

TEST_F(VocastraTest, StopsNoMessageUntilTheOutputDirectoryCanBeEmptied) {
  settings_.words = 1;
  settings_.files = 1;
  Start(Element("a"));
  Drop("a", "1 2 3 4");
  Run();
  const std::string running = ReadFile(settings_.config);
  ASSERT_EQ(0, unlink((settings_.output + "/0_a.text_live_first.raw").c_str()));
  ASSERT_EQ(0, rmdir(settings_.output.c_str()));
  Configure(Element("a"), "stop");
  RunToFailure();
  EXPECT_EQ("Could not open \"" + settings_.output + "/\" for enumeration: " + strerror(ENOENT),
            thrown_);
  ASSERT_EQ(0, mkdir(settings_.output.c_str(), 0777));
  tree_.Write("config.xml", running);
  Run();
  EXPECT_EQ("3 4 ", DeliveredFile("1_a.text_live_cont.raw"));
}

TEST_F(VocastraTest, StopsWithoutAnOutputDirectory) {
  settings_.output = "";
  Start(Element("a"));
  Configure(Element("a"), "stop");
  EXPECT_EQ(Processing() + Attached("a") + "Now in \"stop\" state\n", Run());
}

// --- Snippets ---

TEST_F(VocastraTest, LogsAMessageFromFileToAudio) {
  Start(Element("a", "priority='2'") + Element("b", "priority='1'"));
  Drop("a", "Hello world");
  const std::string id = Number(NextMessageID());
  const std::string idle = "Directory b reports an active message ID of 0\n";
  EXPECT_EQ(Parsed("a", "Hello world") + "Adding m " + CRCText("Hello world") + " to file_map\n" +
                Parsed("a", "Hello world") +
                "Parser returned: \"Hello world\"\nOriginal is valid UTF-8\nFrom " + Input("a") +
                "/m: Hello|world\n" + idle + "Directory a reports an active message ID of " + id +
                "\nHighest priority directory is a\ncalling engine\ndone calling engine\n"
                "copying 0_a.text_live_first.raw\nErasing m from file_map\n" +
                idle + "Directory a reports an active message ID of 0\n",
            Run(kDebugAvailable));
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
  EXPECT_EQ(kPauseTag + std::string("Hello world "), DeliveredFile("0_a.text_live_first.raw"));
}

TEST_F(VocastraTest, CallsTheTranslatorWithFilesArgumentsAndMessageName) {
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

TEST_F(VocastraTest, LeadsOnlyTheFirstSnippetOfAMessageWithThePauseTag) {
  settings_.words = 1;
  Start(Element("a", "loops='2'"));
  Drop("a", "1 2 3");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw", "1_a.text_live_cont.raw",
                                       "2_a.text_live_cont.raw", "3_a.text_live_cont.raw"));
  EXPECT_EQ("\\pau=300\\ 1 2 ", DeliveredFile("0_a.text_live_first.raw"));
  EXPECT_EQ("3 ", DeliveredFile("1_a.text_live_cont.raw"));
  EXPECT_EQ("1 2 ", DeliveredFile("2_a.text_live_cont.raw"));
}

TEST_F(VocastraTest, LetsTheTranslatorFindTheTextOnlyOfItsSnippet) {
  settings_.words = 1;
  UseTranslator("wc -c <\"$1\" >>\"$0.calls\"\n");
  Start(Element("a"));
  Drop("a", "aaaaaaaa bbbbbbbb c");
  Run();
  EXPECT_EQ("28\n2\n", TranslatorCalls());
}

TEST_F(VocastraTest, KeepsTranslatorOutputOutOfItsOwn) {
  UseTranslator("echo from the translator; echo from the translator >&2\n");
  Start(Element("a"));
  Drop("a", "text");
  std::string log;
  EXPECT_EQ("", OutputOf([&] { log = Run(); }));
  EXPECT_EQ(std::string::npos, log.find("from the translator")) << log;
}

TEST_F(VocastraTest, NamesOutputByDisplayIDAndPreview) {
  Start(Element("a", "display-id='lobby' preview='1'") + Element("b", "display-id=''"));
  Drop("a", "text");
  Drop("b", "text");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_lobby.text_pre_first.raw", "1_.text_live_first.raw"));
}

TEST_F(VocastraTest, NumbersItsOutputAcrossMessagesAndReloads) {
  Start(Element("a"));
  for (int i = 0; i < 3; ++i) {
    Configure(Element("a") + std::string(static_cast<size_t>(i), ' '));
    Drop("a", "text", "m" + Number(i));
    Run();
  }
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw", "1_a.text_live_first.raw",
                                       "2_a.text_live_first.raw"));
}

TEST_F(VocastraTest, LeadsAMessageWithSpacerBumperAndSilence) {
  settings_.words = 1;
  const std::string clips = "bumper-path='" + tree_.Write("bumper", "B") + "' spacer-path='" +
                            tree_.Write("spacer", "S") + "' silence-path='" +
                            tree_.Write("silence", "0") + "'";
  Start(Element("a", clips));
  Drop("a", "1 2 3");
  const std::string log = Run();
  const std::string engine = "calling engine\ndone calling engine\n";
  EXPECT_EQ(Parsed("a", "1 2 3") + "Adding m " + CRCText("1 2 3") + " to file_map\n" +
                Parsed("a", "1 2 3") + engine +
                "copying 0_a.warn_live_first.wav\ncopying 1_a.warn_live_first.wav\n"
                "copying 2_a.warn_live_first.wav\ncopying 3_a.text_live_first.raw\n" +
                engine + "copying 4_a.text_live_cont.raw\n",
            log);
  EXPECT_EQ("S", DeliveredFile("0_a.warn_live_first.wav"));
  EXPECT_EQ("B", DeliveredFile("1_a.warn_live_first.wav"));
  EXPECT_EQ("0", DeliveredFile("2_a.warn_live_first.wav"));
  EXPECT_THAT(TheSystem().pauses,
              ElementsAre(kClipPause, kClipPause, kClipPause, kPassPause, kPassPause, kPassPause));
}

TEST_F(VocastraTest, DeliversTheClipsThatAreConfigured) {
  const std::string bumper = "bumper-path='" + tree_.Write("bumper", "B") + "' ";
  const std::string spacer = "spacer-path='" + tree_.Write("spacer", "S") + "' ";
  const std::string silence = "silence-path='" + tree_.Write("silence", "0") + "' ";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {spacer, ""},
      {silence, "0"},
      {spacer + silence, "0"},
      {bumper + spacer, "SB"},
      {bumper + spacer + silence, "SB0"},
  };
  for (const auto& [attributes, expected] : cases) {
    TheSystem() = System();
    Start(Element("a", attributes + "preview='1'"));
    Drop("a", "text");
    Run();
    std::string clips;
    for (const std::string& name : Delivered()) {
      clips += name.find(".warn_pre_first.wav") != std::string::npos ? DeliveredFile(name) : "";
      ASSERT_EQ(0, unlink((settings_.output + "/" + name).c_str()));
    }
    EXPECT_EQ(expected, clips) << attributes;
    EXPECT_EQ(expected.size(),
              std::count(TheSystem().pauses.begin(), TheSystem().pauses.end(), kClipPause))
        << attributes;
  }
}

TEST_F(VocastraTest, CopiesASpacerWithTheBumperEvenIfNoneIsConfigured) {
  Start(Element("a", "bumper-path='" + tree_.Write("bumper", "B") + "'"));
  Drop("a", "text");
  const std::string log = Run();
  EXPECT_NE(std::string::npos,
            log.find("Could not execute \"cp  " + settings_.output + "/0_a.warn_live_first.wav\""))
      << log;
  EXPECT_THAT(Delivered(), ElementsAre("1_a.warn_live_first.wav", "2_a.text_live_first.raw"));
}

TEST_F(VocastraTest, GoesOnWithoutAClipThatCannotBeCopied) {
  Start(Element("a", "silence-path='" + (tree_ / "missing") + "'"));
  Drop("a", "text");
  const std::string log = Run();
  EXPECT_NE(std::string::npos, log.find("Could not execute \"cp " + (tree_ / "missing ") +
                                        settings_.output + "/0_a.warn_live_first.wav\"\n"))
      << log;
  EXPECT_THAT(Delivered(), ElementsAre("1_a.text_live_first.raw"));
}

TEST_F(VocastraTest, TranslatesButDeliversNothingWithoutAnOutputDirectory) {
  settings_.output = "";
  settings_.words = 1;
  const std::string clips = "bumper-path='" + tree_.Write("bumper", "B") + "' silence-path='" +
                            tree_.Write("silence", "0") + "'";
  for (const std::string& attributes : {std::string(), clips}) {
    Start(Element("a", attributes));
    Drop("a", "1 2 3");
    const std::string engine = "calling engine\ndone calling engine\n";
    EXPECT_EQ(Parsed("a", "1 2 3") + "Adding m " + CRCText("1 2 3") + " to file_map\n" +
                  Parsed("a", "1 2 3") + engine + engine,
              Run())
        << attributes;
    EXPECT_EQ(std::vector<useconds_t>(3, kPassPause), TheSystem().pauses) << attributes;
  }
}

TEST_F(VocastraTest, LosesTheWordsThatCannotBeTranslated) {
  settings_.words = 1;
  UseTranslator("grep 1 \"$1\" && exit 3; cp \"$1\" \"$2\"\n");
  Start(Element("a"));
  Drop("a", "1 2 3 4");
  EXPECT_EQ(Parsed("a", "1 2 3 4") + "Adding m " + CRCText("1 2 3 4") + " to file_map\n" +
                Parsed("a", "1 2 3 4") +
                "calling engine\ndone calling engine\nCould not execute \"" + settings_.translator +
                " " + TextFile() + " " + SpeechFile() + "  \"m\" > /dev/null 2>&1\"\n",
            Run());
  EXPECT_THAT(Delivered(), IsEmpty());
  EXPECT_THAT(TheSystem().pauses, ElementsAre(kPassPause));
  EXPECT_EQ("1", StatusAttribute("timestamp"));
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_cont.raw"));
  EXPECT_EQ("3 4 ", DeliveredFile("0_a.text_live_cont.raw"));
}

TEST_F(VocastraTest, LogsAMissingTranslatorForEverySnippet) {
  settings_.words = 1;
  settings_.translator = tree_ / "missing";
  Start(Element("a", "conv-opts='-x'"));
  Drop("a", "1 2 3 4");
  const std::string failure = "calling engine\ndone calling engine\nCould not execute \"" +
                              settings_.translator + " " + TextFile() + " " + SpeechFile() +
                              " -x \"m\" > /dev/null 2>&1\"\n";
  EXPECT_EQ(Parsed("a", "1 2 3 4") + "Adding m " + CRCText("1 2 3 4") + " to file_map\n" +
                Parsed("a", "1 2 3 4") + failure,
            Run());
  EXPECT_EQ(failure, Run());
  EXPECT_EQ(kNoLog, Run()) << "all words are lost";
}

TEST_F(VocastraTest, TakesATranslatorEndedByASignalForDone) {
  settings_.translator = "kill -KILL $$;";  // The shell that runs the command.
  Start(Element("a"));
  Drop("a", "text");
  EXPECT_EQ(Parsed("a", "text") + "Adding m " + CRCText("text") + " to file_map\n" +
                Parsed("a", "text") +
                "calling engine\ndone calling engine\ncopying 0_a.text_live_first.raw\n",
            Run());
  EXPECT_THAT(Delivered(), ElementsAre("0_a.text_live_first.raw"));
}

TEST_F(VocastraTest, LosesTheWordsForWhichTheTextFileCannotBeOpened) {
  settings_.words = 1;
  Start(Element("a"));
  ASSERT_EQ(0, unlink(TextFile().c_str()));
  ASSERT_EQ(0, mkdir(TextFile().c_str(), 0700));
  Drop("a", "1 2 3 4");
  EXPECT_EQ(Parsed("a", "1 2 3 4") + "Adding m " + CRCText("1 2 3 4") + " to file_map\n" +
                Parsed("a", "1 2 3 4") + "Could not open temporary file \"" + TextFile() +
                "\" for writing\n",
            Run());
  EXPECT_EQ("", TranslatorCalls());
  ASSERT_EQ(0, rmdir(TextFile().c_str()));
  Run();
  EXPECT_EQ("3 4 ", DeliveredFile("0_a.text_live_cont.raw"));
}

TEST_F(VocastraTest, LosesTheWordsForWhichTheTextFileHasNoRoom) {
  settings_.words = 1;
  Start(Element("a"));
  Drop("a", "1 2 3 4");
  TheSystem().full_file = TextFile();
  EXPECT_THAT(Run(),
              EndsWith("\nCould not open temporary file \"" + TextFile() + "\" for writing\n"));
  EXPECT_EQ("", TranslatorCalls());
  TheSystem().full_file = "";
  Run();
  EXPECT_EQ("3 4 ", DeliveredFile("0_a.text_live_cont.raw"));
}

TEST_F(VocastraTest, FollowsNoLinkInThePlaceOfItsTextFile) {
  Start(Element("a"));
  const std::string other = tree_.Write("other", "precious");
  ASSERT_EQ(0, unlink(TextFile().c_str()));
  ASSERT_EQ(0, symlink(other.c_str(), TextFile().c_str()));
  Drop("a", "text");
  EXPECT_THAT(Run(),
              EndsWith("\nCould not open temporary file \"" + TextFile() + "\" for writing\n"));
  EXPECT_EQ("precious", ReadFile(other));
  EXPECT_EQ("", TranslatorCalls());
}

TEST_F(VocastraTest, DoesNotWaitForAReaderOfAFifoInThePlaceOfItsTextFile) {
  Start(Element("a"));
  ASSERT_EQ(0, unlink(TextFile().c_str()));
  ASSERT_EQ(0, mkfifo(TextFile().c_str(), 0600));
  Drop("a", "text");
  EXPECT_THAT(Run(),
              EndsWith("\nCould not open temporary file \"" + TextFile() + "\" for writing\n"));
}

TEST_F(VocastraTest, MakesAPrivateTextFileIfSomebodyHasRemovedIt) {
  Start(Element("a"));
  ASSERT_EQ(0, unlink(TextFile().c_str()));
  Drop("a", "text");
  const mode_t saved = umask(0);
  Run();
  umask(saved);
  EXPECT_EQ(kPauseTag + std::string("text "), DeliveredFile("0_a.text_live_first.raw"));
  EXPECT_EQ(S_IFREG | 0600U, ModeOf(TextFile()));
}

TEST_F(VocastraTest, CountsASnippetAsMadeIfItsAudioCannotBeCopied) {
  settings_.words = 1;
  UseTranslator("rm -f \"$2\"\n");
  Start(Element("a"));
  Drop("a", "1 2 3");
  const std::string log = Run();
  EXPECT_NE(std::string::npos, log.find("Could not execute \"cp " + SpeechFile() + " " +
                                        settings_.output + "/1_a.text_live_cont.raw\"\n"))
      << log;
  EXPECT_THAT(TheSystem().pauses, ElementsAre(kPassPause, kPassPause, kPassPause));
  EXPECT_EQ("2", StatusAttribute("timestamp"));
}

TEST_F(VocastraTest, ServesTheSmallestPriorityNumberFirst) {
  Start(Element("a", "priority='5'") + Element("b", "priority='1'") +
        Element("c", "priority='-1'") + Element("d") + Element("e", "priority='10'"));
  for (const char* id : {"a", "b", "c", "d", "e"}) {
    Drop(id, "text");
  }
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_c.text_live_first.raw", "1_d.text_live_first.raw",
                                       "2_b.text_live_first.raw", "3_a.text_live_first.raw",
                                       "4_e.text_live_first.raw"));
}

TEST_F(VocastraTest, ServesEqualPrioritiesInOrderOfTheirIDs) {
  Start(Element("b") + Element("B") + Element("a"));
  for (const char* id : {"a", "b", "B"}) {
    Drop(id, "text");
  }
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_B.text_live_first.raw", "1_a.text_live_first.raw",
                                       "2_b.text_live_first.raw"));
}

TEST_F(VocastraTest, RanksTheDirectoriesAnewAtAReload) {
  Start(Element("a") + Element("b"));
  Configure(Element("a", "priority='1'") + Element("b"));
  Run();
  Drop("a", "text");
  Drop("b", "text");
  Run();
  EXPECT_THAT(Delivered(), ElementsAre("0_b.text_live_first.raw", "1_a.text_live_first.raw"));
}

// --- Output-bound ---

TEST_F(VocastraTest, StopsProducingWhileTheOutputDirectoryIsFull) {
  settings_.words = 1;
  settings_.files = 2;
  Start(Element("a"));
  Drop("a", "1 2 3 4 5 6 7 8");
  const std::string log = Run();
  EXPECT_EQ("copying 1_a.text_live_cont.raw\nNow output-bound\n", log.substr(log.rfind("copying")));
  EXPECT_EQ(2U, Delivered().size());
  EXPECT_EQ(kNoLog, Run(kDebugAvailable));
  ASSERT_EQ(0, unlink((settings_.output + "/0_a.text_live_first.raw").c_str()));
  EXPECT_EQ(
      "No longer output-bound\ncalling engine\ndone calling engine\n"
      "copying 2_a.text_live_cont.raw\nNow output-bound\n",
      Run());
  EXPECT_THAT(Delivered(), ElementsAre("1_a.text_live_cont.raw", "2_a.text_live_cont.raw"));
}

TEST_F(VocastraTest, CountsEveryVisibleFileInTheOutputDirectory) {
  settings_.files = 2;
  tree_.Write("out/a", "");
  tree_.Write("out/.hidden", "");
  tree_.MakeDirectory("out/sub");
  Start("");
  EXPECT_EQ("0", StatusAttribute("output-bound"));
  tree_.Write("out/b", "");
  EXPECT_EQ("Now output-bound\n", Run());
  tree_.Write("out/c", "");
  EXPECT_EQ(kNoLog, Run());
  EXPECT_EQ("1", StatusAttribute("output-bound"));
}

TEST_F(VocastraTest, IsAlwaysOutputBoundIfNoFileIsAllowed) {
  for (const int files : {0, -1}) {
    settings_.files = files;
    Start("");
    Run();
    EXPECT_EQ("1", StatusAttribute("output-bound")) << files;
  }
}

TEST_F(VocastraTest, IsNeverOutputBoundWithoutAnOutputDirectory) {
  settings_.output = "";
  settings_.files = 0;
  Start(Element("a"));
  Drop("a", "text");
  Run();
  EXPECT_NE("", TranslatorCalls());
  EXPECT_EQ("0", StatusAttribute("output-bound"));
}

TEST_F(VocastraTest, TakesAnOutputDirectoryThatCannotBeReadForEmpty) {
  settings_.files = 1;
  tree_.Write("out/a", "");
  Start("");
  ASSERT_EQ(0, unlink((settings_.output + "/a").c_str()));
  ASSERT_EQ(0, rmdir(settings_.output.c_str()));
  EXPECT_EQ("Could not open \"" + settings_.output + "/\" for counting: " + strerror(ENOENT) +
                "\nNo longer output-bound\n",
            Run());
}

TEST_F(VocastraTest, StaysOutputBoundWhileItIsNotRunning) {
  settings_.files = 1;
  tree_.Write("out/a", "");
  Start("");
  EXPECT_EQ("1", StatusAttribute("output-bound"));
  Configure("", "pause");
  Run();
  ASSERT_EQ(0, unlink((settings_.output + "/a").c_str()));
  Run();
  EXPECT_EQ("1", StatusAttribute("output-bound"));
  Configure("", "run");
  EXPECT_EQ(Processing() + "Now in \"run\" state\nNo longer output-bound\n", Run());
}

TEST_F(VocastraTest, ScansItsDirectoriesWhileItIsOutputBound) {
  settings_.files = 0;
  Start(Element("a"));
  Drop("a", "text");
  Run();
  EXPECT_NE(std::string::npos, Status().find("<message")) << Status();
}

// --- Status file ---

TEST_F(VocastraTest, WritesItsWholeStatus) {
  settings_.words = 1;
  Start(Element("b") + Element("B", "priority='1'"), "run");
  EXPECT_EQ(
      "<tts-status now-playing=\"0\" output-bound=\"0\" state=\"run\" timestamp=\"0\">\n"
      "    <directory id=\"B\" path=\"" +
          Input("B") +
          "\" status=\"1\" total-file-count=\"0\" updated-file-count=\"0\"/>\n"
          "    <directory id=\"b\" path=\"" +
          Input("b") +
          "\" status=\"1\" total-file-count=\"0\" updated-file-count=\"0\"/>\n"
          "</tts-status>\n",
      Status());
}

TEST_F(VocastraTest, ShowsTheMessageThatIsPlayedAndThoseThatWait) {
  settings_.words = 1;
  Start(Element("a", "loops='2'") + Element("b", "priority='1'"));
  Drop("a", "1 2 3");
  Drop("b", "text", "n");
  Drop("b", "text", "o");
  const int id = NextMessageID();
  std::vector<std::string> states;
  TheSystem().on_pause = [&] { states.push_back(Status()); };
  Run();
  ASSERT_EQ(7U, states.size());
  const auto status = [&](int timestamp, int playing, const std::string& a, const std::string& b) {
    const auto directory = [&](const std::string& name, const std::string& rest) {
      return "    <directory id=\"" + name + "\" path=\"" + Input(name) +
             "\" status=\"1\" total-file-count=" + rest;
    };
    return "<tts-status now-playing=\"" + Number(playing) +
           "\" output-bound=\"0\" state=\"run\" timestamp=\"" + Number(timestamp) + "\">\n" +
           directory("a", a) + directory("b", b) + "</tts-status>\n";
  };
  const auto message = [](const std::string& name, int message_id, int plays) {
    return ">\n        <message filename=\"" + name + "\" id=\"" + Number(message_id) +
           "\" plays=\"" + Number(plays) + "\"/>\n    </directory>\n";
  };
  const std::string none = "\"0\" updated-file-count=\"0\"";
  const std::string n = "\"1\" updated-file-count=\"1\"" + message("n", id + 1, 0);
  EXPECT_EQ(status(1, id, none + message("m", id, 0), n), states[1]) << "after 1 2";
  EXPECT_EQ(status(2, id, none + message("m", id, 1), n), states[2]) << "after 3";
  EXPECT_EQ(status(4, id, none + "/>\n", n), states[4]) << "after the second play";
  const std::string o = "\"1\" updated-file-count=\"0\"" + message("o", id + 2, 0);
  EXPECT_EQ(status(5, id + 1, none + "/>\n", o), states[5]) << "after n";
  EXPECT_EQ(status(6, id + 2, none + "/>\n", none + "/>\n"), states[6]) << "after o";
  Run();
  EXPECT_EQ(status(7, 0, none + "/>\n", none + "/>\n"), Status());
}

TEST_F(VocastraTest, ShowsNoMessageOnceTheWordsOfTheLastOneAreLost) {
  UseTranslator("exit 3\n");
  Start(Element("a"));
  Drop("a", "text");
  const int id = NextMessageID();
  Run();
  EXPECT_EQ(Number(id), StatusAttribute("now-playing"));
  Run();
  EXPECT_EQ("0", StatusAttribute("now-playing"));
}

TEST_F(VocastraTest, HasNoDirectoriesInItsStatusIfNoneIsConfigured) {
  Start("", "a&amp;b");
  EXPECT_EQ("<tts-status now-playing=\"0\" output-bound=\"0\" state=\"a&b\" timestamp=\"0\"/>\n",
            Status());
}

TEST_F(VocastraTest, WritesNoStatusIfNoneIsAskedFor) {
  settings_.status = "";
  Start(Element("a"));
  EXPECT_EQ(kNoLog, Run(0x3));
  EXPECT_FALSE(Exists(tree_ / "status.xml"));
}

TEST_F(VocastraTest, LogsAStatusFileThatCannotBeOpenedAndDoesNotCountIt) {
  settings_.status = tree_.MakeDirectory("status");
  settings_.words = 1;
  Start(Element("a"));
  const std::string failure = "Could not open \"" + settings_.status + "\" for writing\n";
  EXPECT_EQ(failure, Run());
  Drop("a", "1 2 3");
  const std::string engine = "calling engine\ndone calling engine\ncopying ";
  EXPECT_EQ(Parsed("a", "1 2 3") + "Adding m " + CRCText("1 2 3") + " to file_map\n" +
                Parsed("a", "1 2 3") + engine + "0_a.text_live_first.raw\n" + failure + engine +
                "1_a.text_live_cont.raw\n" + failure,
            Run());
  ASSERT_EQ(0, rmdir(settings_.status.c_str()));
  EXPECT_EQ(kNoLog, Run());
  EXPECT_EQ("0", StatusAttribute("timestamp"));
}

TEST_F(VocastraTest, DoesNotWaitForAReaderOfItsStatus) {
  settings_.status = tree_ / "fifo";
  ASSERT_EQ(0, mkfifo(settings_.status.c_str(), 0600));
  Start("");
  EXPECT_EQ("Could not open \"" + settings_.status + "\" for writing\n", Run());
  const int reader = open(settings_.status.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  EXPECT_EQ(kNoLog, Run());
  char text[1000] = "";
  const ssize_t length = read(reader, text, sizeof(text) - 1);
  close(reader);
  EXPECT_EQ("<tts-status now-playing=\"0\" output-bound=\"0\" state=\"run\" timestamp=\"0\"/>\n",
            std::string(text, static_cast<size_t>(std::max<ssize_t>(length, 0))));
}

TEST_F(VocastraTest, MakesAStatusFileThatTheUmaskAllowsOthersToRead) {
  for (const mode_t mask : {0U, 027U}) {
    unlink(settings_.status.c_str());
    const mode_t saved = umask(mask);
    Start("");
    umask(saved);
    EXPECT_EQ(S_IFREG | (0666U & ~mask), ModeOf(settings_.status));
  }
}

TEST_F(VocastraTest, FollowsALinkToItsStatusFile) {
  ASSERT_EQ(0, symlink("elsewhere", settings_.status.c_str()));
  Start("");
  EXPECT_EQ("0", StatusAttribute("timestamp"));
  EXPECT_TRUE(Exists(tree_ / "elsewhere"));
}

TEST_F(VocastraTest, RewritesTheStatusFileInPlace) {
  Start(Element("a"));
  const std::string link = tree_ / "link";
  ASSERT_EQ(0, ::link(settings_.status.c_str(), link.c_str()));
  tree_.Write("status.xml", std::string(10000, 'x'));
  Run();
  EXPECT_EQ(Status(), ReadFile(link));
  EXPECT_EQ("1", StatusAttribute("timestamp"));
}

TEST_F(VocastraTest, EndsThePassIfTheStatusOfADirectoryCannotBeTold) {
  const std::string last_played = tree_.MakeDirectory("last");
  Start(Element("a", "dir-mode='cache' last-played-path='" + last_played + "'"));
  ASSERT_EQ(0, rmdir(last_played.c_str()));
  EXPECT_EQ(kNoLog, RunToFailure());
  EXPECT_EQ("Could not open directory " + last_played + "/", thrown_);
  EXPECT_EQ("", Status());
  ASSERT_EQ(0, mkdir(last_played.c_str(), 0777));
  Run();
  EXPECT_EQ("2", StatusAttribute("timestamp")) << "the write that failed counts";
}

}  // namespace

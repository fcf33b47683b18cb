#include <signal.h>

#include "clock.h"
#include "copies.h"
#include "crc.h"
#include "test_util.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Finds an error in a file with "bad" in it. Looks at the glossary if there is one.
constexpr char kCheck[] = R"(
file=${1#--glossary=}
[ -n "$file" ] || file=$2
if grep -q bad "$file"; then
  echo "$file:1: warning: x: odd. Leave it." >&2
  echo "$file:3: error: x: bad. Fix it." >&2
  exit 2
fi
exit 1
)";

std::string Configuration(const std::string& content_) {
  return "<tts-config state=\"run\">" + content_ + "</tts-config>\n";
}

class CopiesTest : public testing::Test {
 protected:
  void Make() {
    Options options;
    options.config_file_path = directory / "conf";
    options.glossary_file_path = has_glossary ? directory / "gloss" : "";
    const ProblemSink sink = {[this](const auto& id_, const auto& sentence_, const auto& remedy_) {
                                problems[id_] = sentence_ + ". " + remedy_ + ".";
                              },
                              [this](const auto& id_) { problems.erase(id_); }};
    copies = std::make_unique<Copies>(
        run, keep, options,
        std::vector<std::string>{"sh", directory.Write("check", kCheck), "--glossary="}, sink,
        [this](const XMLElement& root_) {
          prepared.push_back(root_.GetAttributeString("state"));
          // The copy is not replaced yet.
          EXPECT_EQ(before, Exists(run + "/vocastra.conf") ? Copy() : "");
        });
  }

  // Looks until everything is checked, and, if the daemon takes it, applied.
  void Look(bool is_taken_ = true) {
    before = Exists(run + "/vocastra.conf") ? Copy() : "";
    copies->Tick();
    for (const double deadline = Now() + 60; Now() < deadline && copies->IsBusy(); Nap(5)) {
      copies->Tick();
      if (is_taken_) {
        LogEvent event;
        event.line = "Processing configuration " + run + "/vocastra.conf";
        copies->OnLog(event);
      } else if (prepared.size() > 1) {
        return;
      }
    }
  }

  std::string Copy() const { return ReadFile(run + "/vocastra.conf"); }

  const TemporaryDirectory directory;
  const std::string run = directory.MakeDirectory("run");
  std::string keep = directory.MakeDirectory("keep");
  bool has_glossary = false;
  std::map<std::string, std::string> problems;
  std::vector<std::string> prepared;
  std::string before;
  std::unique_ptr<Copies> copies;
};

TEST(CheckCommandTest, CheckerReadsTheRunDirectoryOfTheStation) {
  EXPECT_THAT(CheckCommand({"-w", "5"}, "/run/x"),
              testing::ElementsAre(testing::EndsWith("vocastra-check"), "-w", "5", "--run=/run/x",
                                   "--glossary="));
}

TEST_F(CopiesTest, UsableFilesAreCopiedAndKeptWithTheirMode) {
  has_glossary = true;
  const std::string text = Configuration("");
  chmod(directory.Write("conf", text).c_str(), 0640);
  directory.Write("gloss", "<glossary/>");
  Make();
  EXPECT_EQ(nullptr, copies->Configuration());
  Look();
  EXPECT_NE(nullptr, copies->Configuration());
  for (const std::string& place : {run, keep}) {
    EXPECT_EQ(text, ReadFile(place + "/vocastra.conf"));
    EXPECT_EQ(0100640u, ModeOf(place + "/vocastra.conf"));
    EXPECT_EQ("<glossary/>", ReadFile(place + "/glossary.xml"));
  }
  EXPECT_FALSE(Exists(run + "/vocastra.conf.checked"));
  EXPECT_THAT(problems, IsEmpty());
  EXPECT_TRUE(copies->IsFine());
  EXPECT_EQ("configuration: in force\nglossary: in force\n", copies->Report());
  EXPECT_THAT(copies->Arguments(),
              ElementsAre("-c", run + "/vocastra.conf", "-g", run + "/glossary.xml"));
}

TEST_F(CopiesTest, NobodyElseMayReadCopiesOfTheConfiguration) {
  has_glossary = true;
  const std::string path = directory.Write("conf", Configuration(""));
  directory.Write("gloss", "<glossary/>");
  Make();
  for (const auto& [mode, expected] : std::map<mode_t, mode_t>{
           {0600, 0100600}, {0640, 0100640}, {0644, 0100640}, {0666, 0100640}, {0755, 0100640}}) {
    chmod(path.c_str(), mode);
    Look();
    EXPECT_EQ(expected, ModeOf(run + "/vocastra.conf")) << mode;
    EXPECT_EQ(expected, ModeOf(keep + "/vocastra.conf")) << mode;
  }
  EXPECT_EQ(0100644u, ModeOf(run + "/glossary.xml"));
}

TEST_F(CopiesTest, ChangeIsAppliedAndAMistakeIsRefused) {
  directory.Write("conf", Configuration("1"));
  Make();
  Look();
  directory.Write("conf", Configuration("bad"));
  Look();
  EXPECT_EQ(Configuration("1"), Copy());
  EXPECT_EQ(Configuration("1"), ReadFile(keep + "/vocastra.conf"));
  const std::string error = directory / "conf:3: error: x: bad. Fix it.";
  EXPECT_THAT(problems, ElementsAre(testing::Pair(
                            "configuration-refused",
                            "The edited configuration cannot be used: " + error + ". Fix " +
                                (directory / "conf") + "; the last usable one stays in force.")));
  EXPECT_FALSE(copies->IsFine());
  EXPECT_THAT(copies->Report(), HasSubstr(directory / "conf:1: warning: x: odd. Leave it.\n"));
  directory.Write("conf", Configuration("22"));
  Look();
  EXPECT_EQ(Configuration("22"), Copy());
  EXPECT_THAT(problems, IsEmpty());
  EXPECT_THAT(prepared, ElementsAre("run", "run"));
}

TEST(RetryPauseTest, GrowsToAMinuteAndWithTheTimeOfACheck) {
  struct {
    int refusals;
    double took;
    double pause;
  } const rows[] = {{1, 0, 5},  {2, 0, 10},    {3, 0, 20},   {4, 0, 40},
                    {5, 0, 60}, {1000, 0, 60}, {1, 0.5, 25}, {1000, 3, 150}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.pause, RetryPause(row.refusals, row.took)) << row.refusals << " " << row.took;
  }
}

TEST_F(CopiesTest, RefusedFileIsCheckedAgainButReportedOnce) {
  directory.Write("conf", Configuration("bad"));
  Make();
  Look();
  problems.clear();
  const std::string checks = directory / "checks";
  directory.Write("check", "sleep 0.2; echo >>\"" + checks + "\"\n" + kCheck);
  for (const double deadline = Now() + 60; Now() < deadline && !Exists(checks); Nap(5)) {
    Look();
  }
  Look();
  EXPECT_EQ("\n", ReadFile(checks));
  EXPECT_THAT(problems, IsEmpty());
  EXPECT_FALSE(copies->IsFine());
}

TEST_F(CopiesTest, BrokenFileDoesNotHoldUpTheOther) {
  has_glossary = true;
  directory.Write("conf", Configuration("1"));
  directory.Write("gloss", "<glossary/>");
  Make();
  Look();
  for (const bool is_glossary : {false, true}) {
    const std::string broken = is_glossary ? "glossary" : "configuration";
    directory.Write("conf", Configuration(is_glossary ? "new" : "bad 2"));
    directory.Write("gloss", is_glossary ? "bad" : "<glossary></glossary>");
    Look();
    EXPECT_EQ(Configuration(is_glossary ? "new" : "1"), Copy());
    EXPECT_EQ("<glossary></glossary>", ReadFile(run + "/glossary.xml"));
    EXPECT_EQ(1u, problems.count(broken + "-refused"));
    EXPECT_EQ(1u, problems.size());
  }
}

TEST_F(CopiesTest, EverybodyMayReadWhichDirectoriesAreInForce) {
  const std::string path = run + "/directories.xml";
  const auto known = [&] { return ReadFile(path); };
  const mode_t mask = umask(0077);
  directory.Write("conf", Configuration("<directory id=\"a\" password=\"secret\"/>"));
  Make();
  Look();
  EXPECT_EQ("<tts-config state=\"run\">\n    <directory id=\"a\"/>\n</tts-config>\n", known());
  EXPECT_EQ(0100644u, ModeOf(path));
  directory.Write("conf", Configuration("bad"));
  Look();
  EXPECT_THAT(known(), HasSubstr("id=\"a\""));
  unlink(path.c_str());
  Make();  // As a restarted station does.
  Look();
  EXPECT_THAT(known(), HasSubstr("id=\"a\""));
  directory.Write("conf", Configuration("<directory id=\"b\"/>"));
  Look();
  EXPECT_THAT(known(), HasSubstr("id=\"b\""));
  umask(mask);
}

TEST_F(CopiesTest, KeptCopyIsUsedWithoutAUsableFile) {
  has_glossary = true;
  directory.Write("keep/vocastra.conf", Configuration("kept"));
  directory.Write("conf", "bad");
  Make();
  Look();
  EXPECT_EQ(Configuration("kept"), Copy());
  EXPECT_NE(nullptr, copies->Configuration());
  EXPECT_EQ("<glossary/>\n", ReadFile(run + "/glossary.xml"));
  EXPECT_EQ(1u, problems.count("configuration-refused"));
  EXPECT_EQ("The glossary cannot be read: " + (directory / "gloss: No such file or directory") +
                ". Restore " + (directory / "gloss") + "; the last usable one stays in force.",
            problems["glossary-missing"]);
}

TEST_F(CopiesTest, WaitsForAConfiguration) {
  keep.clear();
  Make();
  Look();
  EXPECT_EQ(nullptr, copies->Configuration());
  EXPECT_EQ("The configuration cannot be read: " + (directory / "conf: No such file or directory") +
                ". Restore " + (directory / "conf") + "; until then nothing is spoken.",
            problems["configuration-missing"]);
  directory.Write("conf", Configuration(""));
  Look();
  EXPECT_NE(nullptr, copies->Configuration());
  EXPECT_THAT(problems, IsEmpty());
}

TEST_F(CopiesTest, MissingFileKeepsTheCopy) {
  directory.Write("conf", Configuration("1"));
  Make();
  Look();
  unlink((directory / "conf").c_str());
  Look();
  EXPECT_EQ(Configuration("1"), Copy());
  EXPECT_EQ(1u, problems.count("configuration-missing"));
}

TEST_F(CopiesTest, ConfigurationThatTheDaemonDoesNotApplyIsReported) {
  directory.Write("conf", Configuration("1"));
  Make();
  Look();
  directory.Write("conf", Configuration("12"));
  Look(false);
  EXPECT_TRUE(copies->IsBusy());
  EXPECT_FALSE(copies->IsFine());
  EXPECT_EQ("configuration: in force\nThe daemon does not use it yet.\n", copies->Report());
}

TEST_F(CopiesTest, ChangeWithTheSameChecksumIsNoticed) {
  const std::string first = Configuration("1");
  directory.Write("conf", first);
  Make();
  Look();
  const auto crc = [](const std::string& text_) {
    return CRC(0, reinterpret_cast<const uint8_t*>(text_.data()), text_.size());
  };
  std::string second;
  for (int i = 0; second.empty(); ++i) {
    const std::string text = Configuration(std::to_string(100 + i));
    second = crc(text) == crc(first) ? text : "";
  }
  directory.Write("conf", second);
  Look();
  EXPECT_EQ(second + "\n", Copy());
  EXPECT_EQ(second, ReadFile(keep + "/vocastra.conf"));
  copies->CheckNow();
  Look();
  EXPECT_EQ("configuration: in force\n", copies->Report());
  EXPECT_EQ(second + "\n", Copy());
}

TEST_F(CopiesTest, MissingLocalDirectoriesAreMadeForTheGroupBeforeTheCheck) {
  const std::string spool = directory.MakeDirectory("spool");
  ASSERT_TRUE(geteuid() != 0 || chown(spool.c_str(), 0, 1) == 0);
  ASSERT_EQ(0, chmod(spool.c_str(), 02755));
  const auto group_of = [](const std::string& path_) {
    struct stat status = {};
    EXPECT_EQ(0, stat(path_.c_str(), &status)) << path_;
    return status.st_gid;
  };
  const std::string local = "<directory type=\"local\" path=\"" + spool;
  directory.Write("conf", Configuration(local + "/a/b\"/>" + local + "/c\" subdir=\"d\"/>"));
  Make();
  directory.Write("check", "[ -d " + spool + "/a/b ] && [ -d " + spool + "/c/d ] || exit 2\n");
  const mode_t mask = umask(0022);
  Look();
  EXPECT_EQ(0022u, umask(mask));
  EXPECT_THAT(problems, IsEmpty());
  for (const char* path : {"/a", "/a/b", "/c", "/c/d"}) {
    EXPECT_EQ(042770u, ModeOf(spool + path)) << path;
    EXPECT_EQ(group_of(spool), group_of(spool + path)) << path;
  }
}

}  // namespace

#include "log.h"
#include "test_util.h"

namespace {

using testing::ElementsAre;

TEST(StationLogTest, LineHasKindSubjectAndSeverity) {
  struct {
    const char* line;
    LogEvent::Kind kind;
    const char* subject;
    Severity severity;
  } const rows[] = {
      {"Adding a 12 b 34821 to file_map", LogEvent::kIndexed, "a 12 b", Severity::kRoutine},
      {"Updating a b in file_map", LogEvent::kIndexed, "a b", Severity::kRoutine},
      {"calling engine", LogEvent::kEngineStarted, "", Severity::kRoutine},
      {"done calling engine", LogEvent::kEngineDone, "", Severity::kRoutine},
      {"copying 7_a.text_live_cont.raw", LogEvent::kCopying, "7_a.text_live_cont.raw",
       Severity::kRoutine},
      {"Could not execute \"voice \"x\" > /dev/null\"", LogEvent::kCommandFailed,
       "voice \"x\" > /dev/null", Severity::kError},
      {"Could not execute \"rm /in/*\"", LogEvent::kCommandFailed, "rm /in/*",
       Severity::kInformation},
      {"Could not remove /in/x", LogEvent::kNotRemoved, "/in/x", Severity::kError},
      {"FTP helper: h/d: no login", LogEvent::kFromHelper, "h/d: no login", Severity::kWarning},
      {"Reading glossary /g: x at line 2", LogEvent::kGlossary, "x at line 2", Severity::kError},
      {"From /in/x: calling engine", LogEvent::kOther, "", Severity::kRoutine},
      {"Original is valid UTF-8", LogEvent::kOther, "", Severity::kRoutine},
      {"Directory \"a\" uses nonexistent parser \"b\"", LogEvent::kOther, "", Severity::kError},
      {"Directory \"a\" using parser 0x1 b", LogEvent::kOther, "", Severity::kInformation},
      {"Directory /w is receiving updates", LogEvent::kOther, "", Severity::kInformation},
      {"Directory /w is no longer receiving updates", LogEvent::kOther, "", Severity::kWarning},
      {"Could not open directory /in", LogEvent::kOther, "", Severity::kError},
      {"mismatched tag at line 3", LogEvent::kOther, "", Severity::kError},
      {"Adding", LogEvent::kOther, "", Severity::kWarning},
      {"whatever", LogEvent::kOther, "", Severity::kWarning},
      {"", LogEvent::kOther, "", Severity::kWarning},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    Severity severity = Severity::kRoutine;
    const LogEvent event = ParseLogLine(row.line, severity);
    EXPECT_EQ(row.kind, event.kind);
    EXPECT_EQ(row.subject, event.subject);
    EXPECT_EQ(row.line, event.line);
    EXPECT_EQ(row.severity, severity);
  }
}

class FoldingTest : public testing::Test {
 protected:
  std::vector<std::string> written;
  Log log{[this](const std::string& line_) { written.push_back(line_); }, false, true};

  // Takes the line once a second, times_ times.
  void Repeat(const std::string& line_, int times_) {
    for (int i = 0; i < times_; ++i) {
      log.Take(line_, now);
      log.Tick(now);
      ++now;
    }
  }
  void Pause(int seconds_) {
    for (int i = 0; i < seconds_; ++i) {
      log.Tick(now);
      ++now;
    }
  }

  double now = 1000;
};

TEST_F(FoldingTest, ErrorOfEachPassIsWrittenAtOnceThenAfterAMinuteAnHourAndADay) {
  Repeat("Could not open directory /in", 2 * 86400);
  EXPECT_THAT(written,
              ElementsAre("<3>Could not open directory /in",
                          "<3>Could not open directory /in (60 more in 60 seconds)",
                          "<3>Could not open directory /in (3600 more in 3600 seconds)",
                          "<3>Could not open directory /in (86400 more in 86400 seconds)"));
}

TEST_F(FoldingTest, LineThatComesOnceIsNotCounted) {
  Repeat("Now in \"run\" state", 1);
  Pause(7200);
  EXPECT_THAT(written, ElementsAre("<6>Now in \"run\" state"));
}

TEST_F(FoldingTest, LineIsNewAfterAnHourOfSilence) {
  Repeat("Lock failed: x (5)", 3);
  Pause(3602);
  Repeat("Lock failed: x (5)", 1);
  EXPECT_THAT(written,
              ElementsAre("<3>Lock failed: x (5)", "<3>Lock failed: x (5) (2 more in 60 seconds)",
                          "<3>Lock failed: x (5)"));
}

TEST_F(FoldingTest, PendingCountIsWrittenAfterAnHourOfSilence) {
  Repeat("Lock failed: x (5)", 4000);
  Pause(3602);
  EXPECT_THAT(written,
              ElementsAre("<3>Lock failed: x (5)", "<3>Lock failed: x (5) (60 more in 60 seconds)",
                          "<3>Lock failed: x (5) (3600 more in 3600 seconds)",
                          "<3>Lock failed: x (5) (339 more in 339 seconds)"));
}

TEST_F(FoldingTest, LinesOfEachScanAreLeftOut) {
  for (const char* line : {"Original is valid UTF-8", "From /in/a: text", "re-encode"}) {
    Repeat(line, 100);
  }
  EXPECT_THAT(written, ElementsAre());
}

TEST_F(FoldingTest, FloodOfDifferentLinesIsCounted) {
  for (int pass = 0; pass < 3; ++pass) {
    for (int i = 0; i < 10000; ++i) {
      log.Take("line " + std::to_string(i), now);
    }
    Pause(1);
  }
  EXPECT_EQ(501u, written.size());
  EXPECT_EQ("<4>More different lines than are remembered", written.back());
  Pause(61);
  EXPECT_THAT(written, testing::Contains("<4>More different lines than are remembered (28499 more "
                                         "in 60 seconds)"));
  Pause(61);
  Repeat("new", 1);
  EXPECT_EQ("<4>new", written.back());
}

TEST_F(FoldingTest, OwnLinesAreCountedAsWell) {
  log.Say(Severity::kError, "The daemon has ended", now);
  log.Say(Severity::kError, "The daemon has ended", now);
  Pause(61);
  EXPECT_THAT(written, ElementsAre("<3>The daemon has ended",
                                   "<3>The daemon has ended (1 more in 60 seconds)"));
}

TEST(StationLogTest, RawLogHasEveryLine) {
  for (const bool has_prefix : {false, true}) {
    std::vector<std::string> written;
    Log log([&](const std::string& line_) { written.push_back(line_); }, true, has_prefix);
    for (const char* line : {"calling engine", "calling engine", "Could not x"}) {
      log.Take(line, 0);
    }
    if (has_prefix) {
      EXPECT_THAT(written, ElementsAre("<6>calling engine", "<6>calling engine", "<3>Could not x"));
    } else {
      EXPECT_THAT(written, ElementsAre("calling engine", "calling engine", "Could not x"));
    }
  }
}

}  // namespace

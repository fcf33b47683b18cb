#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <optional>
#include <set>

#include "messagecopy.h"
#include "playerstate.h"
#include "spool.h"
#include "stand_ins/changes.h"
#include "statusfile.h"
#include "test_util.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// In byte order.
std::vector<std::string> Listing(const std::string& path_) {
  std::vector<std::string> names;
  DIR* const directory = opendir(path_.c_str());
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  closedir(directory);
  std::sort(names.begin(), names.end());
  return names;
}

bool IsHidden(const std::string& name_) { return name_[0] == '.'; }

// Words that were said, and the station's log of it. A message is made in one piece for each byte.
struct Said {
  std::vector<std::string> whole;  // Messages that were said to the end.
  std::vector<std::string> begun;
};

// The daemon as far as the spool sees it, with one directory, called "a".
class Daemon {
 public:
  Daemon(const std::string& path_, const std::string& scanned_, const std::string& output_,
         const std::string& last_played_, Said& said_)
      : scanned(scanned_),
        output(output_),
        last_played(last_played_),
        removes_taken(last_played_.empty()),
        said(said_) {
    if (Exists(path_)) {
      for (const std::string& name : Listing(path_)) {
        IsHidden(name) ? 0 : unlinkat(AT_FDCWD, (path_ + "/" + name).c_str(), 0);
      }
    }
  }

  void Scan(std::vector<LogEvent>& log_) {
    std::map<std::string, std::string> found;
    for (const std::string& name : Listing(scanned)) {
      if (IsHidden(name)) {
        continue;
      }
      const std::string text = ReadFile(scanned + "/" + name);
      const auto same = known.find(name);
      if (same == known.end() || same->second != text) {
        log_.push_back({LogEvent::kIndexed, name, ""});
        if (!is_first && !text.empty()) {
          queue.push_back(name);
        }
      }
      found[name] = text;
    }
    known = found;
    is_first = false;
    while (active.empty() && !queue.empty()) {
      const std::string name = queue.front();
      queue.erase(queue.begin());
      const std::string path = scanned + "/" + name;
      const std::string text = ReadFile(path);
      if (!removes_taken && Exists(path)) {
        for (const std::string& old : Listing(last_played)) {
          unlink((last_played + "/" + old).c_str());
        }
        std::ofstream(last_played + "/" + name) << text;
      }
      if (removes_taken && remove(path.c_str()) != 0) {
        log_.push_back({LogEvent::kNotRemoved, path, ""});
      } else if (!text.empty()) {
        active = name;
        rest = text;
        ++id;
        is_start = true;
        said.begun.push_back(text);
        whole = text;
      }
    }
  }

  // Makes a piece; it fails if its letter is "X".
  void Speak(std::vector<LogEvent>& log_) {
    if (active.empty()) {
      playing = 0;
      return;
    }
    playing = id;
    const std::string name = active;
    const bool fails = rest[0] == 'X';
    rest.erase(0, 1);
    if (rest.empty()) {
      active.clear();
      said.whole.push_back(whole);
    }
    if (fails) {
      log_.push_back({LogEvent::kCommandFailed,
                      "/t /tmp/text /tmp/speech  \"" + name + "\" > /dev/null 2>&1", ""});
    } else {
      const std::string file =
          std::to_string(number++) + "_a.text_live_" + (is_start ? "first" : "cont") + ".raw";
      log_.push_back({LogEvent::kCopying, file, ""});
      fclose(fopen((output + "/" + file).c_str(), "w"));
    }
    is_start = false;
  }

  std::string Status() {
    std::string text =
        "<tts-status now-playing=\"" + std::to_string(playing) + "\" output-bound=\"0\" state=\"" +
        state + "\" timestamp=\"" + std::to_string(timestamp++) +
        "\">\n<directory id=\"a\" path=\"\" status=\"" + (is_first ? "0" : "1") +
        "\" total-file-count=\"0\" updated-file-count=\"" + std::to_string(queue.size()) + "\"";
    text += active.empty() ? "/>\n"
                           : ">\n<message filename=\"" + active + "\" id=\"" + std::to_string(id) +
                                 "\" plays=\"0\"/>\n</directory>\n";
    return text + "</tts-status>\n";
  }

  std::string state = "run";

 private:
  const std::string scanned;
  const std::string output;
  const std::string last_played;
  const bool removes_taken;
  Said& said;
  bool is_first = true;
  std::map<std::string, std::string> known;
  std::vector<std::string> queue;
  std::string active;
  std::string rest;
  std::string whole;
  bool is_start = false;
  int id = 0;
  int playing = 0;
  int number = 0;
  int timestamp = 0;
};

struct Kind {
  const char* name;
  const char* subdir;
  bool stays;  // Files that were taken do.
};

constexpr Kind kRemoves = {"removes", "", false};
constexpr Kind kKinds[] = {kRemoves, {"stays", "", true}, {"subdir", "sub", false}};

// A spool and its daemon.
class Service {
 public:
  explicit Service(const Kind& kind_ = kRemoves, int age_limit_ = 300)
      : kind(kind_), age_limit(age_limit_) {
    run.MakeDirectory("out");
    run.MakeDirectory("last");
    last_played = kind.stays ? run / "last" : "";
    path = run / "in";
    scanned = path + (*kind.subdir == '\0' ? "" : std::string("/") + kind.subdir);
  }

  ~Service() { EXPECT_THAT(stand_ins::UnlockedChanges(scanned), IsEmpty()); }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  void StartStation() {
    daemon.reset();
    spool.reset();
    spool.emplace(run.path, run / "out", age_limit);
    StartDaemon();
  }
  void StartDaemon(const std::string& more_ = "") {
    if (daemon) {
      daemon.reset();
      spool->OnDaemonEnd();
    }
    Prepare(more_);
    daemon.emplace(path, scanned, run / "out", last_played, said);
    spool->OnLog({LogEvent::kOther, "", "Created new input directory a"});
    // The status of the daemon before is still there.
    spool->OnStatus(*ParseStatus(last_status));
  }
  void Prepare(const std::string& more_ = "") {
    spool->Prepare(*ParseDump("<tts-config>\n<directory id=\"a\" type=\"local\" path=\"" + path +
                              "\" subdir=\"" + kind.subdir + "\" last-played-path=\"" +
                              last_played + "\"/>\n" + more_ + "</tts-config>\n"));
  }

  void Pass(const std::vector<LogEvent>& log_) {
    for (const LogEvent& event : log_) {
      spool->OnLog(event);
    }
  }
  void ScanOnce() {
    std::vector<LogEvent> log;
    daemon->Scan(log);
    Pass(log);
  }

  // Steps of the daemon, of which a pass has three.
  void Step() {
    if (step % 3 == 0) {
      ScanOnce();
    } else if (step % 3 == 1 && daemon->state == "run") {
      std::vector<LogEvent> log;
      daemon->Speak(log);
      Pass(log);
    } else if (step % 3 == 2) {
      last_status = daemon->Status();
      spool->Read();
      spool->OnStatus(*ParseStatus(last_status));
      WriteHealth(run / "health", Now());
    }
    ++step;
  }
  void Steps(int count_) {
    for (int i = 0; i < count_; ++i) {
      Step();
    }
  }
  // True if all messages end.
  bool Settle() {
    int passes = 0;
    do {
      step = 0;
      Steps(3);
    } while (!spool->IsIdle() && ++passes < 100);
    return passes < 100;
  }

  void Publish(const std::string& name_, const std::string& text_) const {
    run.Write(".new", text_);
    EXPECT_EQ(
        0, renameat(AT_FDCWD, (run / ".new").c_str(), AT_FDCWD, (scanned + "/" + name_).c_str()));
  }
  void Arrive(const std::string& name_, const std::string& text_) {
    Publish(name_, text_);
    spool->Read();
  }

  Health Now() const {
    Health health;
    spool->AddTo(health);
    return health;
  }
  // "file:state:pieces:failed" for each record.
  std::vector<std::string> Records() const {
    std::vector<std::string> records;
    for (const MessageRecord& record : Now().messages) {
      EXPECT_EQ("a", record.directory);
      records.push_back(record.file + ":" + NameOf(record.state) + ":" +
                        std::to_string(record.pieces) + ":" + std::to_string(record.failed));
    }
    return records;
  }
  std::vector<std::string> Problems() const {
    std::vector<std::string> ids;
    for (const Problem& problem : Now().problems) {
      ids.push_back(problem.id);
    }
    return ids;
  }

  const Kind kind;
  const int age_limit;
  const TemporaryDirectory run;
  std::string path;
  std::string scanned;
  std::string last_played;
  Said said;
  std::optional<Spool> spool;
  std::optional<Daemon> daemon;
  std::string last_status =
      "<tts-status now-playing=\"0\" output-bound=\"0\" state=\"run\" timestamp=\"9\">\n"
      "<directory id=\"a\" path=\"\" status=\"1\" total-file-count=\"0\" "
      "updated-file-count=\"0\"/>\n</tts-status>\n";
  int step = 0;
};

class RunningSpoolTest : public testing::Test {
 protected:
  RunningSpoolTest() {
    service.StartStation();
    EXPECT_TRUE(service.Settle());
    service.Steps(6);
  }

  Service service;
};

TEST_F(RunningSpoolTest, RecordsEachStateOfAMessage) {
  service.Arrive("m", "abc");
  EXPECT_FALSE(service.spool->IsIdle());
  EXPECT_THAT(service.Records(), ElementsAre("m:waiting:0:0"));
  service.Steps(2);
  EXPECT_THAT(service.Records(), ElementsAre("m:speaking:1:0"));
  EXPECT_EQ("a/m", service.Now().saying);
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.Records(), ElementsAre("m:said:3:0"));
  EXPECT_EQ("", service.Now().saying);
  EXPECT_THAT(Listing(service.scanned), IsEmpty());
  const std::map<std::string, long long> counters = {
      {"messages", 1}, {"pieces", 3}, {"failed", 0}, {"lost", 0}};
  EXPECT_EQ(counters, service.Now().counters);
}

TEST_F(RunningSpoolTest, FailedPieceFailsTheMessage) {
  for (const std::string text : {"Xbc", "aXc", "abX"}) {
    service.Arrive("m" + text, text);
    ASSERT_TRUE(service.Settle()) << text;
  }
  EXPECT_THAT(service.Records(),
              ElementsAre("mXbc:failed:2:1", "maXc:failed:2:1", "mabX:failed:2:1"));
  EXPECT_EQ(3, service.Now().counters.at("failed"));
}

TEST_F(RunningSpoolTest, PieceThatCannotBeCopiedFails) {
  service.Arrive("m", "ab");
  service.Steps(2);
  service.spool->OnLog(
      {LogEvent::kCommandFailed, "cp /tmp/speech /out/0_a.text_live_first.raw", ""});
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.Records(), ElementsAre("m:failed:1:1"));
}

TEST_F(RunningSpoolTest, MessagesThatWaitTogetherAreToldApart) {
  service.Publish("1", "ab");
  service.Publish("2", "X");
  service.Publish("3", "abc");
  service.spool->Read();
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.Records(), ElementsAre("1:said:2:0", "2:failed:0:1", "3:said:3:0"));
}

TEST_F(RunningSpoolTest, MessageIsHeardWhenThePlayerHasAllOfIt) {
  service.Arrive("m", "ab");
  ASSERT_TRUE(service.Settle());
  const std::string out = service.run / "out/";
  const auto state = [&] {
    service.Steps(3);
    return NameOf(service.Now().messages.front().state);
  };
  EXPECT_STREQ("said", state());
  unlink((out + "0_a.text_live_first.raw").c_str());
  EXPECT_STREQ("said", state());
  const std::string hidden = out + ".playing.1.1_a.text_live_cont.raw";
  ASSERT_EQ(0, rename((out + "1_a.text_live_cont.raw").c_str(), hidden.c_str()));
  EXPECT_STREQ("said", state());
  PlayerState player;
  player.playing = "1_a.text_live_cont.raw";
  WritePlayerState(service.run / "player", player);
  unlink(hidden.c_str());
  EXPECT_STREQ("said", state());
  player.playing.clear();
  WritePlayerState(service.run / "player", player);
  EXPECT_STREQ("heard", state());
}

TEST_F(RunningSpoolTest, StateStopDropsTheMessage) {
  service.Arrive("m", "abc");
  service.Steps(3);
  service.daemon->state = "stop";
  service.spool->OnStatus(*ParseStatus(
      "<tts-status now-playing=\"0\" output-bound=\"0\" state=\"stop\" timestamp=\"99\">\n"
      "<directory id=\"a\" path=\"\" status=\"1\" total-file-count=\"0\" "
      "updated-file-count=\"0\"/>\n</tts-status>\n"));
  EXPECT_THAT(service.Records(), ElementsAre("m:dropped:1:0"));
}

TEST_F(RunningSpoolTest, WithdrawnMessageIsDropped) {
  service.Arrive("m", "abc");
  remove((service.scanned + "/m").c_str());
  service.spool->Read();
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.Records(), ElementsAre("m:dropped:0:0"));
  EXPECT_THAT(service.Problems(), IsEmpty());
  EXPECT_THAT(Listing(service.scanned), IsEmpty());
}

TEST_F(RunningSpoolTest, FileThatIsNotQueuedIsAProblemWhileItIsThere) {
  service.Arrive("m", "a");
  service.ScanOnce();
  service.Publish("m", "a");  // No scan has found the file gone.
  service.spool->Read();
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.Records(), ElementsAre("m:said:1:0", "m:dropped:0:0"));
  ASSERT_THAT(service.Problems(), ElementsAre("not-queued:a/m"));
  EXPECT_EQ(service.scanned + "/m is not spoken: its name and text were used before.",
            service.Now().problems[0].sentence);
  remove((service.scanned + "/m").c_str());
  service.Steps(3);
  EXPECT_THAT(service.Problems(), IsEmpty());
}

TEST_F(RunningSpoolTest, EmptyFileIsDroppedAndAProblem) {
  service.Arrive("m", "");
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.Records(), ElementsAre("m:dropped:0:0"));
  EXPECT_THAT(service.Problems(), ElementsAre("no-text:a/m"));
}

TEST_F(RunningSpoolTest, FileThatCannotBeRemovedIsDroppedAndAProblem) {
  service.Arrive("m", "a");
  service.spool->OnLog({LogEvent::kIndexed, "m", ""});
  service.spool->OnLog({LogEvent::kNotRemoved, service.scanned + "/m", ""});
  const std::string status =
      "<tts-status now-playing=\"0\" output-bound=\"0\" state=\"run\" timestamp=\"%d\">\n"
      "<directory id=\"a\" path=\"\" status=\"1\" total-file-count=\"1\" "
      "updated-file-count=\"0\"/>\n</tts-status>\n";
  for (int timestamp = 50; timestamp < 53; ++timestamp) {
    service.spool->OnStatus(
        *ParseStatus(std::string(status).replace(status.find("%d"), 2, std::to_string(timestamp))));
  }
  EXPECT_THAT(service.Records(), ElementsAre("m:dropped:0:0"));
  EXPECT_THAT(service.Problems(), ElementsAre("not-removed:a/m"));
}

TEST_F(RunningSpoolTest, OnlyVisibleRegularFilesAreMessages) {
  service.run.Write("target", "a");
  ASSERT_EQ(0, symlink((service.run / "target").c_str(), (service.scanned + "/link").c_str()));
  ASSERT_EQ(0, mkdir((service.scanned + "/directory").c_str(), 0777));
  service.Publish(".hidden", "a");
  service.spool->Read();
  EXPECT_THAT(service.Records(), IsEmpty());
}

TEST_F(RunningSpoolTest, LongMessageIsFollowedWithoutACopy) {
  service.Arrive("m", std::string((1 << 20) + 1, 'a'));
  EXPECT_THAT(Listing(service.scanned), ElementsAre("m"));
  EXPECT_THAT(service.Records(), ElementsAre("m:waiting:0:0"));
}

TEST_F(RunningSpoolTest, KeepsTheLast200MessagesThatHaveEnded) {
  for (int i = 0; i < 205; ++i) {
    service.Arrive("m" + std::to_string(i), "a");
    ASSERT_TRUE(service.Settle());
  }
  const std::vector<std::string> records = service.Records();
  ASSERT_EQ(200u, records.size());
  EXPECT_EQ("m5:said:1:0", records.front());
  EXPECT_EQ("m204:said:1:0", records.back());
}

TEST_F(RunningSpoolTest, OldestMessageEndsAfterManyOthers) {
  const std::string path = service.run / "b";
  const std::string more =
      "<directory id=\"b\" type=\"local\" path=\"" + path + "\" last-played-path=\"\"/>\n";
  service.Prepare(more);
  service.Arrive("m", "abc");
  for (int i = 0; i < 200; ++i) {
    std::ofstream(path + "/" + std::to_string(i)) << "a";
  }
  service.spool->Read();
  service.Prepare();
  service.spool->Prepare(*ParseDump("<tts-config/>\n"));
  EXPECT_EQ(200u, service.Now().messages.size());
}

TEST_F(RunningSpoolTest, DirectoryThatLeavesTheConfigurationDropsItsMessages) {
  service.Arrive("m", "a");
  service.spool->Prepare(*ParseDump("<tts-config/>\n"));
  EXPECT_THAT(service.Records(), ElementsAre("m:dropped:0:0"));
  EXPECT_THAT(Listing(service.scanned), ElementsAre("m"));
}

TEST_F(RunningSpoolTest, CreatesLocalDirectories) {
  service.Prepare("<directory id=\"b\" type=\"local\" path=\"" + (service.run / "x/y") +
                  "\" dir-mode=\"cache\"/>\n<directory id=\"c\" type=\"ftp\" path=\"" +
                  (service.run / "z") + "\"/>\n");
  for (const char* path : {"x", "x/y"}) {
    EXPECT_EQ(042770u, ModeOf(service.run / path)) << path;
  }
  EXPECT_FALSE(Exists(service.run / "z"));
}

// Restarts.

enum Death { kDaemonDies, kStationDies };

// Handles messages over, runs the service for some steps, restarts it and runs it to the end.
void RestartAfter(int steps_, Death death_, const Kind& kind_) {
  SCOPED_TRACE(testing::Message() << steps_ << " steps, " << kind_.name << ", "
                                  << (death_ == kDaemonDies ? "daemon" : "station"));
  Service service(kind_);
  service.StartStation();
  ASSERT_TRUE(service.Settle());
  service.Steps(6);
  service.Arrive("z", "abc");
  service.Arrive("y", "de");  // Its name comes first.
  service.Steps(steps_);
  const std::vector<std::string> before = service.said.whole;
  const std::vector<std::string> records = service.Records();
  service.said = {};
  death_ == kDaemonDies ? service.StartDaemon() : service.StartStation();
  ASSERT_TRUE(service.Settle());
  const std::vector<std::string>& after = service.said.whole;
  for (const auto& [text, record] : {std::make_pair("abc", "z:said:3:0"), {"de", "y:said:2:0"}}) {
    const auto count_before = std::count(before.begin(), before.end(), text);
    const auto count_after = std::count(after.begin(), after.end(), text);
    EXPECT_LE(1, count_before + count_after) << text;
    // It may come again if no status has told its end.
    const bool has_ended = std::count(records.begin(), records.end(), record) != 0;
    EXPECT_GE(has_ended ? 0 : 1, count_after) << text;
  }
  if (after.size() == 2) {
    EXPECT_EQ("abc", after[0]);
  }
  for (const std::string& name : Listing(service.scanned)) {
    EXPECT_FALSE(IsHidden(name)) << name;
    EXPECT_TRUE(kind_.stays) << name;
  }
  for (const std::string& record : service.Records()) {
    EXPECT_NE(std::string::npos, record.find(":said:")) << record;
  }
}

TEST(SpoolRestartTest, NoMessageIsLostWhateverThePointOfTheRestart) {
  for (const Kind& kind : kKinds) {
    for (const Death death : {kDaemonDies, kStationDies}) {
      for (int steps = 0; steps <= 20; ++steps) {
        RestartAfter(steps, death, kind);
      }
    }
  }
}

TEST(SpoolRestartTest, MessageThatAnotherOneHasFollowedIsNotSpokenAgain) {
  for (const Kind& kind : kKinds) {
    SCOPED_TRACE(kind.name);
    Service service(kind);
    service.StartStation();
    ASSERT_TRUE(service.Settle());
    service.Steps(6);
    service.Arrive("1", "a");
    service.Arrive("2", "bc");
    service.Steps(5);
    ASSERT_THAT(service.said.begun, ElementsAre("a", "bc"));
    service.StartDaemon();
    ASSERT_TRUE(service.Settle());
    EXPECT_THAT(service.said.whole, ElementsAre("a", "bc"));
    EXPECT_THAT(service.Records(), ElementsAre("1:said:1:0", "2:said:2:0"));
  }
}

TEST(SpoolRestartTest, MessagesAreGivenBackInTheOrderOfTheirArrival) {
  Service service;
  service.StartStation();
  ASSERT_TRUE(service.Settle());
  for (const std::string name : {"c", "a", "d", "b"}) {
    service.Arrive(name, name);
  }
  service.StartStation();
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.said.whole, ElementsAre("c", "a", "d", "b"));
}

// Hands a message over some steps after a restart, while others wait.
void ArriveAfterRestart(int steps_, const Kind& kind_) {
  SCOPED_TRACE(testing::Message() << steps_ << " steps, " << kind_.name);
  Service service(kind_);
  service.StartStation();
  ASSERT_TRUE(service.Settle());
  service.Steps(6);
  for (const std::string name : {"z", "y", "x"}) {
    service.Arrive(name, name);
  }
  service.StartDaemon();
  service.Steps(steps_);
  service.Arrive("a", "a");
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.said.whole, ElementsAre("z", "y", "x", "a"));
  EXPECT_EQ("a:said:1:0", service.Records().back());
}

TEST(SpoolRestartTest, MessageThatComesNowDoesNotOvertakeThoseThatWait) {
  for (const Kind& kind : kKinds) {
    for (int steps = 0; steps <= 20; ++steps) {
      ArriveAfterRestart(steps, kind);
    }
  }
}

// The daemon takes one before the station can put it away, and says it. The next one waits.
TEST(SpoolRestartTest, MessageThatWasTakenAtTheStartIsSpokenOnce) {
  for (const Kind& kind : kKinds) {
    for (const std::string text : {"abc", "a"}) {
      SCOPED_TRACE(std::string(kind.name) + " " + text);
      Service service(kind);
      service.StartStation();
      service.Steps(3);
      service.Publish("m", text);
      service.ScanOnce();
      service.Arrive("n", "de");
      service.Steps(3);
      ASSERT_TRUE(service.Settle());
      EXPECT_THAT(service.said.whole, ElementsAre(text, "de"));
    }
  }
}

// As where a message is given back by a rename, since its file belongs to another user.
TEST(SpoolRestartTest, MessagesAreSpokenAlthoughTheirReturnIsSeenAsAnArrival) {
  Service service;
  service.StartStation();
  ASSERT_TRUE(service.Settle());
  service.Steps(6);
  for (const std::string name : {"z", "y"}) {
    service.Arrive(name, name);
  }
  service.StartDaemon();
  std::vector<std::string> before;
  for (int i = 0; i < 300 && service.said.whole.size() < 2; ++i) {
    service.Step();
    const std::vector<std::string> names = Listing(service.scanned);
    for (const std::string& name : names) {
      if (!IsHidden(name) && std::count(before.begin(), before.end(), name) == 0) {
        fclose(fopen((service.scanned + "/" + name).c_str(), "a"));
        service.spool->Read();
      }
    }
    before = names;
  }
  EXPECT_THAT(service.said.whole, ElementsAre("z", "y"));
}

TEST(SpoolRestartTest, MessageThatTheStationHasNotSeenIsSpoken) {
  Service service;
  service.StartStation();
  ASSERT_TRUE(service.Settle());
  service.Steps(6);
  service.Publish("m", "abc");
  WriteHealth(service.run / "health", Health());
  service.StartStation();
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.said.whole, ElementsAre("abc"));
}

TEST(SpoolRestartTest, OldMessagesAreNotGivenBack) {
  struct {
    int age_limit;
    int age;
    bool is_speaking;
    bool is_given_back;
  } const rows[] = {{300, 290, false, true},
                    {300, 310, false, false},
                    {300, 310, true, true},
                    {0, 0, false, false},
                    {0, 0, true, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.age_limit << " " << row.age << " " << row.is_speaking);
    Service service(kRemoves, row.age_limit);
    ASSERT_EQ(0, mkdir(service.path.c_str(), 0777));
    const int64_t arrival = (int64_t{time(nullptr)} - row.age) * 1000000000;
    service.Publish(FormatCopyName({row.is_speaking, arrival, "m"}), "a");
    service.StartStation();
    ASSERT_TRUE(service.Settle());
    EXPECT_THAT(service.Records(), ElementsAre(row.is_given_back ? "m:said:1:0" : "m:dropped:0:0"));
    EXPECT_EQ(row.is_given_back ? 0 : 1, service.Now().counters.at("lost"));
    EXPECT_THAT(Listing(service.scanned), IsEmpty());
  }
}

TEST(SpoolRestartTest, MessageThatArrivesWithoutAStationIsSpoken) {
  for (const Kind& kind : kKinds) {
    SCOPED_TRACE(kind.name);
    Service service(kind);
    service.StartStation();
    ASSERT_TRUE(service.Settle());
    service.Arrive("said", "s");
    ASSERT_TRUE(service.Settle());
    service.Steps(6);
    service.spool.reset();
    while (true) {  // Until the clock of the file system has gone on.
      service.Publish("m", "abc");
      struct stat health = {};
      struct stat file = {};
      ASSERT_EQ(0, stat((service.run / "health").c_str(), &health));
      ASSERT_EQ(0, stat((service.scanned + "/m").c_str(), &file));
      if (std::make_pair(health.st_mtim.tv_sec, health.st_mtim.tv_nsec) <
          std::make_pair(file.st_ctim.tv_sec, file.st_ctim.tv_nsec)) {
        break;
      }
    }
    service.said = {};
    service.StartStation();
    ASSERT_TRUE(service.Settle());
    EXPECT_THAT(service.said.whole, ElementsAre("abc"));
    EXPECT_THAT(service.Records(), ElementsAre("m:said:3:0"));
  }
}

TEST(SpoolRestartTest, MessageWithdrawnWhileNoDaemonRunsStaysAway) {
  Service service;
  service.StartStation();
  ASSERT_TRUE(service.Settle());
  service.Steps(6);
  service.Arrive("m", "abc");
  service.daemon.reset();
  service.spool->OnDaemonEnd();
  remove((service.scanned + "/m").c_str());
  service.StartDaemon();
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.said.begun, IsEmpty());
  EXPECT_THAT(service.Records(), ElementsAre("m:dropped:0:0"));
}

TEST(SpoolRestartTest, MessageThatArrivesDuringTheStartIsSpokenOnce) {
  for (const Kind& kind : kKinds) {
    for (int steps = 0; steps <= 12; ++steps) {
      SCOPED_TRACE(testing::Message() << steps << " steps, " << kind.name);
      Service service(kind);
      service.StartStation();
      service.Steps(steps);
      service.Arrive("m", "abc");
      service.Steps((3 - steps % 3) % 3);
      ASSERT_TRUE(service.Settle());
      EXPECT_THAT(service.said.whole, ElementsAre("abc"));
      EXPECT_THAT(service.Records(), ElementsAre("m:said:3:0"));
    }
  }
}

TEST(SpoolRestartTest, MessageThatIsTakenBeforeTheLogIsReadIsSpokenOnce) {
  Service service;
  service.StartStation();
  service.spool->OnDaemonEnd();
  service.Prepare();
  service.daemon.emplace(service.path, service.scanned, service.run / "out", "", service.said);
  std::vector<LogEvent> log = {{LogEvent::kOther, "", "Created new input directory a"}};
  service.daemon->Scan(log);
  service.Arrive("m", "abc");
  service.daemon->Scan(log);
  service.daemon->Speak(log);
  service.Arrive("m", "de");
  service.Pass(log);
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.said.whole, ElementsAre("abc", "de"));
  EXPECT_THAT(service.Records(), ElementsAre("m:said:3:0", "m:said:2:0"));
}

TEST(SpoolRestartTest, NameThatIsTakenIsNotOverwritten) {
  Service service;
  service.StartStation();
  ASSERT_TRUE(service.Settle());
  service.Steps(6);
  service.Arrive("m", "abc");
  service.Steps(1);  // It is taken.
  service.Arrive("m", "de");
  service.StartDaemon();
  ASSERT_TRUE(service.Settle());
  EXPECT_THAT(service.said.whole, ElementsAre("abc", "de"));
  EXPECT_THAT(service.Records(), ElementsAre("m:said:3:0", "m:said:2:0"));
}

TEST(SpoolRestartTest, CopyKeepsTheModeOfTheFile) {
  Service service;
  service.StartStation();
  ASSERT_TRUE(service.Settle());
  service.Steps(6);
  service.run.Write(".secret", "a");
  ASSERT_EQ(0, chmod((service.run / ".secret").c_str(), 0640));
  ASSERT_EQ(0, renameat(AT_FDCWD, (service.run / ".secret").c_str(), AT_FDCWD,
                        (service.scanned + "/m").c_str()));
  service.spool->Read();
  const std::vector<std::string> names = Listing(service.scanned);
  ASSERT_EQ(2u, names.size());
  EXPECT_EQ(0100640u, ModeOf(service.scanned + "/" + names[0]));
}

TEST(MessageCopyTest, NameIsReadAsItWasWritten) {
  CopyName read;
  for (const bool is_speaking : {false, true}) {
    ASSERT_TRUE(ParseCopyName(FormatCopyName({is_speaking, 1700000000123456789, "a-b.c"}), read));
    EXPECT_EQ(is_speaking, read.is_speaking);
    EXPECT_EQ(1700000000123456789, read.arrival);
    EXPECT_EQ("a-b.c", read.name);
  }
  const std::string longest(255, 'x');
  ASSERT_TRUE(ParseCopyName(FormatCopyName({false, 5, longest}), read));
  EXPECT_EQ(5, read.arrival);
  EXPECT_EQ(std::string(224, 'x'), read.name);
  for (const char* name : {"", "m", ".station-new", ".station-w-0000000000000000005-",
                           ".station-x-0000000000000000005-m", ".station-w-000000000000000000x-m",
                           ".station-w-00000000000000000005-m"}) {
    EXPECT_FALSE(ParseCopyName(name, read)) << name;
  }
}

}  // namespace

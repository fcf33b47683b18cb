#include "problems.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <map>
#include <set>
#include <utility>

#include "affix.h"
#include "clock.h"
#include "configuration.h"
#include "format.h"
#include "place.h"
#include "playerstate.h"
#include "process.h"
#include "processstat.h"
#include "statusfile.h"

namespace {

// All in seconds.
constexpr double kHang = 3;         // A translator that runs longer counts as hanging.
constexpr double kProbePause = 2;   // Between two trials of the translator.
constexpr double kProbeLimit = 20;  // Limit of a trial, even on a slow device.
constexpr double kTrial = 3;        // A failure is told without its cause after that time.
constexpr double kCopyFailure = 5;  // Time for which an unexplained failure to copy is shown.
constexpr double kStart = 3;        // For a player to start, or for a helper's first heartbeat.
constexpr double kSettle = 1.5;     // For a restart of the daemon to end a problem.
constexpr double kPlayerPause = 5;  // Without a change of the player's state, after its sound.
constexpr double kUnknownSound = 60;
constexpr double kLockedStill = 2;  // Without a new status; then locks are checked.
constexpr double kStill = 4;        // Without a new status; then the daemon counts as failing.
constexpr double kSilent = 3;       // Without a log line; passes that fail log something.

constexpr int kRepeats = 10;       // A line that repeats so often comes in each pass.
constexpr size_t kMaxTexts = 100;  // Lines that are remembered.
constexpr size_t kMaxLine = 300;   // Bytes of a line of the translator that are shown.
constexpr int kLockTries = 3;      // In one check.
constexpr int kLockPause = 2;      // Milliseconds between them.
constexpr int kLockedChecks = 2;   // Checks in a row; players hold the lock only for moments.

// How a helper's line about its server begins, and its lines about the end of such an outage, and
// of a trouble with its own files.
constexpr char kOutage[] = "no updates: ";
constexpr char kWorksAgain[] = "works again";
constexpr char kWritesAgain[] = "can write files again";

// The lowest data rates of sound, in bytes a second: 16 bits at 4000 Hz, and a compressed WAV file.
constexpr double kRawRate = 8000;
constexpr double kWavRate = 1600;

// Free bytes that a file system needs; on a small one an eighth is enough.
constexpr uint64_t kLeastRoom = 256 << 10;

struct Kind {
  const char* id;
  const char* remedy;  // Null: the part that sets the problem gives it.
};

constexpr Kind kKinds[] = {
    {"configuration-missing", nullptr},
    {"configuration-refused", nullptr},
    {"daemon-ends", nullptr},
    {"glossary-missing", nullptr},
    {"glossary-refused", nullptr},
    {"daemon-dead", "See the log; the station starts it again"},
    {"daemon-hung", "Wait for the station to start it again, or restart the service"},
    {"daemon-failing", "Look the line up in /usr/share/doc/vocastra/log.md, and remove the cause"},
    {"helper-dead",
     "Correct the directory's attributes if they are the cause; restart the service"},
    {"input-missing", "Create the directory for the daemon's user, or correct path and subdir"},
    {"input-unreadable", "Let the daemon's user read and search the directory"},
    {"input-read-only", "Let the daemon's user write to the directory; it removes what it takes"},
    {"locked", "End the program that holds the lock; lslocks or fuser names it"},
    {"no-player", "Start the player: systemctl start vocastra-player"},
    {"no-sound-device",
     "Connect the sound device, or name another one in the options of vocastra-player"},
    {"no-text", nullptr},
    {"not-queued", nullptr},
    {"not-removed", nullptr},
    {"output-failing", "Run the command in the log by hand"},
    {"output-full", "Remove files from the file system, or make it larger"},
    {"output-gone", "Restart the service, which creates it, or create it for the daemon's user"},
    {"output-read-only", "Let the daemon's user write to the directory"},
    {"output-replaced",
     "Wait for the station to restart the daemon; next time, empty the directory instead"},
    {"player-stopped", "Restart the player: systemctl restart vocastra-player"},
    {"remote", "Check network, server, login and keys"},
    {"tmp-full", "Remove files from /tmp, or make it larger"},
    {"translator-failing", "Correct conv-opts, or install what the translator needs"},
    {"translator-hanging", "Wait for its end, or kill it; use fewer words in a piece (-w)"},
    {"translator-missing", "Install the translator, or correct the daemon's option -t"},
    {"unreadable", nullptr},
};

// Why a file system takes no more files; empty if it does.
std::string WhyNoRoom(const std::string& path_) {
  struct statvfs room {};
  if (statvfs(path_.c_str(), &room) != 0 || room.f_blocks == 0) {
    return "";
  }
  const uint64_t block = room.f_frsize;
  if (room.f_bavail * block < std::min(kLeastRoom, room.f_blocks * block / 8)) {
    return Format("%llu KiB are free",
                  static_cast<unsigned long long>(room.f_bavail * block >> 10));
  }
  return room.f_files != 0 && room.f_favail == 0 ? "it has as many files as it can" : "";
}

// Empty if the process is gone.
ProcessStat LookAtProcess(int pid_) {
  try {
    return ReadProcessStat(pid_);
  } catch (const std::string&) {
    return {};
  }
}

// A player as its state file and the kernel show it.
struct PlayerView {
  PlayerView(const std::string& run_, const std::string& zone_)
      : zone(zone_), path(PlayerPath(run_, zone_)) {
    try {
      state = ReadPlayerState(path);
      process = IsPlayerRunning(state) ? LookAtProcess(state.pid).state : 'Z';
    } catch (const std::string& why) {
      unreadable = why;
    }
  }

  bool HasEnded() const { return !unreadable.empty() || process == 'Z'; }
  bool IsStopped() const { return process == 'T' || process == 't'; }
  bool HasFiles() const { return !state.playing.empty() || !state.waiting.empty(); }
  // True if the output directory may be full because of it.
  bool KeepsFiles() const { return HasEnded() || IsStopped() || !state.device_ok || HasFiles(); }

  std::string zone;  // Empty: none.
  std::string path;  // Of the state file.
  PlayerState state;
  std::string unreadable;  // Why there is no state.
  char process = '\0';     // As in ProcessStat.
};

// The daemon's children. A helper that has ended stays a zombie until its directory is removed from
// the configuration.
struct Family {
  explicit Family(int daemon_) {
    for (const int child : Children(daemon_)) {
      const ProcessStat process = LookAtProcess(child);
      if (process.state == 'Z') {
        has_dead = true;
      } else if (process.name == "sh") {
        has_command = true;
      } else {
        arguments += '\0' + ReadOrNothing(Format("/proc/%d/cmdline", child));
      }
    }
  }

  // True if one of the helpers mirrors into that directory, which is one of its arguments.
  bool HasHelperFor(const std::string& watch_directory_) const {
    return arguments.find('\0' + watch_directory_ + '\0') != std::string::npos;
  }

  bool has_dead = false;
  bool has_command = false;  // The translator, or another command that runs for a short time.
  std::string arguments;     // Of all helpers, with a zero byte before and after each.
};

// True if the process has taken the lock of the directory. Lines of the list are such as
// "1: FLOCK  ADVISORY  WRITE 812 fe:01:4711 0 EOF", with the file's number.
bool HasTaken(int pid_, const std::string& path_) {
  struct stat status = {};
  if (stat(path_.c_str(), &status) != 0) {
    return false;
  }
  const std::string number = Format(":%llu 0 EOF", static_cast<unsigned long long>(status.st_ino));
  const std::string start = Format(": FLOCK  ADVISORY  WRITE %d ", pid_);
  try {
    const std::string locks = ReadWhole("/proc/locks");
    for (size_t at = locks.find(start); at != std::string::npos; at = locks.find(start, at + 1)) {
      const std::string line = locks.substr(at, locks.find('\n', at) - at);
      if (line.find(number) != std::string::npos) {
        return true;
      }
    }
  } catch (const std::string&) {  // The kernel offers no list.
  }
  return false;
}

// True if a process holds the lock of the directory.
bool IsHeld(const std::string& path_) {
  const int directory = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK);
  bool is_held = directory >= 0;
  for (int i = 0; is_held && i < kLockTries; ++i) {
    Nap(i == 0 ? 0 : kLockPause);
    is_held = flock(directory, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  }
  if (directory >= 0) {
    close(directory);
  }
  return is_held;
}

// Another text after each update: the helper replaces the file then. A new helper has a new
// directory.
std::string StateOfUpdates(const std::string& watch_directory_, const std::string& subdir_) {
  const std::string path =
      AddTrailingSlash(watch_directory_) + AddTrailingSlash(subdir_) + ".helper.timestamp";
  struct stat file {};
  stat(path.c_str(), &file);
  return Format("%s %llu %lld.%09ld", path.c_str(), static_cast<unsigned long long>(file.st_ino),
                static_cast<long long>(file.st_mtim.tv_sec), file.st_mtim.tv_nsec);
}

// The directories of a configuration that the daemon uses, by their ids.
std::map<std::string, const XMLElement*> DirectoriesIn(const XMLElement& configuration_) {
  std::map<std::string, const XMLElement*> result;
  for (const XMLElement* element : configuration_.GetChildren("directory")) {
    const std::string id = element->GetAttributeString("id", "");
    if (!id.empty()) {
      result.emplace(id, element);
    }
  }
  return result;
}

std::string Printable(std::string text_) {
  std::replace_if(
      text_.begin(), text_.end(), [](char c_) { return c_ < ' ' || c_ > '~'; }, '?');
  return text_;
}

}  // namespace

struct Problems::Impl {
  struct Entry {
    Problem problem;
    double first = 0;       // When it was found first.
    bool is_shown = false;  // It has lasted long enough.
    bool is_own = false;    // A check has found it, so it ends when a later check does not.
    bool is_found = false;  // By the last check.
  };

  Impl(const std::string& run_, const Options& options_, bool has_player_)
      : run(run_), options(options_), has_player(has_player_) {}

  Entry& At(const std::string& id_);
  Entry& Find(const std::string& id_, const std::string& about_, const std::string& sentence_,
              double hold_ = 0);
  bool Has(const std::string& start_) const;

  void CheckDaemon(const View& view_);
  void CheckLocks(int daemon_);
  void CheckOutput(int daemon_);
  void CheckPlayers(const XMLElement* status_);
  void CheckPlayer(const PlayerView& player_, bool is_bound_);
  void FindPlayer(const std::string& id_, const std::string& zone_, const std::string& sentence_,
                  double hold_ = 0);
  bool IsPlayerBusy(const PlayerView& player_, bool is_bound_);
  void CheckInputs();
  void CheckInput(const std::string& id_, const XMLElement& element_);
  void CheckRemotes(const View& view_);
  void CheckRemote(const std::string& id_, const XMLElement& element_, const XMLElement& status_,
                   const Family& family_);
  void TakeHelperLine(const std::string& text_);
  void CheckTranslator(double engine_);
  void FindFailing();
  void RunProbe();
  void StartProbe();
  std::string WhyProbeFailed() const;
  std::string ArgumentsOf(const std::string& id_) const {
    return directories.at(id_)->GetAttributeString("conv-opts", "");
  }

  const std::string run;
  const Options options;
  const bool has_player;
  std::list<Entry> entries;                              // The oldest first.
  std::map<std::string, const XMLElement*> directories;  // By their ids; valid during a check.

  std::string last_line;  // Of the daemon.
  double last_line_time = 0;
  std::map<std::string, int> repeats;  // Of lines since the status advanced.
  std::string repeated_line;           // The last line that came in each pass; empty: none.
  std::map<std::string, int> held;     // By path: checks in a row that found the lock held.

  int daemon = 0;  // At the last check.
  struct stat output {};
  double copy_failed = -kCopyFailure;

  struct PlayerChange {
    std::string identity;  // Of the present version of the state file.
    double time = 0;
  };
  std::map<std::string, PlayerChange> player_changes;  // By zone.

  struct HelperReport {
    std::string line;     // The last one; empty: none, or it tells that all is well again.
    std::string outage;   // Why no updates come; empty: they do, or the helper has not told it.
    std::string updates;  // Their state at the first check after that; empty: no check yet.
  };
  std::map<std::string, HelperReport> helper_reports;  // By source.

  std::vector<std::string> failed_commands;  // Since the last check.
  std::set<std::string> failing;             // Ids of directories for which the translator failed,
  std::string why_failing;                   // and what the translator wrote.
  std::string probed;                        // The directory whose arguments the trial uses.
  std::string probed_arguments;
  double next_probe = 0;
  Command probe;
};

// --- The list ---

Problems::Impl::Entry& Problems::Impl::At(const std::string& id_) {
  for (Entry& entry : entries) {
    if (entry.problem.id == id_) {
      return entry;
    }
  }
  Entry entry;
  entry.problem.id = id_;
  entry.problem.since = time(nullptr);
  entry.first = Now();
  return entries.emplace_back(entry);
}

// A check has found a problem, which is shown if it lasts for hold_ seconds.
Problems::Impl::Entry& Problems::Impl::Find(const std::string& id_, const std::string& about_,
                                            const std::string& sentence_, double hold_) {
  Entry& entry = At(about_.empty() ? id_ : id_ + ":" + about_);
  entry.is_own = true;
  entry.is_found = true;
  entry.is_shown = Now() - entry.first >= hold_;
  entry.problem.sentence = sentence_;
  for (const Kind& kind : kKinds) {
    if (id_ == kind.id) {
      entry.problem.remedy = kind.remedy;
    }
  }
  return entry;
}

bool Problems::Impl::Has(const std::string& start_) const {
  return std::any_of(entries.begin(), entries.end(), [&](const Entry& entry_) {
    return (entry_.is_found || !entry_.is_own) && StartsWith(entry_.problem.id, start_);
  });
}

// --- The daemon ---

void Problems::Impl::CheckDaemon(const View& view_) {
  if (view_.still < 1) {
    repeats.clear();
    repeated_line.clear();
  }
  const bool is_still = view_.daemon != 0 && view_.engine <= 0 && view_.still >= kLockedStill &&
                        !Family(view_.daemon).has_command;
  if (is_still) {
    CheckLocks(view_.daemon);
  } else {
    held.clear();
  }
  if (view_.daemon == 0 && !Has("daemon-ends") && !Has("configuration-")) {
    Find("daemon-dead", "",
         "The daemon does not run" + (last_line.empty() ? "" : "; its last line: " + last_line),
         kSettle);
  } else if (is_still && view_.still >= kStill && !Has("locked")) {
    if (Now() - last_line_time > kSilent) {
      Find("daemon-hung", "", Format("The daemon has done nothing for %.0f s", view_.still));
    } else if (!repeated_line.empty() && !Has("")) {
      Find("daemon-failing", "", "Each pass of the daemon fails: " + repeated_line);
    }
  }
}

// A daemon that holds the lock itself does not wait for it.
void Problems::Impl::CheckLocks(int daemon_) {
  std::set<std::string> paths = {options.output_directory_path};
  for (const auto& [id, element] : directories) {
    if (element->GetAttributeString("type", "") == "local") {
      paths.insert(ScannedPath(*element));
    }
  }
  for (const std::string& path : paths) {
    int& checks = held[path];
    checks = IsHeld(path) && !HasTaken(daemon_, path) ? checks + 1 : 0;
    if (checks >= kLockedChecks) {
      Find("locked", path, "Another program holds the lock of " + path + ", and the daemon waits");
    }
  }
}

// --- Output and players ---

void Problems::Impl::CheckOutput(int daemon_) {
  const std::string& path = options.output_directory_path;
  struct stat now {};
  const bool is_there = stat(path.c_str(), &now) == 0;
  const std::string why = is_there ? "it is not a directory" : strerror(errno);
  if (daemon_ != daemon) {
    daemon = daemon_;
    output = now;
  }
  if (path.empty()) {
    return;
  }
  const std::string name = "The output directory " + path;
  std::string full;
  if (!is_there || !S_ISDIR(now.st_mode)) {
    Find("output-gone", "", name + " is gone: " + why);
  } else if (daemon != 0 && (now.st_ino != output.st_ino || now.st_dev != output.st_dev)) {
    Find("output-replaced", "", name + " was replaced after the daemon's start");
  } else if (access(path.c_str(), R_OK | W_OK | X_OK) != 0) {
    Find("output-read-only", "", name + " cannot be used: " + strerror(errno));
  } else if (!(full = WhyNoRoom(path)).empty()) {
    Find("output-full", "", "The disk of the output directory " + path + " is full: " + full);
  } else if (Now() - copy_failed < kCopyFailure) {
    Find("output-failing", "", "A piece could not be copied into " + path);
  }
  if (!(full = WhyNoRoom("/tmp")).empty()) {
    Find("tmp-full", "", "The disk of /tmp is full: " + full);
  }
}

void Problems::Impl::CheckPlayers(const XMLElement* status_) {
  const bool is_bound = status_ != nullptr && status_->GetAttributeInteger("output-bound", 0) != 0;
  std::vector<PlayerView> players;
  for (const std::string& zone : PlayerZones(run)) {
    players.emplace_back(run, zone);
  }
  for (const PlayerView& player : players) {
    // The files of a full directory may be another player's.
    const bool is_cause = std::none_of(
        players.begin(), players.end(),
        [&](const PlayerView& other_) { return &other_ != &player && other_.KeepsFiles(); });
    CheckPlayer(player, is_bound && is_cause);
  }
}

void Problems::Impl::CheckPlayer(const PlayerView& player_, bool is_bound_) {
  const std::string& zone = player_.zone;
  const std::string name = zone.empty() ? "player" : "player vocastra-player@" + Printable(zone);
  const std::string process = Format("%s, process %d,", name.c_str(), player_.state.pid);
  if (!player_.unreadable.empty()) {
    FindPlayer("no-player", zone, "No " + name + " has run yet: " + player_.unreadable, kStart);
  } else if (player_.HasEnded()) {
    FindPlayer("no-player", zone, "The " + process + " has ended", kStart);
  } else if (player_.IsStopped()) {
    FindPlayer("player-stopped", zone, "The " + process + " is stopped");
  } else if (!player_.state.device_ok) {
    FindPlayer("no-sound-device", zone,
               "The " + name + " has no sound device " + player_.state.device);
  } else if (!IsPlayerBusy(player_, is_bound_)) {
    FindPlayer("player-stopped", zone, "Files wait, and the " + process + " plays nothing new");
  }
}

// The remedies end with the name of the player's unit.
void Problems::Impl::FindPlayer(const std::string& id_, const std::string& zone_,
                                const std::string& sentence_, double hold_) {
  Entry& entry = Find(id_, Printable(zone_), sentence_, hold_);
  if (!zone_.empty()) {
    entry.problem.remedy += "@" + Printable(zone_);
  }
}

// True if the player's state has changed recently enough. While files wait, it changes at the end
// of the file that plays.
bool Problems::Impl::IsPlayerBusy(const PlayerView& player_, bool is_bound_) {
  struct stat file {};
  stat(player_.path.c_str(), &file);
  const std::string identity =
      Format("%llu %lld.%09ld", static_cast<unsigned long long>(file.st_ino),
             static_cast<long long>(file.st_mtim.tv_sec), file.st_mtim.tv_nsec);
  PlayerChange& change = player_changes[player_.zone];
  if (identity != change.identity || !(is_bound_ || player_.HasFiles())) {
    change = {identity, Now()};
  }
  if (Now() - change.time < kPlayerPause) {
    return true;
  }
  double sound = 0;
  if (!player_.state.playing.empty()) {
    const bool is_wav = player_.state.playing.find(".wav") != std::string::npos;
    struct stat piece {};
    const std::string path = AddTrailingSlash(options.output_directory_path) + ".playing.";
    sound = stat((path + player_.state.playing).c_str(), &piece) != 0
                ? kUnknownSound
                : static_cast<double>(piece.st_size) / (is_wav ? kWavRate : kRawRate);
  }
  return Now() - change.time < kPlayerPause + sound;
}

// --- Input directories ---

void Problems::Impl::CheckInputs() {
  for (const auto& [id, element] : directories) {
    if (element->GetAttributeString("type", "") == "local") {
      CheckInput(id, *element);
    }
  }
}

void Problems::Impl::CheckInput(const std::string& id_, const XMLElement& element_) {
  const std::string path = ScannedPath(element_);
  if (path.empty()) {
    return;
  }
  const std::string name = "The input directory " + path;
  struct stat status {};
  const bool is_there = stat(path.c_str(), &status) == 0;
  const bool is_hidden = !is_there && errno == EACCES;
  if (!is_there && !is_hidden) {
    Find("input-missing", id_, name + " is missing: " + strerror(errno));
  } else if (is_hidden || access(path.c_str(), R_OK | X_OK) != 0) {
    Find("input-unreadable", id_, name + " cannot be read: " + strerror(errno));
  } else if (access(path.c_str(), W_OK) != 0) {
    Find("input-read-only", id_, name + " cannot be written: " + strerror(errno));
  }
}

void Problems::Impl::CheckRemotes(const View& view_) {
  const bool has_remotes =
      std::any_of(directories.begin(), directories.end(), [](const auto& directory_) {
        return directory_.second->GetAttributeString("type", "") != "local";
      });
  if (view_.status == nullptr || view_.daemon == 0 || !has_remotes) {
    return;
  }
  const Family family(view_.daemon);
  for (const auto& [id, element] : directories) {
    const XMLElement* const status = FindById(*view_.status, "directory", id);
    if (status != nullptr && element->GetAttributeString("type", "") != "local") {
      CheckRemote(id, *element, *status, family);
    }
  }
}

void Problems::Impl::CheckRemote(const std::string& id_, const XMLElement& element_,
                                 const XMLElement& status_, const Family& family_) {
  const std::string subdir = element_.GetAttributeString("subdir", "");
  const std::string source =
      Printable(RemoteSource(element_.GetAttributeString("path", ""), subdir));
  const std::string watch_directory = status_.GetAttributeString("path", "");
  HelperReport& report = helper_reports[source];
  const std::string updates = StateOfUpdates(watch_directory, subdir);
  if (report.updates.empty()) {
    report.updates = updates;
  } else if (!report.outage.empty() && report.updates != updates) {
    report = {};  // The outage is over, or there is a new helper.
  }
  const bool is_silent = status_.GetAttributeString("status", "") == "0";
  if (family_.has_dead && !family_.HasHelperFor(watch_directory)) {
    Find("helper-dead", id_,
         "The helper of " + source + " has ended" +
             (report.line.empty() ? "" : "; its last line: " + report.line),
         kSettle);
  } else if (is_silent || !report.outage.empty()) {  // The helper tells it some seconds sooner.
    const std::string& why = report.outage.empty() ? report.line : report.outage;
    Find("remote", id_, "No updates come from " + source + (why.empty() ? "" : ": " + why),
         why.empty() ? kStart : 0);
  }
}

// text_: "SOURCE: what the helper says".
void Problems::Impl::TakeHelperLine(const std::string& text_) {
  const size_t colon = text_.find(": ");
  const std::string source = text_.substr(0, colon);
  if (colon == std::string::npos ||
      (helper_reports.size() >= kMaxTexts && helper_reports.count(source) == 0)) {
    return;
  }
  HelperReport& report = helper_reports[source];
  report.line = text_.substr(colon + 2);
  if (StartsWith(report.line, kOutage)) {
    report.line.erase(0, strlen(kOutage));
    report.outage = report.line;
    report.updates.clear();
  } else if (report.line == kWorksAgain) {
    report = {};
  } else if (report.line == kWritesAgain) {
    report.line.clear();
  }
}

// --- The translator ---

void Problems::Impl::CheckTranslator(double engine_) {
  const std::string& translator = options.translator_file_path;
  if (engine_ > kHang) {
    Find("translator-hanging", "", Format("The translator has run for %.0f s", engine_));
  }
  // A trial finds out about a command that the shell searches in PATH or expands.
  const std::string path = translator.substr(0, translator.find(' '));
  const bool is_plain = path.find('/') != std::string::npos &&
                        path.find_first_of("\\\"'$`*?[~;&|<>()") == std::string::npos;
  if (is_plain && access(path.c_str(), X_OK) != 0) {
    Find("translator-missing", "", "The translator " + path + " cannot be run: " + strerror(errno));
    next_probe = 0;
  }
  FindFailing();
  if (probe.IsRunning() || (engine_ <= 0 && !Has("translator-missing"))) {
    RunProbe();
  }
  if (!failing.empty() && !Has("translator-missing")) {
    const std::string& id = failing.count(probed) != 0 ? probed : *failing.begin();
    Find("translator-failing", "",
         "The translator fails for directory " + id + (why_failing.empty() ? "" : ": ") +
             why_failing,
         why_failing.empty() ? kTrial : 0);
  }
}

// Finds the directories with the arguments of the failed commands.
void Problems::Impl::FindFailing() {
  for (const std::string& command : failed_commands) {
    // Two paths of temporary files, which have no blanks, follow the translator.
    size_t begin = options.translator_file_path.size() + 1;
    begin = command.find(' ', begin) + 1;
    begin = command.find(' ', begin) + 1;
    const std::string rest = command.substr(begin);
    std::string best;
    size_t best_size = 0;
    for (const auto& [id, element] : directories) {
      const std::string arguments = ArgumentsOf(id) + " \"";
      if (StartsWith(rest, arguments) && arguments.size() > best_size) {
        best = id;
        best_size = arguments.size();
      }
    }
    if (!best.empty()) {
      failing.insert(best);
    }
  }
  failed_commands.clear();
}

// Runs a trial with the present arguments of one failing directory after the other, until none
// fails.
void Problems::Impl::RunProbe() {
  if (probe.IsRunning()) {
    if (!probe.HasEnded()) {
      return;
    }
    why_failing = WhyProbeFailed();
    next_probe = Now() + (why_failing.empty() ? 0 : kProbePause);
    if (why_failing.empty()) {
      failing.erase(probed);
    }
  }
  for (auto id = failing.begin(); id != failing.end();) {
    id = directories.count(*id) == 0 ? failing.erase(id) : std::next(id);
  }
  if (failing.count(probed) != 0 && ArgumentsOf(probed) != probed_arguments) {
    next_probe = 0;  // The arguments have changed and may work now.
  }
  if (failing.empty()) {
    why_failing.clear();
  } else if (Now() >= next_probe) {
    const auto next = failing.upper_bound(probed);
    probed = next == failing.end() ? *failing.begin() : *next;
    StartProbe();
  }
}

// Runs the translator as the daemon does, in the background.
void Problems::Impl::StartProbe() {
  const std::string text = run + "/probe.text";
  const std::string audio = run + "/probe.audio";
  probed_arguments = ArgumentsOf(probed);
  // Every voice can speak a digit.
  const std::string command =
      Format("echo '1 ' > %s; %s %s %s %s \"probe\"; status=$?; rm -f %s %s; exit $status",
             text.c_str(), options.translator_file_path.c_str(), text.c_str(), audio.c_str(),
             probed_arguments.c_str(), text.c_str(), audio.c_str());
  try {
    probe.Start({"/bin/sh", "-c", command}, kProbeLimit);
  } catch (const std::string& why) {
    why_failing = why;
    next_probe = Now() + kProbePause;
  }
}

// The translator's own error line if it wrote one; empty if the trial did not fail.
std::string Problems::Impl::WhyProbeFailed() const {
  if (probe.Status() == 0) {
    return "";
  }
  const std::string line = probe.Text().substr(0, probe.Text().find('\n')).substr(0, kMaxLine);
  return line.empty() ? Described(probe.Status()) : line;
}

// --- The interface ---

Problems::Problems(const std::string& run_, const Options& options_, bool has_player_)
    : impl(std::make_unique<Impl>(run_, options_, has_player_)) {}

Problems::~Problems() = default;

void Problems::OnLog(const LogEvent& event_) {
  if (event_.kind == LogEvent::kFromHelper) {
    impl->TakeHelperLine(event_.subject);
    return;
  }
  impl->last_line = event_.line;
  impl->last_line_time = Now();
  if (impl->repeats.size() < kMaxTexts && ++impl->repeats[event_.line] >= kRepeats) {
    impl->repeated_line = event_.line;
  }
  if (event_.kind == LogEvent::kCommandFailed) {
    const Options& options = impl->options;
    if (StartsWith(event_.subject, options.translator_file_path + " ")) {
      impl->failed_commands.resize(std::min(impl->failed_commands.size(), kMaxTexts));
      impl->failed_commands.push_back(event_.subject);
    } else if (StartsWith(event_.subject, "cp ") &&
               event_.subject.find(" " + AddTrailingSlash(options.output_directory_path)) !=
                   std::string::npos) {
      impl->copy_failed = Now();
    }
  }
}

void Problems::Check(const View& view_) {
  for (Impl::Entry& entry : impl->entries) {
    entry.is_found = false;
  }
  if (view_.configuration != nullptr) {
    impl->directories = DirectoriesIn(*view_.configuration);
  }
  impl->CheckOutput(view_.daemon);
  if (impl->has_player) {
    impl->CheckPlayers(view_.status);
  }
  impl->CheckInputs();
  impl->CheckRemotes(view_);
  impl->CheckTranslator(view_.engine);
  impl->CheckDaemon(view_);
  impl->directories.clear();
  impl->entries.remove_if(
      [](const Impl::Entry& entry_) { return entry_.is_own && !entry_.is_found; });
}

void Problems::Set(const std::string& id_, const std::string& sentence_,
                   const std::string& remedy_) {
  Impl::Entry& entry = impl->At(id_);
  entry.is_shown = true;
  entry.problem.sentence = sentence_;
  entry.problem.remedy = remedy_;
}

void Problems::Clear(const std::string& id_) {
  impl->entries.remove_if([&](const Impl::Entry& entry_) { return entry_.problem.id == id_; });
}

bool Problems::IsLocked() const { return impl->Has("locked"); }

bool Problems::NeedsRestart() const { return impl->Has("output-replaced"); }

void Problems::AddTo(Health& health_) const {
  for (const Impl::Entry& entry : impl->entries) {
    if (entry.is_shown) {
      health_.problems.push_back(entry.problem);
      health_.is_hung = health_.is_hung || entry.problem.id == "daemon-hung";
    }
  }
}

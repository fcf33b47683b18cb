// vocastra-station: runs the daemon, keeps it running, and reports why messages are not heard.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "clock.h"
#include "commandline.h"
#include "copies.h"
#include "daemon.h"
#include "debug.h"
#include "format.h"
#include "health.h"
#include "log.h"
#include "notify.h"
#include "options.h"
#include "playerstate.h"
#include "problems.h"
#include "requests.h"
#include "spool.h"
#include "statusfile.h"
#include "watchdog.h"

namespace {

constexpr double kIdlePeriod = 1;    // Seconds between two looks at everything.
constexpr double kBusyPeriod = 0.1;  // The same while a message waits or is being said.
constexpr double kLogPause = 0.05;   // Seconds between two reads of the log.
constexpr double kReadyLimit = 30;   // Seconds; the start counts as done then even with problems.
constexpr double kOldDaemonLimit =
    10;                            // Seconds that the daemon of a killed station may take to end.
constexpr double kBeginLimit = 1;  // Seconds from a message's first piece to its status.
constexpr double kMessageLimit = 60;  // Seconds from a request to stop to the end of the message.
constexpr double kStopLimit = 30;     // Seconds that the daemon may take to stop its helpers.
constexpr double kBusyStopLimit = 2;  // The same while it speaks messages.
constexpr double kGoesOn = 1;  // Seconds; a daemon whose status is younger still speaks messages.

// A message is lost if the daemon takes its file before the station has copied it, and then dies.
// So the station gets the processor first on a busy device. It needs little time.
constexpr int kNice = -10;

constexpr int kWrongUse = 2;

struct Settings {
  std::string run = VOCASTRA_RUN_DIR;
  std::string keep;
  int age = 300;
  int drain = 30;
  int translator_limit = 30;
  bool has_no_player = false;
  bool is_raw = false;
  std::vector<std::string> daemon;  // The program and its options.
  Options options;                  // The same, parsed.
};

struct CloseDirectory {
  void operator()(DIR* directory_) const { closedir(directory_); }
};

// Calls act_ for each file in the output directory that waits for the player.
template <typename Act>
void ForEachOutput(const std::string& directory_, Act act_) {
  const std::unique_ptr<DIR, CloseDirectory> directory(opendir(directory_.c_str()));
  while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
    if (*entry->d_name >= '0' && *entry->d_name <= '9') {
      act_(AddTrailingSlash(directory_) + entry->d_name);
    }
  }
}

void WriteLine(const std::string& line_) {
  const std::string text = line_ + "\n";
  WriteWhole(STDERR_FILENO, text.data(), text.size());
}

// Locks the run directory until the process ends. Throws a string if another station has the lock.
int LockRun(const std::string& run_) {
  const int fd = open(run_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    throw Format("%s: %s", run_.c_str(), strerror(errno));
  }
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    throw Format("%s: another station uses it", run_.c_str());
  }
  return fd;
}

// The process of a killed station's daemon, which is about to end; 0 if there is none.
int FindOldDaemon(const std::string& run_) {
  try {
    return ReadHealth(run_ + "/health").daemon;
  } catch (const std::string&) {
    return 0;
  }
}

bool IsAlive(int pid_) { return pid_ > 0 && (kill(pid_, 0) == 0 || errno == EPERM); }

// True if the daemon is alive, or a process that it has started, such as a command that copies an
// output file.
bool IsGroupAlive(int pid_) { return pid_ > 0 && (kill(-pid_, 0) == 0 || errno == EPERM); }

int BlockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
    sigaddset(&signals, signal);
  }
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

class Station {
 public:
  explicit Station(const Settings& settings_);
  void Run();  // Returns after a signal that asks for the end.

 private:
  void Wait();
  void TakeSignals();
  void TakeLog();
  void Look();
  void LookAtStatus();
  void WatchDaemon();
  void OnDaemonEnd();
  void StartWhenDue();
  void Start();
  bool IsPlayerBusy() const;
  void RemoveOutput();
  void Stop();
  void AnswerRequests();
  View MakeView() const;
  void Tell();
  void TellManager(const Health& health_);

  int CurrentMessage() const { return status ? status->GetAttributeInteger("now-playing") : 0; }

  const Settings& settings;
  const int run_lock;
  const int old_daemon;
  const int signals;
  std::vector<std::string> check;
  Log log;
  Notifier notifier;
  Daemon daemon;
  Watchdog watchdog;
  Problems problems;
  Spool spool;
  Copies copies;
  Requests requests;
  std::unique_ptr<XMLElement> status;  // The last one; null: none since the start.
  std::string told;                    // The last text sent to the service manager.
  std::string last_line;               // Of the daemon.
  long long lost = 0;                  // Files that were not played before a restart.
  bool is_ready = false;
  bool is_hung = false;
  double begin = Now();
  double next_look = 0;
  double next_check = 0;
  double next_log = 0;
  double start_at = 0;     // When the daemon is to be started.
  double drain_limit = 0;  // The player may empty the output directory until then.
  int stops = 0;           // Requests to stop so far.
  double begin_limit = 0;  // A status may show until then what was spoken at the first request.
  double stop_limit = 0;   // The message may go on until then.
  int last_message = 0;    // The message that was being spoken at the first request.
  double interrupted = 0;  // When the daemon was asked to stop; 0: not yet.
};

std::vector<std::string> AllButFirst(const std::vector<std::string>& words_) {
  return {words_.begin() + 1, words_.end()};
}

Station::Station(const Settings& settings_)
    : settings(settings_),
      run_lock(LockRun(settings.run)),
      old_daemon(FindOldDaemon(settings.run)),
      signals(BlockSignals()),
      check(CheckCommand(AllButFirst(settings.daemon), settings.run)),
      log(WriteLine, settings.is_raw, isatty(STDERR_FILENO) == 0),
      watchdog(settings.translator_limit),
      problems(settings.run, settings.options, !settings.has_no_player),
      spool(settings.run, settings.options.output_directory_path, settings.age),
      copies(settings.run, settings.keep, settings.options, check,
             {[this](const auto& id_, const auto& sentence_, const auto& remedy_) {
                log.Say(Severity::kError, sentence_ + ". " + remedy_ + ".", Now());
                problems.Set(id_, sentence_, remedy_);
              },
              [this](const auto& id_) { problems.Clear(id_); }},
             [this](const XMLElement& configuration_) {
               if (daemon.Pid() != 0) {
                 spool.Prepare(configuration_);
               }
             }),
      requests(settings.run, [this] {
        std::vector<std::string> greeting = {settings.options.config_file_path};
        greeting.insert(greeting.end(), check.begin(), check.end());
        return greeting;
      }()) {
  drain_limit = begin + settings.drain;
}

void Station::Run() {
  while (stops == 0 || daemon.Pid() != 0) {
    Wait();
    TakeSignals();
    TakeLog();
    spool.Read();
    if (requests.Accept()) {
      copies.CheckNow();
      next_look = 0;
    }
    if (Now() >= next_look) {
      Look();
      next_look = Now() + (spool.IsIdle() && daemon.Pid() != 0 && stops == 0 && !copies.IsBusy()
                               ? kIdlePeriod
                               : kBusyPeriod);
    }
  }
  requests.Reply(false, "the station ends\n");
  Tell();
}

// The daemon writes many lines one by one. The station does not wait for the next line until
// kLogPause after the last read, so that not every line wakes it.
void Station::Wait() {
  const double now = Now();
  const bool takes_log = now >= next_log;
  const double until = takes_log ? next_look : std::min(next_look, next_log);
  pollfd descriptors[] = {{signals, POLLIN, 0},
                          {spool.Descriptor(), POLLIN, 0},
                          {requests.Descriptor(), POLLIN, 0},
                          {takes_log ? daemon.Log() : -1, POLLIN, 0}};
  const double milliseconds = std::clamp((until - now) * 1000 + 1, 0.0, 1000.0);
  poll(descriptors, std::size(descriptors), static_cast<int>(milliseconds));
}

void Station::TakeSignals() {
  signalfd_siginfo signal = {};
  while (read(signals, &signal, sizeof(signal)) == sizeof(signal)) {
    next_look = 0;
    if (signal.ssi_signo == SIGHUP) {
      notifier.Send(Format("RELOADING=1\nMONOTONIC_USEC=%.0f", Now() * 1e6));
      told.clear();
      copies.CheckNow();
    } else if (signal.ssi_signo != SIGCHLD) {
      ++stops;
      Stop();
    }
  }
}

void Station::TakeLog() {
  const double now = Now();
  std::string line;
  bool has_line = false;
  while (daemon.ReadLine(line)) {
    has_line = true;
    const LogEvent event = log.Take(line, now);
    last_line = line;
    if (event.kind == LogEvent::kEngineStarted || event.kind == LogEvent::kEngineDone) {
      watchdog.OnTranslator(event.kind == LogEvent::kEngineStarted, now);
    }
    copies.OnLog(event);
    spool.OnLog(event);
    problems.OnLog(event);
  }
  if (has_line) {
    next_log = now + kLogPause;
  }
}

void Station::Look() {
  if (daemon.HasEnded()) {
    OnDaemonEnd();
  }
  copies.Tick();
  if (daemon.Pid() != 0) {
    LookAtStatus();
    WatchDaemon();
  } else if (stops == 0) {
    StartWhenDue();
  }
  if (stops != 0) {
    Stop();
  }
  AnswerRequests();
  const double now = Now();
  log.Tick(now);
  if (now >= next_check) {
    next_check = now + kIdlePeriod;
    problems.Check(MakeView());
    if (problems.NeedsRestart()) {
      daemon.Interrupt();
    }
    if (notifier.HasWatchdog() && !is_hung) {
      notifier.Send("WATCHDOG=1");
    }
  }
  Tell();
}

// The spool must get the files and the log before the status that results from them.
void Station::LookAtStatus() {
  spool.Read();
  TakeLog();
  try {
    std::unique_ptr<XMLElement> next = TryReadStatus(settings.options.status_file_path);
    if (next) {
      watchdog.OnStatus(next->GetAttributeInteger("timestamp"), Now());
      status = std::move(next);
      problems.Clear("daemon-ends");
      spool.OnStatus(*status);
    }
  } catch (const std::string&) {  // There is none yet.
  }
}

void Station::WatchDaemon() {
  const double now = Now();
  switch (watchdog.Look(daemon.Activity(), problems.IsLocked(), now)) {
    case Watchdog::kWell:
      is_hung = false;
      break;
    case Watchdog::kTranslatorHangs:
      log.Say(Severity::kError,
              Format("The translator has run for %d seconds; it is killed, and its words are lost",
                     settings.translator_limit),
              now);
      daemon.KillNewestCommand();
      break;
    case Watchdog::kHung:
      if (!is_hung) {
        log.Say(Severity::kError, "The daemon hangs; it is killed and started again", now);
        is_hung = true;
        Tell();
      }
      daemon.Kill();
      break;
  }
}

void Station::OnDaemonEnd() {
  const double now = Now();
  LookAtStatus();  // The last one.
  if (stops == 0) {
    log.Say(Severity::kError, "The daemon has ended with " + daemon.End() + "; it is started again",
            now);
    if (!status) {
      problems.Set("daemon-ends", "The daemon ends after its start: " + last_line,
                   "Fix the cause; the station starts it again");
    }
  }
  spool.OnDaemonEnd();
  status.reset();
  start_at = now + daemon.Pause();
  // Counts from the last time at which the daemon was seen to work, so that the next start is not
  // delayed too long.
  drain_limit = watchdog.Alive() + settings.drain;
}

void Station::StartWhenDue() {
  const double now = Now();
  if (copies.Configuration() == nullptr || now < start_at ||
      (now < begin + kOldDaemonLimit && IsGroupAlive(old_daemon)) ||
      (now < drain_limit && IsPlayerBusy())) {
    return;
  }
  try {
    Start();
  } catch (const std::string& why) {
    log.Say(Severity::kError, why, now);
    start_at = now + kIdlePeriod;
  }
}

void Station::Start() {
  // Before the removal: removed files would otherwise count as heard.
  spool.Prepare(*copies.Configuration());
  RemoveOutput();
  unlink(settings.options.status_file_path.c_str());
  std::vector<std::string> command = settings.daemon;
  const std::vector<std::string> arguments = copies.Arguments();
  command.insert(command.end(), arguments.begin(), arguments.end());
  daemon.Start(command);
  spool.Read();  // Before the daemon empties its directories.
  watchdog.OnStart(Now());
  next_check = 0;
  is_hung = false;
}

// True while any player runs and files are left to play, which a start would remove.
bool Station::IsPlayerBusy() const {
  bool has_output = false;
  ForEachOutput(settings.options.output_directory_path,
                [&](const std::string&) { has_output = true; });
  if (!has_output || settings.has_no_player) {
    return false;
  }
  const std::map<std::string, PlayerState> players = ReadPlayerStates(settings.run);
  return std::any_of(players.begin(), players.end(),
                     [](const auto& player_) { return IsAlive(player_.second.pid); });
}

// The daemon's numbers begin at 0 again: the player would mix files of an earlier run with new
// ones.
void Station::RemoveOutput() {
  ForEachOutput(settings.options.output_directory_path,
                [&](const std::string& path_) { lost += unlink(path_.c_str()) == 0 ? 1 : 0; });
}

// After the first request, the message that is being spoken may end. The second request stops the
// daemon at once, and a third kills it. While the output directory has room, the daemon speaks all
// waiting messages before it ends, so it is killed; the copies of the messages stay.
void Station::Stop() {
  const double now = Now();
  if (stop_limit == 0) {
    stop_limit = now + kMessageLimit;
    begin_limit = spool.IsIdle() ? now : now + kBeginLimit;
    notifier.Send("STOPPING=1");
  }
  if (watchdog.Translating(now) > 0) {
    begin_limit = now + kBeginLimit;
  }
  if (last_message == 0 && now < begin_limit) {
    last_message = CurrentMessage();
  }
  const bool is_said = last_message == 0 ? now >= begin_limit : CurrentMessage() != last_message;
  if (interrupted == 0 && (is_said || stops > 1 || now > stop_limit)) {
    daemon.Interrupt();
    interrupted = now;
  }
  const bool goes_on = CurrentMessage() != 0 && watchdog.Still(now) < kGoesOn;
  if (interrupted != 0 &&
      (stops > 2 || now > interrupted + (goes_on ? kBusyStopLimit : kStopLimit))) {
    daemon.Kill();
  }
}

void Station::AnswerRequests() {
  if (requests.IsWaiting() && !copies.IsBusy()) {
    requests.Reply(copies.IsFine(), copies.Report());
  }
}

View Station::MakeView() const {
  const double now = Now();
  View view;
  view.configuration = copies.Configuration();
  view.status = status.get();
  view.daemon = daemon.Pid();
  view.still = daemon.Pid() != 0 ? watchdog.Still(now) : 0;
  view.engine = watchdog.Translating(now);
  return view;
}

// Writes the health file and notifies the service manager if something has changed.
void Station::Tell() {
  Health now;
  now.station = getpid();
  now.daemon = daemon.Pid();
  now.is_hung = is_hung;
  spool.AddTo(now);
  problems.AddTo(now);
  now.counters["lost"] += lost;
  now.counters["restarts"] += std::max(daemon.Starts() - 1, 0);
  TellManager(now);
  try {
    WriteHealth(settings.run + "/health", now);
  } catch (const std::string& why) {
    log.Say(Severity::kError, why, Now());
  }
}

void Station::TellManager(const Health& health_) {
  is_ready = is_ready || status || Now() > begin + kReadyLimit;
  const std::string state = stops != 0                          ? "stopping"
                            : !health_.problems.empty()         ? health_.problems.front().sentence
                            : copies.Configuration() == nullptr ? "waiting for a configuration"
                            : health_.saying.empty()            ? "idle"
                                                                : "saying " + health_.saying;
  const std::string text =
      (is_ready && stops == 0 && !copies.IsBusy() ? "READY=1\n" : "") + ("STATUS=" + state);
  if (text != told) {
    told = text;
    notifier.Send(text);
  }
}

// Adds to the daemon's options what the station needs.
void CompleteDaemon(Settings& settings_) {
  std::vector<char*> arguments;
  for (std::string& word : settings_.daemon) {
    arguments.push_back(&word[0]);
  }
  arguments.push_back(nullptr);
  int exit_status = kWrongUse;
  const std::optional<Options> options =
      ParseOptions(static_cast<int>(settings_.daemon.size()), arguments.data(), exit_status);
  if (!options) {
    exit(kWrongUse);
  }
  settings_.options = *options;
  const auto add = [&](const char* option_, std::string& value_, const std::string& default_) {
    if (value_.empty()) {
      value_ = settings_.run + default_;
      settings_.daemon.insert(settings_.daemon.end(), {option_, value_});
    }
  };
  add("-o", settings_.options.output_directory_path, "/out");
  add("-s", settings_.options.status_file_path, "/status.xml");
  if (!IsDebugEnabled(kDebugNormal)) {
    const unsigned int mask =
        IsDebugEnabled(kDebugTrace) ? kDebugTrace | kDebugNormal : kDebugNormal;
    settings_.daemon.insert(settings_.daemon.end(), {"-d", Format("%u", mask)});
  }
  SetDebugMask(0);
  mkdir(settings_.options.output_directory_path.c_str(), 0777);
}

Settings ParseSettings(int argc_, char** argv_) {
  Settings settings;
  Program program = {"vocastra-station",
                     kWrongUse,
                     "Usage: vocastra-station [OPTION...] -- vocastra OPTION...\n"
                     "Runs the vocastra daemon and keeps it running.\n\n",
                     {},
                     "Exit status: 0 stopped by a signal; 1 failed; 2 wrong use.\n"};
  const auto seconds = [&](int& value_, int minimum_) {
    return [&program, &value_, minimum_](const char* text_) {
      value_ = ParseSeconds(text_, minimum_);
      if (value_ < 0) {
        FailUsage(program, Format("\"%s\": not a number of seconds", text_));
      }
    };
  };
  program.options = {
      {'r', "run", "DIR", "Run directory (default " + settings.run + ")", Keep(settings.run)},
      {'k', "keep", "DIR", "Keep the last usable configuration and glossary there",
       Keep(settings.keep)},
      {'a', "age", "SECONDS",
       Format("Do not say older messages after a restart (default %d)", settings.age),
       seconds(settings.age, 0)},
      {'d', "drain", "SECONDS",
       Format("Longest wait for the player before a start (default %d)", settings.drain),
       seconds(settings.drain, 0)},
      {'t', "translator-limit", "SECONDS",
       Format("Longest run of the translator (default %d)", settings.translator_limit),
       seconds(settings.translator_limit, 1)},
      {'n', "no-player", "", "Do not report that there is no player", Set(settings.has_no_player)},
      {'R', "raw", "", "Pass on the whole log of the daemon", Set(settings.is_raw)}};
  settings.daemon = ParseCommandLine(program, argc_, argv_);
  if (settings.daemon.empty()) {
    FailUsage(program, "name the daemon and its options after \"--\"");
  }
  CompleteDaemon(settings);
  if (settings.options.config_file_path.empty()) {
    FailUsage(program, "the daemon has no option -c");
  }
  return settings;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Settings settings = ParseSettings(argc, argv);
    setpriority(PRIO_PROCESS, 0, kNice);  // Fails without the right to do so.
    Station(settings).Run();
    return EXIT_SUCCESS;
  } catch (const std::string& why) {
    fprintf(stderr, "vocastra-station: %s\n", why.c_str());
  } catch (const std::exception& e) {
    fprintf(stderr, "vocastra-station: %s\n", e.what());
  }
  return EXIT_FAILURE;
}

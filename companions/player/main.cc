// The player: takes the numbered audio files from the daemon's output directory and plays them.

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <exception>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "commandline.h"
#include "debug.h"
#include "format.h"
#include "player.h"

namespace {

struct Options {
  PlayerOptions player;
  bool is_null = false;
  std::string wav;
  std::string device = "default";
  std::string config;
  std::string status;
  std::string run;
  std::set<std::string> only;
  std::set<std::string> except;
  std::string directory;
};

std::set<std::string> Ids(const char* list_) {
  std::set<std::string> ids;
  std::istringstream list(list_);
  for (std::string id; getline(list, id, ',');) {
    ids.insert(id);
  }
  return ids;
}

int ParseNumber(const Program& program_, const char* option_, const char* text_, int least_,
                int most_) {
  try {
    const int number = ParseInteger(text_);
    if (number >= least_ && number <= most_) {
      return number;
    }
  } catch (const std::string&) {
  }
  FailUsage(program_,
            Format("%s must be a number from %d to %d, not \"%s\"", option_, least_, most_, text_));
}

std::vector<ProgramOption> MakeTable(Options& options_, const Program& program_) {
  PlayerOptions& player = options_.player;
  return {
      {0, "device", "NAME", "Play on this ALSA device (default: default)", Keep(options_.device)},
      {0, "wav", "FILE", "Append all sound to this WAV file instead", Keep(options_.wav)},
      {0, "null", "", "Play nothing, but take as long; with --wav: write too",
       Set(options_.is_null)},
      {0, "rate", "HZ", "Rate of raw files and of the sound (default 22050)",
       [&](const char* text_) {
         player.rate = ParseNumber(program_, "--rate", text_, 4000, 192000);
       }},
      {0, "volume", "PERCENT", "0 to 100 (default 100)",
       [&](const char* text_) {
         player.volume = ParseNumber(program_, "--volume", text_, 0, 100);
       }},
      {0, "only", "ID,...", "Play files of these display ids only",
       [&](const char* text_) { options_.only = Ids(text_); }},
      {0, "except", "ID,...", "Leave files of these display ids alone",
       [&](const char* text_) { options_.except = Ids(text_); }},
      {0, "config", "FILE", "The daemon's configuration, for priorities", Keep(options_.config)},
      {0, "status", "FILE", "The daemon's status file", Keep(options_.status)},
      {0, "after-piece", "", "Let a file end before a more urgent one", Set(player.after_piece)},
      {0, "state", "FILE", "Write to this file what plays and what waits", Keep(player.state_path)},
      {0, "run", "DIR", "Use DIR/out, DIR/status.xml and DIR/player", Keep(options_.run)},
      {0, "begin", "COMMAND", "Run before sound begins", Keep(player.begin)},
      {0, "end", "COMMAND", "Run when sound has ended", Keep(player.end)},
      {0, "until-empty", "", "End as soon as nothing waits", Set(player.until_empty)},
      {0, "verbose", "", "Print \"playing NAME\" at the start of each file",
       Set(player.is_verbose)},
  };
}

Options ParseOptions(int argc_, char** argv_) {
  Options options;
  Program program = {"player",
                     EXIT_FAILURE,
                     "Usage: player [OPTION...] DIRECTORY\n"
                     "       player [OPTION...] --run DIR\n"
                     "Plays the audio files that the vocastra daemon delivers into DIRECTORY.\n\n",
                     {},
                     "Prints a line for each finished message. See vocastra-player(1).\n"};
  program.options = MakeTable(options, program);
  const std::vector<std::string> operands = ParseCommandLine(program, argc_, argv_);
  if (operands.size() + (options.run.empty() ? 0 : 1) != 1) {
    FailUsage(program, "name one directory; see --help");
  }
  const auto in_run = [&](std::string& path_, const char* name_) {
    path_ = path_.empty() && !options.run.empty() ? options.run + "/" + name_ : path_;
  };
  options.directory = operands.empty() ? "" : operands.front();
  in_run(options.directory, "out");
  in_run(options.status, "status.xml");
  in_run(options.player.state_path, "player");
  return options;
}

std::unique_ptr<Sink> MakeSink(Options& options_) {
  PlayerOptions& player = options_.player;
  if (!options_.wav.empty()) {
    player.device = options_.wav;
    return OpenWavSink(options_.wav, player.rate, options_.is_null);
  }
  player.device = options_.is_null ? "null" : options_.device;
  if (options_.is_null) {
    return std::make_unique<NullSink>(player.rate);
  }
  return MakeAlsaSink(options_.device, player.rate);
}

// A descriptor that becomes readable when a signal asks the player to end.
int EndSignals() {
  signal(SIGPIPE, SIG_IGN);  // The player goes on when nobody reads standard output.
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
    sigaddset(&signals, number);
  }
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  const int fd = signalfd(-1, &signals, SFD_CLOEXEC);
  if (fd < 0) {
    throw Format("cannot wait for signals: %s", strerror(errno));
  }
  return fd;
}

void Run(Options options_) {
  Queue queue(options_.directory, [&](const std::string& id_) {
    return (options_.only.empty() || options_.only.count(id_) > 0) &&
           options_.except.count(id_) == 0;
  });
  Urgency urgency(options_.config, options_.status);
  const std::unique_ptr<Sink> sink = MakeSink(options_);
  pollfd events[] = {{EndSignals(), POLLIN, 0}, {queue.Descriptor(), POLLIN, 0}};
  Player player(options_.player, queue, urgency, *sink);
  for (;;) {
    const int wait = player.Step();
    if (player.IsDone() || (poll(events, 2, wait) > 0 && events[0].revents != 0)) {
      return;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  SetDebugMask(0);  // The player reports failures itself.
  try {
    Run(ParseOptions(argc, argv));
    return EXIT_SUCCESS;
  } catch (const std::string& why) {
    fprintf(stderr, "player: %s\n", why.c_str());
  } catch (const std::exception& why) {
    fprintf(stderr, "player: %s\n", why.what());
  }
  return EXIT_FAILURE;
}

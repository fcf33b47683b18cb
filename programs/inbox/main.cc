// vocastra-inbox: a service for producers that cannot rename, such as scp, shares and scanners. It
// hands over their files when these are complete.

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "charencoding.h"
#include "clock.h"
#include "commandline.h"
#include "debug.h"
#include "format.h"
#include "inbox.h"

namespace {

constexpr int kWrongUse = 2;
constexpr int kPause = 1000;  // Milliseconds between two looks.

volatile sig_atomic_t is_ended = 0;

void End(int /*signal_*/) { is_ended = 1; }

InboxSettings ParseOptions(int argc_, char** argv_) {
  InboxSettings settings;
  settings.config_path = VOCASTRA_CONFIG_FILE;
  std::string run_directory;
  Program program = {
      "vocastra-inbox",
      kWrongUse,
      "Usage: vocastra-inbox [options] INBOX DIRECTORY-ID\n"
      "Hands files in the directory INBOX over to the vocastra daemon when they are\n"
      "complete, for producers that cannot rename. Runs until it gets a signal.\n\n",
      {},
      "Exit status: 0 after SIGTERM, SIGINT or SIGHUP; 1 no memory; 2 wrong use.\n"};
  program.options = {
      {'c', "config", "FILE", "The daemon's configuration (default " VOCASTRA_CONFIG_FILE ")",
       Keep(settings.config_path)},
      {0, "run", "DIR", "Hand over only while status.xml in DIR shows the directory",
       Keep(run_directory)},
      {0, "settle", "SECONDS",
       Format("Time without a change until a file is complete (default %d)",
              settings.settle_seconds),
       [&](const char* text_) {
         settings.settle_seconds = ParseSeconds(text_, 0);
         if (settings.settle_seconds < 0) {
           FailUsage(program, Format("--settle \"%s\": not a number of seconds", text_));
         }
       }}};
  const std::vector<std::string> operands = ParseCommandLine(program, argc_, argv_);
  if (operands.size() != 2) {
    FailUsage(program, "name the inbox and the id of a directory (see --help)");
  }
  settings.path = operands[0];
  settings.directory_id = operands[1];
  settings.status_path =
      run_directory.empty() ? "" : AddTrailingSlash(run_directory) + "status.xml";
  return settings;
}

// Writes a report as one line, without control characters in names.
void Report(std::string line_) {
  std::replace_if(
      line_.begin(), line_.end(), [](unsigned char c_) { return Utf8IsControl(c_) && c_ < 0x80; },
      '?');
  fprintf(stderr, "vocastra-inbox: %s\n", line_.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const InboxSettings settings = ParseOptions(argc, argv);
    SetDebugMask(0);
    struct sigaction action = {};
    action.sa_handler = End;
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
      sigaction(number, &action, nullptr);
    }
    Inbox inbox(settings, Now, Report);
    while (is_ended == 0) {
      inbox.Look();
      if (is_ended == 0) {
        Nap(kPause);
      }
    }
    return EXIT_SUCCESS;
  } catch (const std::exception& e) {
    fprintf(stderr, "vocastra-inbox: %s\n", e.what());
  }
  return EXIT_FAILURE;
}

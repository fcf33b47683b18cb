// vocastra-check: reports what the daemon would refuse, or would silently do in another way than
// the configuration says.
//
// It uses the daemon's own modules where it can, and adds line numbers, remedies and further
// checks.

#include <stdio.h>

#include <exception>
#include <set>
#include <string>
#include <vector>

#include "check.h"
#include "commandline.h"
#include "debug.h"
#include "format.h"
#include "options.h"
#include "playerstate.h"

namespace {

// The options that are only for the checker, and the daemon's, which are not in the usage text.
std::vector<ProgramOption> OptionTable(CheckOptions& options_, std::string& rate_,
                                       std::string& run_, bool& is_verbose_) {
  std::vector<ProgramOption> table;
  for (const DaemonOption& entry : DaemonOptions()) {
    const char letter = entry.letter;
    if (letter == 'c') {
      table.push_back({letter, entry.name, entry.argument, "", Keep(options_.config_path)});
    } else if (letter == 'g') {
      table.push_back(
          {letter, entry.name, "FILE", "Check this glossary too", Keep(options_.glossary_path)});
    } else if (letter != 'h') {
      table.push_back(
          {letter, entry.name, entry.argument, "",
           [&options_, letter](const char* argument_) { options_.daemon[letter] = argument_; }});
    }
  }
  table.push_back(
      {'r', "rate", "HZ", "The player's rate (default: of running players)", Keep(rate_)});
  table.push_back({0, "run", "DIR", "Where the state of players is (default " VOCASTRA_RUN_DIR ")",
                   Keep(run_)});
  table.push_back({'v', "verbose", "", "Print a line if there are no findings", Set(is_verbose_)});
  return table;
}

// The rates of the players that run.
std::set<int> RatesOfPlayers(const std::string& run_) {
  std::set<int> rates;
  for (const auto& [zone, player] : ReadPlayerStates(run_)) {
    if (player.rate > 0 && IsPlayerRunning(player)) {
      rates.insert(player.rate);
    }
  }
  return rates;
}

CheckOptions ParseOptions(int argc_, char** argv_, bool& is_verbose_) {
  CheckOptions options;
  std::string rate;
  std::string run = VOCASTRA_RUN_DIR;
  const Program program = {
      "vocastra-check", static_cast<int>(Verdict::kErrors),
      "Usage: vocastra-check CONFIG [-v] [-g GLOSSARY] [-r HZ] [--run DIR] [options of the "
      "daemon]\n"
      "Reports what the vocastra daemon would refuse, ignore or treat in an unexpected way.\n\n",
      OptionTable(options, rate, run, is_verbose_),
      "Of the daemon's options, -c CONFIG means the same as CONFIG; with any of -d -f -i -o -p -s\n"
      "-t -w the daemon's whole command line is checked. Run it as the daemon's user.\n\n"
      "Findings go to standard error: FILE:LINE: error|warning: ELEMENT: what is wrong. Remedy.\n"
      "Exit status: 0 no findings; 1 warnings; 2 errors, or wrong use.\n"};
  const std::vector<std::string> operands = ParseCommandLine(program, argc_, argv_);
  if (!operands.empty()) {
    options.config_path = operands.front();
  }
  if (operands.size() > 1 || options.config_path.empty()) {
    FailUsage(program, "name one configuration file (see --help)");
  }
  try {
    options.player_rates = rate.empty() ? RatesOfPlayers(run) : std::set<int>{ParseInteger(rate)};
  } catch (const std::string& why) {
    FailUsage(program, "--rate: " + why);
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    bool is_verbose = false;
    const CheckOptions options = ParseOptions(argc, argv, is_verbose);
    SetDebugMask(0);
    const Verdict verdict = Check(options);
    if (verdict == Verdict::kClean && is_verbose) {
      fprintf(stderr, "%s: no findings\n", options.config_path.c_str());
    }
    return static_cast<int>(verdict);
  } catch (const std::exception& e) {
    fprintf(stderr, "vocastra-check: %s\n", e.what());
    return static_cast<int>(Verdict::kErrors);
  }
}

// The checks of vocastra-check, without its command line.
#pragma once

#include <map>
#include <set>
#include <string>

#include "findings.h"

constexpr int kDefaultRate = 22050;  // Hertz; of our translators and of players.

struct CheckOptions {
  std::string config_path;
  std::string glossary_path;   // Empty: none.
  std::set<int> player_rates;  // Of all players; hertz. Empty: not known.
  // The arguments of the daemon's other given options, by letter. If there are any, the daemon's
  // whole command line is checked.
  std::map<char, std::string> daemon;

  // The argument of a daemon's option; empty if it was not given.
  std::string Argument(char letter_) const;
};

// Checks all files that the options name and prints the findings. Changes nothing.
Verdict Check(const CheckOptions& options_);

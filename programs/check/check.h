// The checks of vocastra-check, without its command line.
#pragma once

#include <map>
#include <string>

#include "findings.h"

struct CheckOptions {
  std::string config_path;
  std::string glossary_path;  // Empty: none.
  int player_rate = 22050;    // Hertz.
  // The other options of the daemon that were given, by letter, with their arguments. If there is
  // any, the daemon's whole command line is judged.
  std::map<char, std::string> daemon;

  // The argument of a daemon's option; empty if it was not given.
  std::string Argument(char letter_) const;
};

// Checks all that the options name, changes nothing, and prints the findings.
Verdict Check(const CheckOptions& options_);

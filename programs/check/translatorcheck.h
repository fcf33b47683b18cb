// What the translator itself says of the arguments that directories give it.
#pragma once

#include <map>
#include <string>

class TranslatorCheck {
 public:
  // command_: the daemon's option -t. Runs it with "--help" alone, to learn whether it knows
  // "--check": any other translator would take that for its text file. The shell is not used.
  explicit TranslatorCheck(const std::string& command_);

  // Why it refuses the arguments that conv_opts_ is for the shell; empty if it accepts them or has
  // no opinion.
  std::string WhyRefused(const std::string& conv_opts_);

 private:
  std::string Ask(const std::string& conv_opts_);

  std::string program;  // Empty: it has no opinion.
  std::map<std::string, std::string> answers;
};

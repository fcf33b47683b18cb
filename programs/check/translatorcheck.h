// Asks the translator whether it accepts the arguments of directories.
#pragma once

#include <map>
#include <string>

class TranslatorCheck {
 public:
  // command_: the daemon's option -t. Runs it with only "--help", to find out whether it has
  // "--check": another translator would treat that as its text file. Does not use the shell.
  explicit TranslatorCheck(const std::string& command_);

  // Why it refuses the words of conv_opts_, split as the shell does; empty if it accepts them or
  // does not know.
  std::string WhyRefused(const std::string& conv_opts_);

 private:
  std::string Ask(const std::string& conv_opts_);

  std::string program;  // Empty: the translator cannot be asked.
  std::map<std::string, std::string> answers;
};

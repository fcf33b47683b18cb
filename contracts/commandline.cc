#include "commandline.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "format.h"

namespace {

// "-c, --config FILE", as in the usage text.
std::string NamesOf(const ProgramOption& option_) {
  const std::string letter = option_.letter != 0 ? std::string("-") + option_.letter + ", " : "";
  const std::string names = letter + "--" + option_.name;
  return *option_.argument == '\0' ? names : names + " " + option_.argument;
}

void PrintUsage(const Program& program_, const std::vector<ProgramOption>& options_) {
  constexpr int kHelpColumn = 21;
  fputs(program_.head.c_str(), stdout);
  for (const ProgramOption& option : options_) {
    if (!option.help.empty()) {
      printf("  %-*s  %s\n", kHelpColumn, NamesOf(option).c_str(), option.help.c_str());
    }
  }
  fputs(program_.tail.c_str(), stdout);
}

std::vector<ProgramOption> AllOptions(const Program& program_) {
  std::vector<ProgramOption> options = program_.options;
  options.push_back({'h', "help", "", "Show this message", [&](const char*) {
                       PrintUsage(program_, AllOptions(program_));
                       exit(EXIT_SUCCESS);
                     }});
  options.push_back({'V', "version", "", "Show the version", [&](const char*) {
                       printf("%s " VOCASTRA_VERSION "\n", program_.name);
                       exit(EXIT_SUCCESS);
                     }});
  return options;
}

}  // namespace

std::function<void(const char*)> Set(bool& flag_) {
  return [&flag_](const char*) { flag_ = true; };
}

std::function<void(const char*)> Keep(std::string& text_) {
  return [&text_](const char* argument_) { text_ = argument_; };
}

std::vector<std::string> ParseCommandLine(const Program& program_, int argc_, char** argv_) {
  const std::vector<ProgramOption> options = AllOptions(program_);
  std::string letters;
  std::vector<option> table;
  for (const ProgramOption& entry : options) {
    const bool has_argument = *entry.argument != '\0';
    if (entry.letter != 0) {
      letters += entry.letter;
      letters += has_argument ? ":" : "";
    }
    table.push_back({entry.name, has_argument ? required_argument : no_argument, nullptr, 0});
  }
  table.push_back({nullptr, 0, nullptr, 0});
  int letter = 0;
  int index = 0;  // Of an option that was given by its long name.
  while ((letter = getopt_long(argc_, argv_, letters.c_str(), table.data(), &index)) != -1) {
    if (letter == '?') {  // getopt_long has said why.
      if (!program_.advice.empty()) {
        FailUsage(program_, program_.advice);
      }
      exit(program_.wrong_use);
    }
    const auto found = letter == 0 ? options.begin() + index
                                   : std::find_if(options.begin(), options.end(),
                                                  [letter](const ProgramOption& entry_) {
                                                    return entry_.letter == letter;
                                                  });
    found->take(optarg);
  }
  return {argv_ + optind, argv_ + argc_};
}

int ParseSeconds(const char* text_, int minimum_) {
  try {
    const int seconds = ParseInteger(text_);
    return seconds < minimum_ ? -1 : seconds;
  } catch (const std::string&) {
    return -1;
  }
}

void FailUsage(const Program& program_, const std::string& why_) {
  fprintf(stderr, "%s: %s\n", program_.name, why_.c_str());
  exit(program_.wrong_use);
}

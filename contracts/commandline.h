// The command line of a program or companion, parsed by getopt_long from a table of its options.
#pragma once

#include <functional>
#include <string>
#include <vector>

// An option, "-letter" or "--name".
struct ProgramOption {
  char letter;  // 0 if the option has a name only.
  const char* name;
  const char* argument;  // The argument's name in the usage text; empty if there is none.
  std::string help;      // For the usage text; empty: not shown there.
  std::function<void(const char* argument_)> take;  // The argument is null if there is none.
};

// A program's name, usage text and options. "-h" and "-V" are added to the options.
struct Program {
  const char* name;
  int wrong_use;                       // Exit status.
  std::string head;                    // The usage text before the options.
  std::vector<ProgramOption> options;  // In the order of the usage text.
  std::string tail;                    // The usage text after the options.
  std::string advice = {};             // Printed after a bad option; may be empty.
};

// Actions of options: set a flag, or keep the argument.
std::function<void(const char*)> Set(bool& flag_);
std::function<void(const char*)> Keep(std::string& text_);

// Parses the arguments, calls the options' actions in the order in which they are given, and
// returns the operands. "-h" and "-V" print on standard output and end the program with status 0,
// a bad option is reported on standard error and ends it with wrong_use.
std::vector<std::string> ParseCommandLine(const Program& program_, int argc_, char** argv_);

// The number of seconds in text_; -1 if it is not a whole number of at least minimum_.
int ParseSeconds(const char* text_, int minimum_);

// Ends the program with wrong_use, after "NAME: WHY" on standard error.
[[noreturn]] void FailUsage(const Program& program_, const std::string& why_);

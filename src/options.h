// The daemon's command line: one table of its options, from which the usage text and the parser
// work, and the programs that take the same options.
#pragma once

#include <optional>
#include <string>
#include <vector>

constexpr int kDefaultWords = 10;
constexpr int kDefaultFiles = 10;

struct Options {
  std::string config_file_path;
  std::string status_file_path;
  std::string output_directory_path;
  std::string translator_file_path;
  std::string glossary_file_path;
  std::string cifs_helper_script_path;
  std::string ftp_helper_app_path;
  int text_snippet_word_limit = kDefaultWords;
  int output_file_count_limit = kDefaultFiles;
};

// An option, "-letter" or "--name".
struct DaemonOption {
  char letter;
  const char* name;
  const char* argument;        // The argument's name in the usage text; empty if there is none.
  std::string help;            // One line.
  std::string Options::*text;  // Where the argument goes as it is, or null.
};

// Every option that has a meaning, in the order of the usage text.
std::vector<DaemonOption> DaemonOptions();

// Parses the arguments, which may be reordered, and sets the debug mask at "-d". An option given
// twice keeps its last value. Numbers are taken by strtol without a check: "5x" is 5, "x" is 0.
//
// Returns nothing if the program must exit with exit_status_: 0 after "-h", 1 after a bad option.
// Then it has printed the usage text, or one line that names the bad option, on standard output.
std::optional<Options> ParseOptions(int argc_, char** argv_, int& exit_status_);

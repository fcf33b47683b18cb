// Option lines: the arguments, separated by zero bytes.
//
// Parsing ends with options whose values stand in the arguments, with the usage and status 0, or
// with a bad option and status 1; without an option, with the defaults.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "fuzz.h"

namespace {

struct Exit {
  int status;
};

}  // namespace

// The program's own main, under another name, with exits that can be watched.
#define main daemon_main
#define exit(status) \
  throw Exit { status }
#include "../src/main.cc"
#undef exit
#undef main

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FILE* const silenced = freopen("/dev/null", "w", stdout);
  fuzz::Require(silenced != nullptr, "standard output can be silenced");
  std::vector<std::string> arguments = {"vocastra"};
  std::string argument;
  for (size_t i = 0; i <= size; ++i) {
    if (i == size || data[i] == 0) {
      arguments.push_back(argument);
      argument.clear();
    } else {
      argument += static_cast<char>(data[i]);
    }
  }
  std::vector<char*> argv;
  for (std::string& text : arguments) {
    argv.push_back(text.data());
  }
  argv.push_back(nullptr);
  optind = 0;  // Starts the C library's parser anew.
  // Every value is a whole argument or the end of one: of "-cfile", "--config=file" or "file".
  const auto is_end = [&arguments](const std::string& value) {
    return std::any_of(arguments.begin() + 1, arguments.end(), [&](const std::string& whole) {
      return whole.size() >= value.size() &&
             whole.compare(whole.size() - value.size(), value.size(), value) == 0;
    });
  };
  const bool has_option = std::any_of(arguments.begin() + 1, arguments.end(),
                                      [](const std::string& text) { return text[0] == '-'; });
  try {
    const Options options = ParseOptions(static_cast<int>(arguments.size()), argv.data());
    for (const std::string path :
         {options.config_file_path, options.status_file_path, options.output_directory_path,
          options.translator_file_path, options.glossary_file_path, options.cifs_helper_script_path,
          options.ftp_helper_app_path}) {
      fuzz::Require(path.empty() || (has_option && is_end(path)), "a path stands in an argument",
                    path);
    }
    fuzz::Require(has_option || (options.text_snippet_word_limit == kDefaultWords &&
                                 options.output_file_count_limit == kDefaultFiles),
                  "limits have their defaults without an option");
  } catch (const Exit& e) {
    fuzz::Require(has_option, "only an option ends the program");
    fuzz::Require(e.status == 0 || e.status == 1, "the exit status is 0 or 1");
  }
  SetDebugMask(kDebugDefault);
  return 0;
}

// Option lines: the arguments, separated by zero bytes.
//
// Parsing ends with options, with the usage and status 0, or with a bad option and status 1.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

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
  try {
    const Options options = ParseOptions(static_cast<int>(arguments.size()), argv.data());
    fuzz::Require(optind >= 1, "options were looked at", options.config_file_path);
  } catch (const Exit& e) {
    fuzz::Require(e.status == 0 || e.status == 1, "the exit status is 0 or 1");
  }
  SetDebugMask(kDebugDefault);
  return 0;
}

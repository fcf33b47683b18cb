// Option lines: the arguments, separated by zero bytes.
//
// Parsing ends with options whose values are in the arguments, with the usage and status 0, or with
// a bad option and status 1; without an option, with the defaults.
#include <stdio.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "debug.h"
#include "fuzz.h"
#include "options.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  static FILE* const silenced = freopen("/dev/null", "w", stdout);
  fuzz::Require(silenced != nullptr, "standard output can be silenced");
  std::vector<std::string> arguments = {"vocastra"};
  std::string argument;
  for (size_t i = 0; i <= size_; ++i) {
    if (i == size_ || data_[i] == 0) {
      arguments.push_back(argument);
      argument.clear();
    } else {
      argument += static_cast<char>(data_[i]);
    }
  }
  std::vector<char*> argv;
  for (std::string& text : arguments) {
    argv.push_back(text.data());
  }
  argv.push_back(nullptr);
  // Every value is a whole argument or the end of one: of "-cfile", "--config=file" or "file".
  const auto is_end = [&arguments](const std::string& value_) {
    return std::any_of(arguments.begin() + 1, arguments.end(), [value_](const std::string& whole_) {
      return whole_.size() >= value_.size() &&
             whole_.compare(whole_.size() - value_.size(), value_.size(), value_) == 0;
    });
  };
  const bool has_option = std::any_of(arguments.begin() + 1, arguments.end(),
                                      [](const std::string& text_) { return text_[0] == '-'; });
  int exit_status = -1;
  const std::optional<Options> options =
      ParseOptions(static_cast<int>(arguments.size()), argv.data(), exit_status);
  if (!options) {
    fuzz::Require(has_option, "only an option ends the program");
    fuzz::Require(exit_status == 0 || exit_status == 1, "the exit status is 0 or 1");
    SetDebugMask(kDebugDefault);
    return 0;
  }
  for (const DaemonOption& entry : DaemonOptions()) {
    const std::string text = entry.text == nullptr ? "" : *options.*entry.text;
    fuzz::Require(text.empty() || (has_option && is_end(text)), "a path is in an argument", text);
  }
  fuzz::Require(has_option || (options->text_snippet_word_limit == kDefaultWords &&
                               options->output_file_count_limit == kDefaultFiles),
                "limits have their defaults without an option");
  SetDebugMask(kDebugDefault);
  return 0;
}

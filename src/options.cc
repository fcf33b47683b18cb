#include "options.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "debug.h"
#include "format.h"

namespace {

// "-b" and "-m" take an argument, but have no meaning and are reported as bad options.
constexpr char kReservedOptions[] = "b:m:";

void PrintUsage(const std::vector<DaemonOption>& table_) {
  puts("Usage: vocastra [options]");
  puts("Command line options:");
  for (const DaemonOption& entry : table_) {
    const std::string name = std::string(entry.name) + " " + entry.argument;
    printf("  -%c, --%-25s%s\n", entry.letter, name.c_str(), entry.help.c_str());
  }
}

// The table as getopt_long takes it.
class GetoptTable {
 public:
  explicit GetoptTable(const std::vector<DaemonOption>& table_) : short_options(kReservedOptions) {
    // The first entry keeps index 0, which means "no long option yet", from being a real option.
    // NOMUTATE(text): "---" and the like are bad options of the letter 0 either way.
    long_options.push_back({"-", no_argument, nullptr, 0});
    for (const DaemonOption& entry : table_) {
      const bool has_argument = *entry.argument != '\0';
      short_options += entry.letter;
      short_options += has_argument ? ":" : "";
      long_options.push_back(
          {entry.name, has_argument ? required_argument : no_argument, nullptr, entry.letter});
    }
    long_options.push_back({nullptr, 0, nullptr, 0});
  }

  // The long option that argument_ (an element of argv) means, if getopt_long matched it to the
  // entry with that value; else null. argument_ may be abbreviated and may hold a value. Needed
  // because getopt_long does not set its index if an option lacks its value or must not have one.
  // The first entry is never named, see above.
  const char* FindMatchedName(const char* argument_, int value_) const {
    if (strncmp(argument_, "--", 2) != 0) {
      return nullptr;
    }
    const char* name = argument_ + 2;
    const size_t length = strcspn(name, "=");  // NOMUTATE(text): no option has an X in its name.
    for (const option* entry = &long_options[1]; entry->name != nullptr; ++entry) {
      if (entry->val == value_ && strncmp(entry->name, name, length) == 0) {
        return entry->name;
      }
    }
    return nullptr;
  }

  std::string short_options;
  std::vector<option> long_options;
};

// The message is one line. If the bad option is a short one, long_index_ is still that of an
// earlier long option, and the line names that option; scripts match this output.
void PrintBadOption(char** argv_, const GetoptTable& table_, int result_, int long_index_) {
  printf("%s: Unrecognized option or bad value for option: ", argv_[0]);
  const char* name = result_ == '?' ? table_.FindMatchedName(argv_[optind - 1], optopt) : nullptr;
  if (name == nullptr && long_index_ != 0) {
    name = table_.long_options[static_cast<size_t>(long_index_)].name;
  }
  if (name != nullptr) {
    printf("--%s\n", name);
  } else {
    printf("-%c\n", result_ == '?' ? optopt : result_);
  }
}

int ParseNumber(const char* text_) { return static_cast<int>(strtol(text_, nullptr, 0)); }

// False if that is no letter of an option with an argument.
bool TakeArgument(const std::vector<DaemonOption>& table_, int letter_, Options& options_) {
  switch (letter_) {
    case 'd':
      SetDebugMask(static_cast<unsigned int>(strtol(optarg, nullptr, 0)));
      return true;
    case 'w':
      options_.text_snippet_word_limit = ParseNumber(optarg);
      return true;
    case 'f':
      options_.output_file_count_limit = ParseNumber(optarg);
      return true;
    default:
      break;
  }
  for (const DaemonOption& entry : table_) {
    if (entry.letter == letter_ && entry.text != nullptr) {
      options_.*entry.text = optarg;
      return true;
    }
  }
  return false;
}

}  // namespace

std::vector<DaemonOption> DaemonOptions() {
  return {
      {'h', "help", "", "Show this message", nullptr},
      {'d', "debug", "<mask>",
       Format("Debug mask for stderr; available bits are 0x%08X, default is 0x%08X (see debug.h)",
              kDebugAvailable, kDebugDefault),
       nullptr},
      {'c', "config", "<file-path>", "Path to XML configuration file (required)",
       &Options::config_file_path},
      {'s', "status", "<file-path>", "Path to XML status file (optional)",
       &Options::status_file_path},
      {'o', "output", "<dir-path>", "Path to output directory (required)",
       &Options::output_directory_path},
      {'t', "translator", "<path>", "Path to text-to-speech translator (required)",
       &Options::translator_file_path},
      {'g', "glossary", "<file-path>", "Path to glossary file (optional)",
       &Options::glossary_file_path},
      {'i', "cifs-helper", "<path>", "Path to CIFS helper script",
       &Options::cifs_helper_script_path},
      {'p', "ftp-helper", "<path>", "Path to FTP helper app", &Options::ftp_helper_app_path},
      {'w', "words", "<count>",
       Format("Maximum number of words to process at once (optional; default = %d)", kDefaultWords),
       nullptr},
      {'f', "files", "<count>",
       Format("Maximum number of files in the output directory (optional; default = %d)",
              kDefaultFiles),
       nullptr},
  };
}

std::optional<Options> ParseOptions(int argc_, char** argv_, int& exit_status_) {
  const std::vector<DaemonOption> table = DaemonOptions();
  const GetoptTable getopt_table(table);
  Options options;
  opterr = 0;
  // NOMUTATE(constant): it is 1 at first, and the daemon parses once.
  optind = 0;  // The C library's parser starts from the beginning.
  int long_index = 0;
  int result = 0;  // NOMUTATE(constant): the loop sets it.
  while ((result = getopt_long(argc_, argv_, getopt_table.short_options.c_str(),
                               getopt_table.long_options.data(), &long_index)) != -1) {
    if (result == 'h') {
      PrintUsage(table);
      exit_status_ = EXIT_SUCCESS;
      return std::nullopt;
    }
    if (!TakeArgument(table, result, options)) {
      PrintBadOption(argv_, getopt_table, result, long_index);
      exit_status_ = EXIT_FAILURE;
      return std::nullopt;
    }
  }
  return options;
}

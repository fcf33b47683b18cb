// The command line, the signal handler and the run loop.

#include <fcntl.h>
#include <getopt.h>
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <string>

#include "debug.h"
#include "format.h"
#include "vocastra.h"

namespace {

constexpr int kDefaultWords = 10;
constexpr int kDefaultFiles = 10;
constexpr int kPassesBetweenDates = 100;

constexpr int kKeptHeap = 4 << 20;                                     // Bytes.
constexpr int kLargeBlock = sizeof(void*) >= 8 ? 4 << 20 : 512 << 10;  // Bytes.

volatile sig_atomic_t exit_request = 0;

void handle_int(int /*sig*/) { exit_request = 1; }

// Breaks off a write to a log whose reader is gone, which Debug then ignores, and unlike an ignored
// signal is not inherited by translator and helpers.
void handle_pipe(int /*sig*/) {}

// "-b" and "-m" take an argument, but have no meaning and are reported as bad options.
constexpr char kShortOptions[] = "hd:c:s:o:t:g:b:m:i:p:w:f:";

// The first entry keeps index 0, which stands for "no long option yet", from being a real option.
constexpr option kLongOptions[] = {
    {"-", no_argument, nullptr, 0},
    {"help", no_argument, nullptr, 'h'},
    {"debug", required_argument, nullptr, 'd'},
    {"config", required_argument, nullptr, 'c'},
    {"status", required_argument, nullptr, 's'},
    {"output", required_argument, nullptr, 'o'},
    {"translator", required_argument, nullptr, 't'},
    {"glossary", required_argument, nullptr, 'g'},
    {"cifs-helper", required_argument, nullptr, 'i'},
    {"ftp-helper", required_argument, nullptr, 'p'},
    {"words", required_argument, nullptr, 'w'},
    {"files", required_argument, nullptr, 'f'},
    {nullptr, 0, nullptr, 0},
};

// The paths are those of the command line itself, so that nothing here needs memory.
struct Options {
  const char* config_file_path = "";
  const char* status_file_path = "";
  const char* output_directory_path = "";
  const char* translator_file_path = "";
  const char* glossary_file_path = "";
  const char* cifs_helper_script_path = "";
  const char* ftp_helper_app_path = "";
  int text_snippet_word_limit = kDefaultWords;
  int output_file_count_limit = kDefaultFiles;
};

void PrintUsage() {
  puts("Usage: vocastra [options]");
  puts("Command line options:");
  puts("  -h, --help                     Show this message");
  printf(
      "  -d, --debug <mask>             Debug mask for stderr; available bits are 0x%08X, default "
      "is 0x%08X (see debug.h)\n",
      kDebugAvailable, kDebugDefault);
  puts("  -c, --config <file-path>       Path to XML configuration file (required)");
  puts("  -s, --status <file-path>       Path to XML status file (optional)");
  puts("  -o, --output <dir-path>        Path to output directory (required)");
  puts("  -t, --translator <path>        Path to text-to-speech translator (required)");
  puts("  -g, --glossary <file-path>     Path to glossary file (optional)");
  puts("  -i, --cifs-helper <path>       Path to CIFS helper script");
  puts("  -p, --ftp-helper <path>        Path to FTP helper app");
  printf(
      "  -w, --words <count>            Maximum number of words to process at once (optional; "
      "default = %d)\n",
      kDefaultWords);
  printf(
      "  -f, --files <count>            Maximum number of files in the output directory (optional; "
      "default = %d)\n",
      kDefaultFiles);
}

// The long option that argument (an element of argv) stands for, in full or abbreviated and
// perhaps with a value, if getopt_long matched it to the entry with that value; else null.
// getopt_long leaves its index variable alone when such an option lacks its value or was given
// one that it does not take. The first entry is never named, see above.
const option* FindMatchedOption(const char* argument, int value) {
  if (strncmp(argument, "--", 2) != 0) {
    return nullptr;
  }
  const char* name = argument + 2;
  const size_t length = strcspn(name, "=");
  for (const option* entry = kLongOptions + 1; entry->name != nullptr; ++entry) {
    if (entry->val == value && strncmp(entry->name, name, length) == 0) {
      return entry;
    }
  }
  return nullptr;
}

// The message is one line. long_index is still that of an earlier long option if the bad option is
// a short one, and then the earlier one is named; scripts that match this output know it so.
void PrintBadOption(char** argv, int result, int long_index) {
  printf("%s: Unrecognized option or bad value for option: ", argv[0]);
  const option* matched = result == '?' ? FindMatchedOption(argv[optind - 1], optopt) : nullptr;
  if (matched == nullptr && long_index != 0) {
    matched = &kLongOptions[long_index];
  }
  if (matched != nullptr) {
    printf("--%s\n", matched->name);
  } else {
    printf("-%c\n", result == '?' ? optopt : result);
  }
}

int ParseCount(const char* text) { return static_cast<int>(strtol(text, nullptr, 0)); }

// Exits on "-h" and on a bad option.
Options ParseOptions(int argc, char** argv) {
  Options options;
  opterr = 0;
  int long_index = 0;
  int result = 0;
  while ((result = getopt_long(argc, argv, kShortOptions, kLongOptions, &long_index)) != -1) {
    switch (result) {
      case 'h':
        PrintUsage();
        exit(EXIT_SUCCESS);
      case 'd':
        SetDebugMask(static_cast<unsigned int>(strtol(optarg, nullptr, 0)));
        break;
      case 'c':
        options.config_file_path = optarg;
        break;
      case 's':
        options.status_file_path = optarg;
        break;
      case 'o':
        options.output_directory_path = optarg;
        break;
      case 't':
        options.translator_file_path = optarg;
        break;
      case 'g':
        options.glossary_file_path = optarg;
        break;
      case 'i':
        options.cifs_helper_script_path = optarg;
        break;
      case 'p':
        options.ftp_helper_app_path = optarg;
        break;
      case 'w':
        options.text_snippet_word_limit = ParseCount(optarg);
        break;
      case 'f':
        options.output_file_count_limit = ParseCount(optarg);
        break;
      default:
        PrintBadOption(argv, result, long_index);
        exit(EXIT_FAILURE);
    }
  }
  return options;
}

// A standard stream that is closed would lend its number to the next file opened, and log lines
// would end up in there.
void OpenMissingStandardStreams() {
  int fd = 0;
  do {
    fd = open("/dev/null", O_RDWR);  // NOLINT(android-cloexec-open): children get these three.
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) {
    close(fd);
  }
}

// Keeps up to kKeptHeap of free memory, since each pass needs again what the last one released: to
// return it and to ask for it again took a tenth of a pass that reads a glossary. Blocks of
// kLargeBlock and more, such as the names of 1,024 files (128 on 32 bits), go back to the system at
// once. On 64 bits the C library would raise that bound to 32 MiB by itself; on 32 bits it is the C
// library's own highest.
void LimitHeap() {
  mallopt(M_TRIM_THRESHOLD, kKeptHeap);
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
}

void InstallSignalHandlers() {
  signal(SIGINT, handle_int);
  signal(SIGPIPE, handle_pipe);
  signal(SIGCHLD, SIG_DFL);  // Ignored, as some parents leave it, it hides how children ended.
}

// Null, with the reason logged, if the player cannot be built.
std::unique_ptr<Vocastra> BuildPlayer(const Options& options) {
  try {
    return std::make_unique<Vocastra>(options.config_file_path, options.status_file_path,
                                      options.output_directory_path, options.translator_file_path,
                                      options.glossary_file_path, options.cifs_helper_script_path,
                                      options.ftp_helper_app_path, options.text_snippet_word_limit,
                                      options.output_file_count_limit);
  } catch (const std::string& text) {
    Debug(kDebugNormal, "%s", text.c_str());
  } catch (const std::exception& e) {
    Debug(kDebugNormal, "%s", e.what());
  }
  return nullptr;
}

// Returns when an exit was requested. Prints the date after every 101 passes that succeeded, so
// that what else stands on standard output can be placed in time.
void RunUntilExitRequest(Vocastra& player) {
  int counter = 0;
  while (exit_request == 0) {
    try {
      player.Run();
      if (counter < kPassesBetweenDates) {
        ++counter;
      } else {
        RunShell("date");
        counter = 0;
      }
    } catch (const std::string& text) {
      Debug(kDebugNormal, "%s", text.c_str());
    } catch (const std::exception& e) {  // No memory, mostly: the next pass may find some again.
      Debug(kDebugNormal, "%s", e.what());
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  OpenMissingStandardStreams();
  const Options options = ParseOptions(argc, argv);
  LimitHeap();
  InstallSignalHandlers();
  std::unique_ptr<Vocastra> player = BuildPlayer(options);
  if (!player) {
    return EXIT_SUCCESS;  // Never built, never run: told apart from every end of a running player.
  }
  RunUntilExitRequest(*player);
  player.reset();
  return EXIT_FAILURE;  // On purpose: a daemon that has ended, even on request, is no success.
}

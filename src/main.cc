// The signal handler and the run loop.

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "debug.h"
#include "format.h"
#include "options.h"
#include "vocastra.h"

namespace {

constexpr int kPassesBetweenDates = 100;

// NOMUTATE(operator, constant): shows in time and memory only.
constexpr int kKeptHeap = 4 << 20;  // Bytes.
// NOMUTATE(operator, constant): shows in time and memory only.
constexpr int kLargeBlock = sizeof(void*) >= 8 ? 4 << 20 : 512 << 10;  // Bytes.

volatile sig_atomic_t exit_request = 0;

void handle_int(int /*sig*/) { exit_request = 1; }

// A write to a log without a reader then fails, which Debug ignores. The signal is caught, not
// ignored: translator and helpers would inherit that.
void handle_pipe(int /*sig*/) {}

// If a standard descriptor is closed, the next file opened would take its number and receive log
// lines.
void OpenMissingStandardStreams() {
  int fd = 0;
  do {
    fd = open("/dev/null", O_RDWR);  // NOLINT(android-cloexec-open): children get these three.
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) {
    close(fd);
  }
}

// Keeps up to kKeptHeap of free memory: each pass needs the same memory again, and returning it to
// the system took a tenth of the time of a pass that reads a glossary. Blocks of kLargeBlock and
// more, such as the names of 1,024 files (128 on 32 bits), go back to the system at once. On 64
// bits the C library would raise that bound to 32 MiB by itself; on 32 bits kLargeBlock is its own
// maximum.
void LimitHeap() {
  mallopt(M_TRIM_THRESHOLD, kKeptHeap);    // NOMUTATE(call): shows in time and memory only.
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);  // NOMUTATE(call): shows in time and memory only.
}

void InstallSignalHandlers() {
  signal(SIGINT, handle_int);
  signal(SIGPIPE, handle_pipe);
  signal(SIGCHLD, SIG_DFL);  // If it were ignored, exit statuses would be lost.
}

std::unique_ptr<Vocastra> BuildPlayer(const Options& options_) {
  return std::make_unique<Vocastra>(options_.config_file_path, options_.status_file_path,
                                    options_.output_directory_path, options_.translator_file_path,
                                    options_.glossary_file_path, options_.cifs_helper_script_path,
                                    options_.ftp_helper_app_path, options_.text_snippet_word_limit,
                                    options_.output_file_count_limit);
}

// Returns when an exit was requested. Prints the date after every 101 passes that succeeded, to
// date the other output.
void RunUntilExitRequest(Vocastra& player_) {
  int counter = 0;
  while (exit_request == 0) {
    try {
      player_.Run();
      if (counter < kPassesBetweenDates) {
        ++counter;
      } else {
        RunShell("date");
        counter = 0;
      }
    } catch (const std::string& text) {
      Debug(kDebugNormal, "%s", text.c_str());
    } catch (const std::exception& e) {  // Usually std::bad_alloc; the next pass may have memory.
      Debug(kDebugNormal, "%s", e.what());
    }
  }
}

// Runs the daemon and returns its exit status. Throws if the player cannot be built.
int RunDaemon(int argc_, char** argv_) {
  int exit_status = EXIT_SUCCESS;
  const std::optional<Options> options = ParseOptions(argc_, argv_, exit_status);
  if (!options) {
    return exit_status;
  }
  LimitHeap();
  InstallSignalHandlers();
  const std::unique_ptr<Vocastra> player = BuildPlayer(*options);
  RunUntilExitRequest(*player);
  return EXIT_FAILURE;  // On purpose: the daemon's end, even on request, is no success.
}

}  // namespace

int main(int argc, char** argv) {
  OpenMissingStandardStreams();
  try {
    return RunDaemon(argc, argv);
  } catch (const std::string& text) {
    Debug(kDebugNormal, "%s", text.c_str());
  } catch (const std::exception& e) {
    Debug(kDebugNormal, "%s", e.what());
  }
  return EXIT_SUCCESS;  // Means that the player never started.
}

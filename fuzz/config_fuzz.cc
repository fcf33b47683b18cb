// Configurations, two documents separated by a line "====" (see document.h), loaded one after the
// other.
//
// No command runs, no process starts and nothing outside the scratch directory is listed: those
// calls are replaced below. A load ends normally or throws a text. A reload has the same result as
// a start with the new document. Loading keeps its limits of memory.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <string.h>
#include <sys/types.h>

#include <fstream>

#include "crc.h"
#include "debug.h"
#include "document.h"
#include "fuzz.h"
#include "vocastra.h"

namespace {

bool is_running = false;  // The daemon's code runs, not the fuzzer's own.

// The C library's function that a replacement hides.
template <typename Function>
Function* Real(const char* name_, Function* /*replacement*/) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name_));
}

const fuzz::Scratch kScratch;
const fuzz::Scratch kEmptyDirectory;  // Opened instead of every other path.

}  // namespace

extern "C" {

int posix_spawn(pid_t* /*pid*/, const char* /*path*/, const posix_spawn_file_actions_t* /*actions*/,
                const posix_spawnattr_t* /*attributes*/, char* const* /*arguments*/,
                char* const* /*environment*/) {
  return EAGAIN;
}

pid_t fork() {
  errno = EAGAIN;
  return -1;
}

int kill(pid_t /*pid*/, int /*signal_number*/) noexcept {
  fuzz::Require(false, "nothing is signalled, as nothing was started");
  return -1;
}

char* mkdtemp(char* path_) noexcept {
  static char watch[] = "/tmp/watch-of-nobody";
  return is_running ? watch : Real("mkdtemp", mkdtemp)(path_);
}

int open(const char* path_, int flags_, ...) {
  va_list arguments;
  va_start(arguments, flags_);
  const mode_t mode =
      va_arg(arguments, mode_t);  // Without a mode argument, any value; open ignores it.
  va_end(arguments);
  const bool is_ours = strncmp(path_, kScratch.Path().c_str(), kScratch.Path().size()) == 0;
  return Real("open", open)(is_running && !is_ours ? kEmptyDirectory.Path().c_str() : path_, flags_,
                            mode);
}

DIR* opendir(const char* path_) {
  return Real("opendir", opendir)(is_running ? kEmptyDirectory.Path().c_str() : path_);
}

int usleep(useconds_t /*microseconds*/) { return 0; }

}  // extern "C"

namespace {

uint16_t CRCOf(const std::string& text_) {
  return CRC(0, reinterpret_cast<const uint8_t*>(text_.data()), text_.size());
}

// A player with its configuration and status in the scratch directory.
class Station {
 public:
  // Writes the configuration and runs one pass. True if the pass did not throw.
  bool Run(const std::string& config_) {
    const std::string path = kScratch.Write("config.xml", config_);
    bool is_valid = false;
    fuzz::Load(path, "utf8", config_.size(), is_valid);
    is_running = true;
    bool is_done = false;
    try {
      player.Run();
      is_done = true;
    } catch (const std::string& e) {
      fuzz::Require(!e.empty(), "a failure says what it is");
    }
    is_running = false;
    return is_done;
  }
  static std::string Status() {
    std::ifstream file(kScratch.Path() + "/status.xml");
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  Vocastra player{kScratch.Path() + "/config.xml",
                  kScratch.Path() + "/status.xml",
                  "",
                  "",
                  "",
                  "cifs-helper",
                  "ftp-helper",
                  10,
                  10};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  static FILE* const silenced = freopen("/dev/null", "w", stdout);
  fuzz::Require(silenced != nullptr, "standard output can be silenced");
  SetDebugMask(0);
  const std::string text(reinterpret_cast<const char*>(data_), size_);
  const std::string separator = "\n====\n";
  const size_t middle = std::min(text.find(separator), text.size());
  const std::string old_config = fuzz::Unfold(text.substr(0, middle));
  const std::string config =
      middle < text.size() ? fuzz::Unfold(text.substr(middle + separator.size())) : "";

  Station reloaded;
  const bool had_status = reloaded.Run(old_config);
  if (!reloaded.Run(config) || CRCOf(config) == CRCOf(old_config)) {
    return 0;  // A change that the checksum does not show is not noticed, by design.
  }
  const std::string status = Station::Status();
  Station started;
  if (had_status) {
    started.Run(config);  // The status is counted.
  }
  fuzz::Require(started.Run(config), "what a reload takes a start takes, too", config);
  fuzz::Require(Station::Status() == status, "a reload leads to what a start leads to",
                status + Station::Status());
  return 0;
}

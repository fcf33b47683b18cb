// Configurations, loaded twice by one player: two documents separated by a line "====".
//
// Whatever they say, no command runs, no process starts and nothing outside the scratch directory
// is listed: those calls are replaced below. A load ends normally or throws a text.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/types.h>

#include "debug.h"
#include "fuzz.h"
#include "vocastra.h"

namespace {

bool is_running = false;  // The daemon's code, that is, and not the fuzzer's own.

// The C library's function behind a replacement.
template <typename Function>
Function* Real(const char* name, Function* /*replacement*/) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

const fuzz::Scratch scratch;

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

char* mkdtemp(char* path) noexcept {
  static char watch[] = "/tmp/watch-of-nobody";
  return is_running ? watch : Real("mkdtemp", mkdtemp)(path);
}

DIR* opendir(const char* path) {
  if (is_running && strncmp(path, scratch.path().c_str(), scratch.path().size()) != 0) {
    errno = EACCES;
    return nullptr;
  }
  return Real("opendir", opendir)(path);
}

int usleep(useconds_t /*microseconds*/) { return 0; }

}  // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FILE* const silenced = freopen("/dev/null", "w", stdout);
  fuzz::Require(silenced != nullptr, "standard output can be silenced");
  SetDebugMask(0);
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string separator = "\n====\n";
  const size_t middle = std::min(text.find(separator), text.size());
  const std::string path = scratch.Write("config.xml", text.substr(0, middle));
  Vocastra player(path, "", "", "", "", "cifs-helper", "ftp-helper", 10, 10);
  const auto run = [&player] {
    is_running = true;
    try {
      player.Run();
    } catch (const std::string& e) {
      fuzz::Require(!e.empty(), "a failure says what it is");
    }
    is_running = false;
  };
  run();
  scratch.Write("config.xml", middle < text.size() ? text.substr(middle + separator.size()) : "");
  run();
  return 0;
}

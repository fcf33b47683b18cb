#include "helper.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "clock.h"
#include "format.h"
#include "report.h"

namespace {

// Makes a directory and those above it.
void MakeDirectory(const std::string& path_) {
  for (size_t end = path_.find('/', 1);; end = path_.find('/', end + 1)) {
    const std::string path = path_.substr(0, end);
    if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST && errno != EISDIR) {
      throw Format("cannot make %s: %s", path.c_str(), strerror(errno));
    }
    if (end == std::string::npos) {
      return;
    }
  }
}

}  // namespace

int RunHelper(const Program& program_, size_t count_, int argc_, char** argv_,
              const std::function<void(const std::vector<std::string>&)>& read_,
              MirrorSettings* settings_, const MakeRemote& make_remote_) {
  // A single argument is an option, given by a person. The daemon gives all arguments, and they may
  // begin with "-".
  const size_t given = static_cast<size_t>(argc_) - 1;
  std::vector<std::string> arguments(argv_ + 1, argv_ + argc_);
  if (given != count_) {
    arguments = ParseCommandLine(program_, argc_, argv_);
    FailUsage(program_, Format("%d arguments are needed, and %d are given; see --help",
                               static_cast<int>(count_), static_cast<int>(arguments.size())));
  }
  for (int i = 1; i < argc_; ++i) {
    memset(argv_[i], 0, strlen(argv_[i]));
  }
  signal(SIGPIPE, SIG_IGN);
  try {
    std::string failure;
    try {
      read_(arguments);
    } catch (const std::string& text) {
      failure = text;
    }
    // Without the directory, each pass of the daemon fails.
    MakeDirectory(settings_->directory);
    if (!failure.empty()) {
      throw failure;
    }
  } catch (const std::string& failure) {
    Report(settings_->kind, settings_->source, Now).Say(failure);
    return EXIT_FAILURE;
  }
  return RunMirror(*settings_, make_remote_);
}

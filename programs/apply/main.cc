// vocastra-apply: asks the station to check and apply the edited configuration and glossary at
// once.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "clock.h"
#include "commandline.h"
#include "copies.h"
#include "format.h"
#include "process.h"
#include "requests.h"
#include "statusfile.h"

namespace {

enum ExitStatus { kApplied = 0, kRefused = 1, kNoStation = 2 };

constexpr int kAnswerLimit = 60000;  // Milliseconds.
constexpr int kPause = 10;           // Milliseconds.

// A connection to the station.
class Connection {
 public:
  explicit Connection(const std::string& run_) : fd(ConnectToStation(run_)) {
    std::string word;
    while (!(word = ReadUntil('\0')).empty()) {
      greeting.push_back(std::move(word));
    }
    if (greeting.size() < 2) {
      throw std::string("the station does not answer");
    }
  }
  ~Connection() { close(fd); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // The path of the edited configuration, and the command that checks one.
  const std::vector<std::string>& Greeting() const { return greeting; }

  std::string Answer() { return ReadUntil(-1); }

 private:
  // Reads up to that character, or to the end.
  std::string ReadUntil(int end_) {
    std::string text;
    char c = 0;
    pollfd descriptor = {fd, POLLIN, 0};
    while (poll(&descriptor, 1, kAnswerLimit) > 0 && read(fd, &c, 1) == 1 && c != end_) {
      text += c;
    }
    return text;
  }

  int fd;
  std::vector<std::string> greeting;
};

// Checks the file at path_. True if the daemon can use it. The findings go to standard error.
bool IsFileUsable(std::vector<std::string> check_, const std::string& path_) {
  check_.push_back(path_);
  Command command;
  command.Start(check_, kCheckLimit);
  while (!command.HasEnded()) {
    Nap(kPause);
  }
  fputs(command.Text().c_str(), stderr);
  return IsUsable(command.Status());
}

// Replaces the file at path_ by one with content_. Keeps owner and mode.
void Install(const std::string& content_, const std::string& path_) {
  struct stat old = {};
  const bool has_old = stat(path_.c_str(), &old) == 0;
  std::string temporary = path_ + ".XXXXXX";
  const int fd = mkostemp(&temporary[0], O_CLOEXEC);
  bool is_done = fd >= 0 && WriteWhole(fd, content_.data(), content_.size()) &&
                 fchmod(fd, has_old ? old.st_mode & 07777 : 0640) == 0 && fsync(fd) == 0;
  struct stat now = {};
  if (is_done && has_old && fstat(fd, &now) == 0 &&
      (now.st_uid != old.st_uid || now.st_gid != old.st_gid)) {
    is_done = fchown(fd, old.st_uid, old.st_gid) == 0;
  }
  is_done = is_done && rename(temporary.c_str(), path_.c_str()) == 0;
  const int error = errno;
  if (fd >= 0) {
    close(fd);
  }
  if (!is_done) {
    unlink(temporary.c_str());
    throw Format("cannot replace %s: %s", path_.c_str(), strerror(error));
  }
}

ExitStatus Apply(const std::string& run_, const std::string& file_) {
  if (!file_.empty()) {
    const std::string content = ReadWhole(file_);
    std::vector<std::string> check = Connection(run_).Greeting();
    const std::string edited = check.front();
    check.erase(check.begin());
    if (!IsFileUsable(check, file_)) {
      fprintf(stderr, "vocastra-apply: %s is refused; nothing has changed\n", file_.c_str());
      return kRefused;
    }
    Install(content, edited);
  }
  const std::string answer = Connection(run_).Answer();
  if (answer.empty()) {
    throw std::string("the station does not answer");
  }
  const bool is_fine = answer[0] == '0';
  fputs(answer.c_str() + 1, is_fine ? stdout : stderr);
  return is_fine ? kApplied : kRefused;
}

}  // namespace

int main(int argc, char** argv) {
  std::string run = VOCASTRA_RUN_DIR;
  const Program program = {
      "vocastra-apply",
      kNoStation,
      "Usage: vocastra-apply [--run DIR] [FILE]\n"
      "Asks the station to check and apply the edited configuration and glossary now.\n"
      "With FILE, first checks that file and replaces the edited configuration by it.\n\n",
      {{'r', "run", "DIR", "The station's run directory (default " + run + ")", Keep(run)}},
      "Exit status: 0 applied; 1 refused; 2 wrong use, or no station.\n"};
  try {
    const std::vector<std::string> operands = ParseCommandLine(program, argc, argv);
    if (operands.size() > 1) {
      FailUsage(program, "more than one file");
    }
    return Apply(run, operands.empty() ? "" : operands.front());
  } catch (const std::string& why) {
    fprintf(stderr, "vocastra-apply: %s\n", why.c_str());
  }
  return kNoStation;
}

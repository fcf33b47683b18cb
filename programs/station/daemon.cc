#include "daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "clock.h"
#include "format.h"
#include "process.h"
#include "statusfile.h"

namespace {

constexpr double kPause = 1;         // Seconds before a start.
constexpr double kLongestPause = 5;  // Seconds, after several short lives.
constexpr double kShortLife = 10;    // Seconds.

// A pass with 50 files logs a hundred lines. Each line takes a page of the pipe.
constexpr int kPipeBytes = 512 * 1024;

}  // namespace

// In a packet pipe, one read returns one write. The daemon logs the text of a message as it is,
// line ends included. With packets, the text after such a line end is not taken for a further log
// line.
Daemon::Daemon() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_DIRECT) != 0) {
    throw Format("cannot make a pipe: %s", strerror(errno));
  }
  log_read = ends[0];
  log_write = ends[1];
  fcntl(log_read, F_SETFL, O_NONBLOCK);
  // If that fails, the daemon waits for the station more often.
  fcntl(log_read, F_SETPIPE_SZ, kPipeBytes);
}

Daemon::~Daemon() {
  if (pid != 0) {
    Kill();
    waitpid(pid, nullptr, 0);
  }
  close(log_read);
  close(log_write);
}

void Daemon::Start(const std::vector<std::string>& command_) {
  pid = Spawn(command_, log_write);
  start = Now();
  ++starts;
}

bool Daemon::ReadLine(std::string& line_) {
  char packet[PIPE_BUF];
  for (;;) {
    ssize_t length = read(log_read, packet, sizeof(packet));
    if (length <= 0) {
      return false;
    }
    const bool is_rest = is_continued;
    is_continued = length == sizeof(packet);
    if (!is_rest) {
      while (length > 0 && packet[length - 1] == '\n') {
        --length;
      }
      line_.assign(packet, static_cast<size_t>(length));
      std::replace_if(
          line_.begin(), line_.end(),
          [](char c_) { return static_cast<unsigned char>(c_) < ' ' || c_ == 127; }, ' ');
      return true;
    }
  }
}

std::string Daemon::Activity() const {
  constexpr char kName[] = "\nvoluntary_ctxt_switches:";
  try {
    const std::string status = ReadWhole(Format("/proc/%d/status", pid));
    const size_t begin = status.find(kName);
    if (begin != std::string::npos) {
      return status.substr(begin, status.find('\n', begin + 1) - begin);
    }
  } catch (const std::string&) {  // It has ended.
  }
  return "";
}

void Daemon::Interrupt() const {
  if (pid != 0) {
    kill(pid, SIGINT);
  }
}

void Daemon::Kill() const {
  if (pid != 0) {
    KillTree(pid);
  }
}

void Daemon::KillNewestCommand() const {
  const std::vector<int> children = pid != 0 ? Children(pid) : std::vector<int>();
  if (children.empty()) {
    return;
  }
  std::vector<int> below = Descendants(children.back());
  if (below.empty()) {
    below.push_back(children.back());
  }
  for (const int process : below) {
    kill(process, SIGKILL);
  }
}

bool Daemon::HasEnded() {
  int status = 0;
  if (pid == 0 || !::HasEnded(pid, status)) {
    return false;
  }
  kill(-pid, SIGKILL);  // Helpers that the daemon could not stop.
  pid = 0;
  end = Described(status);
  const bool is_short = Now() - start < kShortLife;
  pause = is_short ? std::clamp(pause * 2, kPause, kLongestPause) : kPause;
  return true;
}

// The daemon as a child of the station.
#pragma once

#include <string>
#include <vector>

class Daemon {
 public:
  // Throws a string if there is no pipe for the log.
  Daemon();
  // Kills the daemon and all that it has started.
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // REQUIRES: it does not run. Throws a string if no process can be made.
  void Start(const std::vector<std::string>& command_);

  int Pid() const { return pid; }  // 0: it does not run.
  int Starts() const { return starts; }

  // The next line of the log without its line end, at most 4096 bytes; false if there is none now.
  // Lines of different writers do not mix.
  bool ReadLine(std::string& line_);
  int Log() const { return log_read; }  // Readable when there is a line.

  // A text that changes while the daemon works, even if it cannot write its status: the number of
  // its context switches. Empty if it is not known.
  std::string Activity() const;

  void Interrupt() const;  // Asks it to end.
  void Kill() const;       // Kills it and all that it has started.
  // Kills the processes that the daemon's newest child has started, or the child if it has started
  // none. The daemon then sees that its command has failed.
  void KillNewestCommand() const;

  // True if it has just ended. End() then says how. Pause() gives the seconds to wait before the
  // next start, which grow with each short life.
  bool HasEnded();
  const std::string& End() const { return end; }
  double Pause() const { return pause; }

 private:
  int pid = 0;
  int starts = 0;
  int log_read = -1;
  int log_write = -1;
  bool is_continued = false;  // The next read continues a long line.
  double start = 0;
  double pause = 0;
  std::string end;
};

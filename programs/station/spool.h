// The messages of local directories, from their arrival to their end. Keeps a copy of each message
// until it has ended, so that a restart of the daemon loses none.
//
// The end of a message is seen in the status file: the daemon scans before it writes a status, so a
// status shows the result of the scan before it, and its counter tells statuses apart. The log
// tells which pieces were made, and when the daemon has emptied a directory ("Created new input
// directory"), so class 1 of the log must be on.
#pragma once

#include <memory>
#include <string>

#include "health.h"
#include "logevent.h"
#include "xml.h"

class Spool {
 public:
  // run_: the run directory; to be called before anything in it is replaced, because its status and
  // health file tell when the last station ended. output_: the daemon's output directory.
  // age_limit_: a message older than that, in seconds, is not given back after a restart, unless it
  // was being spoken; 0: none is.
  Spool(const std::string& run_, const std::string& output_, int age_limit_);
  ~Spool();

  // To be called before each start of the daemon, and before it can read a new configuration, with
  // the checked copy: creates the local directories that are missing, watches them all, and keeps
  // what waits in them from being removed by the daemon's start.
  void Prepare(const XMLElement& configuration_);

  // Readable when a file has arrived or gone; then Read() is to be called.
  int Descriptor() const;
  void Read();

  void OnLog(const LogEvent& event_);

  // A status of the daemon, also an old one. After the first one that surely shows a directory as
  // scanned, its messages are given back. To be called with a status that was read after the last
  // Read(), and after the log up to then was passed to OnLog().
  void OnStatus(const XMLElement& status_);

  // The daemon has ended, and its log is at its end; what was being said or waited is handed over
  // again after the next start.
  void OnDaemonEnd();

  // True if no message waits or is being spoken, so that no status is needed soon.
  bool IsIdle() const;

  // Adds messages, what is being said, problems with single files, and counters.
  void AddTo(Health& health_) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

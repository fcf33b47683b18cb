// The messages of local directories, from their arrival to their end. Keeps a copy of each message
// until it has ended, so that a restart of the daemon loses none.
#pragma once

#include <memory>
#include <string>

#include "health.h"
#include "logevent.h"
#include "xml.h"

class Spool {
 public:
  // run_: the run directory. age_limit_: a message older than that, in seconds, is not given back
  // after a restart; 0: none is.
  Spool(const std::string& run_, int age_limit_);
  ~Spool();

  // To be called before each start of the daemon, and after a change of the configuration, with its
  // checked copy: creates the local directories that are missing, watches them all, and keeps what
  // waits in them from being removed by the daemon's start.
  void Prepare(const XMLElement& configuration_);

  // Readable when a file has arrived or gone; then Read() is to be called.
  int Descriptor() const;
  void Read();

  void OnLog(const LogEvent& event_);

  // A new status of the daemon. After the first one that shows a directory as scanned, its messages
  // are given back.
  void OnStatus(const XMLElement& status_);

  // The daemon has ended; what was being said or waited is handed over again after the next start.
  void OnDaemonEnd();

  // True if no message waits or is being said: nobody needs a status soon.
  bool IsIdle() const;

  // Adds messages, what is being said, problems with single files, and counters.
  void AddTo(Health& health_) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

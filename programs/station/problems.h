// Finds out why messages may not be heard. It looks at directories, player, helpers, status and
// log, and runs a translator that has failed for a trial. vocastra-status(1) lists the problems.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "health.h"
#include "logevent.h"
#include "options.h"
#include "xml.h"

// The service as the station sees it at one moment.
struct View {
  const XMLElement* configuration = nullptr;  // The checked copy; null: there is none.
  const XMLElement* status = nullptr;         // The daemon's last status; null: there is none.
  int daemon = 0;                             // Its process; 0: none.
  double still = 0;   // Seconds since the status last advanced, or since the start.
  double engine = 0;  // Seconds since the translator was started; 0: it does not run.
};

class Problems {
 public:
  // options_: the daemon's. has_player_: a player is expected.
  Problems(const std::string& run_, const Options& options_, bool has_player_);
  ~Problems();

  // To be called for every line, even if it is not passed on: a daemon whose passes fail still
  // writes lines, and one that hangs does not.
  void OnLog(const LogEvent& event_);

  // Looks for all problems. To be called about once a second, the first time soon after each start
  // of the daemon. Does not block. Starts child processes and waits for each by its number.
  void Check(const View& view_);

  // Sets a problem that another part has found. A problem that is set again keeps the time of its
  // start. The id must be in the table in problems.cc.
  void Set(const std::string& id_, const std::string& sentence_, const std::string& remedy_);
  void Clear(const std::string& id_);

  // True if another process holds a lock that the daemon waits for: a restart would not help.
  bool IsLocked() const;

  // True if the daemon must be restarted: it holds the lock of a directory that is no longer the
  // output directory.
  bool NeedsRestart() const;

  void AddTo(Health& health_) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

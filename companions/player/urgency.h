// How urgent the display ids are, from the daemon's configuration, and which directories have an
// active message, from its status file.
#pragma once

#include <limits.h>

#include <memory>
#include <string>

// Priorities as in the configuration: the smaller, the more urgent.
constexpr int kLeastUrgent = INT_MAX;

class Urgency {
 public:
  // Either path may be empty, if there is no such file. Reads nothing yet.
  Urgency(const std::string& config_path_, const std::string& status_path_);
  ~Urgency();

  // Reads the configuration if it has changed. Throws a string if it cannot be read. The last good
  // one then stays in force, and the file is read again only after a change.
  void ReadConfiguration();

  // Reads the status file. Changes nothing if there is none, or while it holds an incomplete
  // status.
  void ReadStatus();

  // The priority of a display id: that of its most urgent directory; kLeastUrgent if the
  // configuration does not have the id.
  int Of(const std::string& id_) const;

  // In the last status, the priority of the most urgent directory with an active message;
  // kLeastUrgent if there is none.
  int MostUrgentActive() const;
  // True if a directory with that display id has an active message.
  bool IsActive(const std::string& id_) const;
  bool IsOutputBound() const;
  bool IsStopped() const;
  // The counter of statuses; -1 before the first.
  int Timestamp() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

// How urgent display ids are, by the daemon's configuration, and for whom the daemon is at work, by
// its status file.
#pragma once

#include <limits.h>

#include <memory>
#include <string>

// Priorities as in the configuration: the smaller, the more urgent.
constexpr int kLeastUrgent = INT_MAX;

class Urgency {
 public:
  // Either path may be empty: there is no such file, then. Nothing is read yet.
  Urgency(const std::string& config_path_, const std::string& status_path_);
  ~Urgency();

  // Reads the configuration if it has changed. Throws a string if it cannot be read; what was read
  // before stays in force, and nothing is tried again before the file changes.
  void ReadConfiguration();

  // Reads the status file. Without one, or while it holds half a status, nothing changes.
  void ReadStatus();

  // The priority of a display id, of its most urgent directory if there are several; kLeastUrgent
  // if the configuration does not have it.
  int Of(const std::string& id_) const;

  // Of the last status: the priority of the most urgent directory with an active message, and
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

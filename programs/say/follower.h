// Follows one message through the daemon's status file to its end.
//
// The daemon scans before it writes a status, so a status shows the result of the scan before it.
// The counter in the status tells statuses apart.
#pragma once

#include <limits.h>
#include <stdint.h>

#include <optional>
#include <string>

#include "configuration.h"
#include "xml.h"

class Follower {
 public:
  enum class End { kSaid, kDropped, kTimedOut };

  // Throws a string if the status file cannot be read or does not show the directory.
  // REQUIRES: target_ outlives this object.
  Follower(const std::string& config_path_, const std::string& status_path_,
           const LocalDirectory& target_);

  // Waits until the message with that file name has been said or dropped, for timeout_ seconds
  // at most; 0: without a limit.
  // REQUIRES: the message has just been put there.
  End Follow(const std::string& name_, int timeout_);

 private:
  bool IsDirectoryReplaced();
  bool IsPresent() const;
  std::optional<End> Look(const XMLElement& status_, bool was_present_);
  bool IsOver(const XMLElement& directory_, int timestamp_) const;
  bool IsActive(const XMLElement& directory_);

  static constexpr int kNever = INT_MAX;

  const std::string config_path;
  const std::string status_path;
  const LocalDirectory& target;
  uint16_t config_crc;
  std::string name;
  int last_timestamp = INT_MIN;
  int seen_from = kNever;  // From this status on, the daemon has seen the file.
  int gone_from = kNever;  // From this status on, it has taken the file.
  int message_id = 0;      // 0: not seen as the active message yet.
  bool is_over = false;    // It is not waiting or active any more.
};

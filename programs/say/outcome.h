// Follows a message that was handed over in the station's health file.
#pragma once

#include <optional>
#include <string>

#include "health.h"

// A message: the id and the path of its directory, which ends in "/", and its file.
struct HandedOver {
  std::string directory;
  std::string path;
  std::string file;
};

// Waits until the message has ended or, if is_heard_, until it was played or cannot be complete.
// Nothing if that takes more than timeout_ seconds; 0: no limit.
std::optional<MessageRecord> WaitForEnd(const std::string& health_path_, const HandedOver& message_,
                                        bool is_heard_, int timeout_);

// The problem with this file in the health file, with its remedy; empty: none.
std::string ReasonOf(const std::string& health_path_, const HandedOver& message_);

// Removes the message if it still waits. False if it was taken already: the file is gone, or the
// daemon's status names it.
bool Withdraw(const HandedOver& message_, const std::string& status_path_);

// What becomes of a message that was handed over, as the station's health file tells it.
#pragma once

#include <optional>
#include <string>

#include "health.h"

// Of a message: the id of its directory, the path of that, which ends in "/", and the file.
struct HandedOver {
  std::string directory;
  std::string path;
  std::string file;
};

// Waits until the message has ended or, if is_heard_, until it was played or will not be whole.
// Nothing if that takes more than timeout_ seconds; 0: without a limit.
std::optional<MessageRecord> WaitForEnd(const std::string& health_path_, const HandedOver& message_,
                                        bool is_heard_, int timeout_);

// The problem with this file that the health file tells, with its remedy; empty: none.
std::string ReasonOf(const std::string& health_path_, const HandedOver& message_);

// Removes the message if it still waits. False if it was taken already: the file is gone, or the
// daemon's status names it.
bool Withdraw(const HandedOver& message_, const std::string& status_path_);

// Names of the audio files in the daemon's output directory, such as
// "13_lobby.text_live_first.raw".
#pragma once

#include <stdint.h>

#include <string>

struct OutputName {
  uint64_t number = 0;  // Begins at 0 with every start of the daemon.
  std::string id;       // The display id.
  bool is_clip = false;
  bool is_first = false;  // A clip, or the first piece of a message.
};

// Parses a name. False if it does not begin with a number of up to 10 digits and "_". If the rest
// is not as the daemon writes it, the id ends at the first dot.
bool ParseOutputName(const std::string& name_, OutputName& result_);

// The speech engine, in this process. There can be only one, and it lives until the end of the
// process: the engine's own function to end it waits for its thread, and was seen to wait forever.
#pragma once

#include <string>

#include "arguments.h"
#include "sound.h"

class Engine {
 public:
  // Loads the engine's data and the voice. Throws a string that says why it cannot.
  explicit Engine(const Arguments& arguments_);

  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Samples per second.
  int Rate() const;

  // The sound of a text in SSML. Throws a string if the engine fails, or if the sound is longer
  // than an hour, as pauses alone could fill the memory.
  Samples Speak(const std::string& markup_);
};

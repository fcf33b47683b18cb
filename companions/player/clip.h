// An audio file as samples of the stream: signed 16 bit, one channel, at the player's rate.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>

class Clip {
 public:
  virtual ~Clip() = default;

  // The next samples, at most count_ of them. Returns their number, which is less only at the end.
  virtual size_t Read(int16_t* samples_, size_t count_) = 0;
};

// Opens a file. One that begins with "RIFF" is WAV of any kind, rate and number of channels. Any
// other is raw little-endian samples. rate_ is in hertz. Files of any length are read piece by
// piece. Throws a string with the reason if the file cannot be read.
std::unique_ptr<Clip> OpenClip(const std::string& path_, int rate_);

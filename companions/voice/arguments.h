// The arguments of the translator, which are the "conv-opts" of an input directory.
#pragma once

#include <string>
#include <vector>

struct Arguments {
  std::string voice = "en";
  int speed = 175;   // Words per minute.
  int pitch = 50;    // 0 to 99.
  int volume = 100;  // 0 to 200.
  int rate = 22050;  // Samples per second.
  int limit = 20;    // Seconds.
};

// Takes "NAME=VALUE" from each of words_; the last of equal names counts.
// Throws a string if a name is unknown, a number out of its range, or a voice not a name.
Arguments ParseArguments(const std::vector<std::string>& words_);

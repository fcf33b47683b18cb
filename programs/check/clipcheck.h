// Clips: audio files that the player plays as they are.
#pragma once

#include <string>

// Why the player would drop the file or play noise; empty if it seems to be sound. The player takes
// a file that begins with "RIFF" for WAV, and every other one for raw samples.
std::string WhyNoSound(const std::string& path_);

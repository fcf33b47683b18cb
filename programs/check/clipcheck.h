// Clips: audio files that the player plays as they are.
#pragma once

#include <string>

// Why the player would drop the file or play noise; empty if the file seems to be sound. The player
// treats a file that begins with "RIFF" as WAV, and any other as raw samples.
std::string WhyNoSound(const std::string& path_);

// The sound of a snippet: signed 16 bit, one channel.
#pragma once

#include <stdint.h>

#include <vector>

using Samples = std::vector<int16_t>;

// Removes the silence at the end. Sound begins where for at least 10 ms the mean level of the next
// 20 ms is above 0.3 % of the full scale, so a click counts as silence. rate_: samples per second.
void TrimEnd(Samples& samples_, int rate_);

// The same sound at another rate: round(samples * to_ / from_) samples.
// Throws a string if the resampler fails.
Samples Resampled(const Samples& samples_, int from_, int to_);

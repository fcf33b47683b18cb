#include "sound.h"

#include <speex/speex_resampler.h>

#include <algorithm>
#include <memory>
#include <string>

void TrimEnd(Samples& samples_, int rate_) {
  constexpr int64_t kLoud = 99;  // The first level above 0.3 % of 32,768.
  const int window = rate_ / 50;
  const int shortest = rate_ / 100;
  const int64_t loud_sum = kLoud * kLoud * window;
  int64_t sum = 0;  // The sum of the squares in the window that begins at "at".
  int run = 0;      // The number of loud windows in a row.
  for (size_t at = samples_.size(); at-- > 0;) {
    const size_t left = at + static_cast<size_t>(window);
    sum += int64_t{samples_[at]} * samples_[at];
    sum -= left < samples_.size() ? int64_t{samples_[left]} * samples_[left] : 0;
    run = sum >= loud_sum ? run + 1 : 0;
    if (run == shortest) {
      samples_.resize(at + static_cast<size_t>(shortest));
      return;
    }
  }
  samples_.clear();
}

Samples Resampled(const Samples& samples_, int from_, int to_) {
  int status = RESAMPLER_ERR_SUCCESS;
  const std::unique_ptr<SpeexResamplerState, decltype(&speex_resampler_destroy)> resampler(
      speex_resampler_init(1, static_cast<unsigned>(from_), static_cast<unsigned>(to_),
                           SPEEX_RESAMPLER_QUALITY_DESKTOP, &status),
      speex_resampler_destroy);
  if (!resampler) {
    throw std::string("cannot resample: ") + speex_resampler_strerror(status);
  }
  speex_resampler_skip_zeros(resampler.get());
  const int64_t size = static_cast<int64_t>(samples_.size());
  Samples result(static_cast<size_t>((size * to_ + from_ / 2) / from_));
  // The resampler holds back the end until it is given more.
  const Samples silence(static_cast<size_t>(from_));
  for (size_t done = 0, taken = 0; done < result.size();) {
    const bool is_end = taken == samples_.size();
    const int16_t* const input = is_end ? silence.data() : &samples_[taken];
    auto count = static_cast<spx_uint32_t>(is_end ? silence.size() : samples_.size() - taken);
    auto room = static_cast<spx_uint32_t>(result.size() - done);
    status = speex_resampler_process_int(resampler.get(), 0, input, &count, &result[done], &room);
    if (status != RESAMPLER_ERR_SUCCESS || (count == 0 && room == 0)) {
      throw std::string("cannot resample: ") + speex_resampler_strerror(status);
    }
    taken += is_end ? 0 : count;
    done += room;
  }
  return result;
}

// Makes the project's clips during the build: a gong and two silences. Every sample is computed, so
// nobody else has rights in them.

#include <math.h>
#include <sndfile.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

// Raw speech has the same rate and format, so that the player converts nothing.
constexpr int kRate = 22050;
constexpr int kFormat = SF_FORMAT_WAV | SF_FORMAT_PCM_16;

using Samples = std::vector<int16_t>;

size_t Count(double seconds_) { return static_cast<size_t>(seconds_ * kRate); }

Samples Silence(double seconds_) { return Samples(Count(seconds_), 0); }

// One tone of the gong. As in a bell, higher ones end sooner.
struct Partial {
  double hertz;
  double level;    // Of the whole range.
  double seconds;  // Until it has fallen to 1/e.
};

constexpr Partial kPartials[] = {
    {196, 0.10, 0.9}, {392, 0.22, 0.7}, {470, 0.12, 0.5}, {588, 0.08, 0.4}, {784, 0.12, 0.3},
};
constexpr double kGongSeconds = 2;
constexpr double kFadeIn = 0.004;
constexpr double kFadeOut = 0.1;

// Begins and ends without a click.
Samples Gong() {
  Samples samples(Count(kGongSeconds));
  for (size_t i = 0; i < samples.size(); ++i) {
    const double time = static_cast<double>(i) / kRate;
    double value = 0;
    for (const Partial& partial : kPartials) {
      value += partial.level * exp(-time / partial.seconds) * sin(2 * M_PI * partial.hertz * time);
    }
    value *= std::min({1.0, time / kFadeIn, (kGongSeconds - time) / kFadeOut});
    samples[i] = static_cast<int16_t>(lround(value * INT16_MAX));
  }
  return samples;
}

// Throws a string if the file cannot be written.
void Write(const std::string& path_, const Samples& samples_) {
  SF_INFO info = {};
  info.samplerate = kRate;
  info.channels = 1;
  info.format = kFormat;
  SNDFILE* const file = sf_open(path_.c_str(), SFM_WRITE, &info);
  const auto count = static_cast<sf_count_t>(samples_.size());
  const bool is_written = file != nullptr && sf_write_short(file, samples_.data(), count) == count;
  if (file == nullptr || sf_close(file) != 0 || !is_written) {
    throw "cannot write " + path_;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "Usage: make_clips DIRECTORY\n");
    return EXIT_FAILURE;
  }
  const std::string directory = argv[1];
  try {
    Write(directory + "/gong.wav", Gong());
    Write(directory + "/silence-half.wav", Silence(0.5));
    Write(directory + "/silence-one.wav", Silence(1));
    return EXIT_SUCCESS;
  } catch (const std::string& why) {
    fprintf(stderr, "make_clips: %s\n", why.c_str());
  }
  return EXIT_FAILURE;
}

#include "clip.h"

#include <errno.h>
#include <math.h>
#include <sndfile.h>
#include <speex/speex_resampler.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

#include "format.h"

namespace {

constexpr size_t kBlock = 1024;  // Samples that are read at a time.
constexpr int kQuality = 5;      // Of 0 to 10; good for speech and cheap.
constexpr int kMinRate = 1000;   // Hertz. Other rates than these would need much memory.
constexpr int kMaxRate = 400000;

struct Closer {
  void operator()(FILE* file_) const { fclose(file_); }
  void operator()(SNDFILE* file_) const { sf_close(file_); }
  void operator()(SpeexResamplerState* state_) const { speex_resampler_destroy(state_); }
};
using File = std::unique_ptr<FILE, Closer>;

class RawClip : public Clip {
 public:
  explicit RawClip(File file_) : file(std::move(file_)) {}

  size_t Read(int16_t* samples_, size_t count_) override {
    std::vector<unsigned char> bytes(count_ * 2);
    // Half a sample at the end is left out.
    const size_t count = fread(bytes.data(), 1, bytes.size(), file.get()) / 2;
    for (size_t i = 0; i < count; ++i) {
      samples_[i] = static_cast<int16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
    }
    return count;
  }

 private:
  const File file;
};

class WavClip : public Clip {
 public:
  WavClip(File file_, int rate_) : file(std::move(file_)), rate(rate_) {
    sound.reset(sf_open_fd(fileno(file.get()), SFM_READ, &info, SF_FALSE));
    if (!sound) {
      throw std::string(sf_strerror(nullptr));
    }
    if (info.samplerate < kMinRate || info.samplerate > kMaxRate) {
      throw Format("its rate is %d Hz", info.samplerate);
    }
    if (info.samplerate != rate) {
      resampler.reset(speex_resampler_init(1, static_cast<spx_uint32_t>(info.samplerate),
                                           static_cast<spx_uint32_t>(rate), kQuality, nullptr));
      if (!resampler) {
        throw std::string("no memory");
      }
      speex_resampler_skip_zeros(resampler.get());
    }
  }

  size_t Read(int16_t* samples_, size_t count_) override {
    size_t count = 0;
    while (count < count_ && (position < ready.size() || Refill())) {
      const float sample = roundf(ready[position++] * 32768);
      samples_[count++] =
          isnan(sample) ? int16_t{0} : static_cast<int16_t>(std::clamp(sample, -32768.F, 32767.F));
    }
    return count;
  }

 private:
  // Reads and resamples further samples. False at the end.
  bool Refill() {
    position = 0;
    ready.clear();
    while (ready.empty()) {
      std::vector<float> mono = ReadMono();
      if (!resampler) {
        ready = std::move(mono);
        return !ready.empty();
      }
      if (mono.empty()) {
        // At the end, zeros push the last samples out of the resampler.
        const uint64_t total = (frames * static_cast<uint64_t>(rate) + InRate() / 2) / InRate();
        if (produced >= total) {
          return false;
        }
        mono.assign(kBlock, 0);
        Resample(mono);
        ready.resize(static_cast<size_t>(std::min<uint64_t>(ready.size(), total - produced)));
      } else {
        frames += mono.size();
        Resample(mono);
      }
      produced += ready.size();
    }
    return true;
  }

  uint64_t InRate() const { return static_cast<uint64_t>(info.samplerate); }

  // Reads further frames as the mean of their channels; empty at the end.
  std::vector<float> ReadMono() {
    const size_t channels = static_cast<size_t>(info.channels);
    std::vector<float> all(kBlock * channels);
    const sf_count_t count = sf_readf_float(sound.get(), all.data(), kBlock);
    std::vector<float> mono(count > 0 ? static_cast<size_t>(count) : 0);
    for (size_t i = 0; i < mono.size(); ++i) {
      const auto first = all.begin() + static_cast<ptrdiff_t>(i * channels);
      mono[i] = std::accumulate(first, first + info.channels, 0.F) / static_cast<float>(channels);
    }
    return mono;
  }

  // Appends the resampled sound to ready.
  void Resample(const std::vector<float>& mono_) {
    size_t done = 0;
    while (done < mono_.size()) {
      auto in = static_cast<spx_uint32_t>(mono_.size() - done);
      std::vector<float> out(kBlock);
      spx_uint32_t count = kBlock;
      speex_resampler_process_float(resampler.get(), 0, mono_.data() + done, &in, out.data(),
                                    &count);
      done += in;
      ready.insert(ready.end(), out.begin(), out.begin() + count);
    }
  }

  const File file;
  const int rate;
  SF_INFO info = {};
  std::unique_ptr<SNDFILE, Closer> sound;
  std::unique_ptr<SpeexResamplerState, Closer> resampler;  // Null if the rate is the same.
  std::vector<float> ready;
  size_t position = 0;    // In ready.
  uint64_t frames = 0;    // Read.
  uint64_t produced = 0;  // Samples by the resampler.
};

}  // namespace

std::unique_ptr<Clip> OpenClip(const std::string& path_, int rate_) {
  File file(fopen(path_.c_str(), "re"));
  if (!file) {
    throw std::string(strerror(errno));
  }
  char begin[4] = {};
  const bool is_wav = fread(begin, 1, sizeof(begin), file.get()) == sizeof(begin) &&
                      memcmp(begin, "RIFF", sizeof(begin)) == 0;
  rewind(file.get());
  if (is_wav) {
    lseek(fileno(file.get()), 0, SEEK_SET);  // The library reads the descriptor.
    return std::make_unique<WavClip>(std::move(file), rate_);
  }
  return std::make_unique<RawClip>(std::move(file));
}

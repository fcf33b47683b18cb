#include <alsa/asoundlib.h>

#include "clock.h"
#include "format.h"
#include "sink.h"

namespace {

constexpr unsigned int kBufferTime = 80000;  // Microseconds.
constexpr double kStuckLimit = 2;  // Seconds without room after which the device counts as dead.

// Without this, the library writes its errors to standard error, at each try.
void Ignore(const char*, int, const char*, int, const char*, ...) {}

class AlsaSink : public Sink {
 public:
  AlsaSink(const std::string& device_, int rate_) : device(device_), rate(rate_) {
    snd_lib_error_set_handler(Ignore);
  }
  ~AlsaSink() override { Close(); }
  AlsaSink(const AlsaSink&) = delete;
  AlsaSink& operator=(const AlsaSink&) = delete;

  void Open() override {
    Close();
    Require(snd_pcm_open(&pcm, device.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK));
    Require(snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, 1,
                               static_cast<unsigned int>(rate), 1, kBufferTime));
    last_progress = Now();
  }

  size_t Write(const int16_t* samples_, size_t count_) override {
    snd_pcm_sframes_t count = snd_pcm_writei(pcm, samples_, count_);
    if (count == -EPIPE || count == -ESTRPIPE) {
      // The device has played all samples, as at the end of each sound, or was suspended.
      Require(snd_pcm_prepare(pcm));
      count = snd_pcm_writei(pcm, samples_, count_);
      last_progress = Now();
    }
    if (count == -EAGAIN || count == 0) {
      if (Now() - last_progress > kStuckLimit) {
        Lose("it takes no sound");
      }
      return 0;
    }
    Require(count);
    last_progress = Now();
    return static_cast<size_t>(count);
  }

  void Check() override {
    if (snd_pcm_state(pcm) == SND_PCM_STATE_DISCONNECTED) {
      Require(-ENODEV);
    }
  }

  size_t Tail() const override {
    return static_cast<size_t>(rate) / 10;  // More than the buffer holds.
  }

  void Drain() override {
    snd_pcm_nonblock(pcm, 0);
    snd_pcm_drain(pcm);
  }

 private:
  void Close() {
    if (pcm != nullptr) {
      snd_pcm_close(pcm);
      pcm = nullptr;
    }
  }

  void Require(snd_pcm_sframes_t result_) {
    if (result_ < 0) {
      Lose(snd_strerror(static_cast<int>(result_)));
    }
  }

  [[noreturn]] void Lose(const char* why_) {
    Close();
    throw DeviceLost{Format("no sound device %s: %s", device.c_str(), why_)};
  }

  const std::string device;
  const int rate;  // Hertz.
  snd_pcm_t* pcm = nullptr;
  double last_progress = 0;  // When it took samples last.
};

}  // namespace

std::unique_ptr<Sink> MakeAlsaSink(const std::string& device_, int rate_) {
  return std::make_unique<AlsaSink>(device_, rate_);
}

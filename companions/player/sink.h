// The destination of the stream of samples: signed 16 bit, one channel.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>

// Thrown if the sound device is missing or has vanished. It may come back.
struct DeviceLost {
  std::string reason;
};

class Sink {
 public:
  virtual ~Sink() = default;

  // Prepares for sound, also after DeviceLost. Throws DeviceLost.
  virtual void Open() {}
  // Takes as many of the samples as there is room for, without waiting, and returns their number.
  // Throws DeviceLost, or a string if it can never go on.
  virtual size_t Write(const int16_t* samples_, size_t count_) = 0;
  // Throws DeviceLost if the device has vanished while nothing is written.
  virtual void Check() {}
  // Samples of silence that push the end of the sound out when nothing follows.
  virtual size_t Tail() const { return 0; }
  // Waits until all has been heard.
  virtual void Drain() {}
};

// Lets samples pass at the speed at which they would be played, and a little ahead.
class Pace {
 public:
  explicit Pace(int rate_) : rate(rate_) {}
  // How many of count_ samples may pass now; counts them as passed.
  size_t Pass(size_t count_);
  // Waits until those that have passed would have been heard.
  void Drain() const;

 private:
  const int rate;          // Hertz.
  double heard_until = 0;  // A time of Now().
};

// Discards the samples at the speed of playing.
class NullSink : public Sink {
 public:
  explicit NullSink(int rate_) : pace(rate_) {}
  size_t Write(const int16_t*, size_t count_) override { return pace.Pass(count_); }
  void Drain() override { pace.Drain(); }

 private:
  Pace pace;
};

// Appends to a WAV file, whose header is correct after each call. If is_paced_, it takes samples at
// the speed of playing. Throws a string if the file cannot be written, or is not such a file of
// that rate.
std::unique_ptr<Sink> OpenWavSink(const std::string& path_, int rate_, bool is_paced_);

// An ALSA device, whose buffer holds at most a tenth of a second.
std::unique_ptr<Sink> MakeAlsaSink(const std::string& device_, int rate_);

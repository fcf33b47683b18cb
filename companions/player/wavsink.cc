#include <fcntl.h>
#include <sndfile.h>
#include <stdint.h>
#include <unistd.h>

#include "format.h"
#include "sink.h"

namespace {

constexpr int kFormat = SF_FORMAT_WAV | SF_FORMAT_PCM_16;

// Samples. The header has 32 bits for the size of the file less its first 8 bytes.
constexpr sf_count_t kMost = (UINT32_MAX - 36) / 2;

struct Descriptor {
  explicit Descriptor(const std::string& path_)
      : fd(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
    if (fd < 0) {
      throw Format("cannot write %s", path_.c_str());
    }
  }
  ~Descriptor() { close(fd); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  // True if the file has no bytes. Leaves the descriptor at the start.
  bool IsEmpty() const { return lseek(fd, 0, SEEK_END) + lseek(fd, 0, SEEK_SET) == 0; }

  const int fd;
};

struct Closer {
  void operator()(SNDFILE* file_) const { sf_close(file_); }
};

class WavSink : public Sink {
 public:
  WavSink(const std::string& path_, int rate_, bool is_paced_)
      : path(path_), pace(rate_), is_paced(is_paced_), descriptor(path_) {
    SF_INFO info = {};
    if (descriptor.IsEmpty()) {
      info.samplerate = rate_;
      info.channels = 1;
      info.format = kFormat;
    }
    file.reset(sf_open_fd(descriptor.fd, SFM_RDWR, &info, SF_FALSE));
    if (!file || info.format != kFormat || info.channels != 1 || info.samplerate != rate_) {
      throw Format("%s is not a WAV file of this player at %d Hz", path.c_str(), rate_);
    }
    // Overwrites samples that the header does not count, which a killed player left.
    length = sf_seek(file.get(), 0, SEEK_END | SFM_WRITE);
    sf_command(file.get(), SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
    sf_command(file.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
  }

  size_t Write(const int16_t* samples_, size_t count_) override {
    const size_t passed = is_paced ? pace.Pass(count_) : count_;
    const auto count = static_cast<sf_count_t>(passed);
    if (count > kMost - length) {
      throw Format("%s is full", path.c_str());
    }
    if (sf_write_short(file.get(), samples_, count) != count) {
      throw Format("cannot write %s", path.c_str());
    }
    length += count;
    return passed;
  }

  void Drain() override { pace.Drain(); }

 private:
  const std::string path;
  Pace pace;
  const bool is_paced;
  const Descriptor descriptor;  // Outlives the file.
  std::unique_ptr<SNDFILE, Closer> file;
  sf_count_t length = 0;  // Samples.
};

}  // namespace

std::unique_ptr<Sink> OpenWavSink(const std::string& path_, int rate_, bool is_paced_) {
  return std::make_unique<WavSink>(path_, rate_, is_paced_);
}

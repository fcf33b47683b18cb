// Translator on the engine espeak-ng, see vocastra-translators(1).

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "arguments.h"
#include "commandline.h"
#include "engine.h"
#include "format.h"
#include "markup.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "samples are written as they are");

namespace {

constexpr mode_t kAudioMode = 0644;  // The player may be another user.
constexpr size_t kMaxText = 1 << 20;

const Program kProgram = {
    "espeak-ng translator",
    EXIT_FAILURE,
    "Usage: espeak-ng TEXT-FILE AUDIO-FILE [ARGUMENT...] MESSAGE-NAME\n"
    "       espeak-ng --check [ARGUMENT...]\n"
    "Speaks TEXT-FILE into AUDIO-FILE, or says whether it could with these arguments.\n\n"
    "  voice=NAME             Voice or language (default en)\n"
    "  speed=N                Words per minute, 80 to 450 (default 175)\n"
    "  pitch=N                0 to 99 (default 50)\n"
    "  volume=N               0 to 200 (default 100)\n"
    "  rate=HZ                Sampling rate, 4000 to 192000 (default 22050)\n"
    "  limit=N                Seconds after which it ends, 1 to 3600 (default 20)\n\n",
    {},
    "\nExit status: 0, or 1 with one line on standard error.\n"};

// Data for the signal handler at the end of the time, which cannot allocate memory.
int report_fd = STDERR_FILENO;
int audio_fd = -1;
std::string late_line;

void Report(const std::string& line_) { WriteWhole(report_fd, line_.data(), line_.size()); }

std::string ErrorLine(std::string why_) {
  std::replace(why_.begin(), why_.end(), '\n', ' ');
  return std::string(kProgram.name) + ": " + why_ + "\n";
}

void EmptyAudio() {
  if (audio_fd >= 0 && ftruncate(audio_fd, 0) != 0) {
    return;  // It is not a regular file, so it keeps nothing.
  }
}

extern "C" void EndLate(int /*signal*/) {
  EmptyAudio();
  Report(late_line);
  _exit(EXIT_FAILURE);
}

void EndAfter(int seconds_) {
  late_line = ErrorLine(Format("not done within %d seconds", seconds_));
  struct sigaction action {};
  action.sa_handler = EndLate;
  sigaction(SIGALRM, &action, nullptr);
  sigset_t alarms;
  sigemptyset(&alarms);
  sigaddset(&alarms, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &alarms, nullptr);
  alarm(static_cast<unsigned>(seconds_));
}

// Redirects standard error: the engine writes several lines for one error.
void SilenceEngine() {
  report_fd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null_fd >= 0) {
    dup2(null_fd, STDERR_FILENO);
    close(null_fd);
  }
}

void OpenAudio(const std::string& path_) {
  audio_fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kAudioMode);
  if (audio_fd < 0) {
    throw Format("cannot write %s: %s", path_.c_str(), strerror(errno));
  }
  if (fchmod(audio_fd, kAudioMode) != 0) {
    throw Format("cannot change the mode of %s: %s", path_.c_str(), strerror(errno));
  }
}

std::string ReadText(const std::string& path_) {
  errno = 0;
  InputFile file(path_);
  if (!file.IsOpen()) {
    throw Format("cannot read %s: %s", path_.c_str(), strerror(errno));
  }
  std::string text;
  char block[4096];
  for (size_t count = 0; text.size() < kMaxText && (count = file.Read(block, sizeof(block))) > 0;) {
    text.append(block, count);
  }
  return text;
}

Samples Spoken(const std::string& text_, const Arguments& arguments_) {
  Engine engine(arguments_);
  Samples samples = engine.Speak(MarkedUp(text_));
  const bool has_sound =
      std::any_of(samples.begin(), samples.end(), [](int16_t sample_) { return sample_ != 0; });
  if (!has_sound && arguments_.volume > 0 && HasWords(text_)) {
    throw Format("voice %s has no sound for the text", arguments_.voice.c_str());
  }
  TrimEnd(samples, engine.Rate());
  const int64_t pause = (int64_t{PauseAfter(text_)} * engine.Rate() + 500) / 1000;
  samples.resize(samples.size() + static_cast<size_t>(pause));
  return engine.Rate() == arguments_.rate ? samples
                                          : Resampled(samples, engine.Rate(), arguments_.rate);
}

// Translates a text file. arguments_: those after the name of the program.
void Translate(const std::vector<std::string>& arguments_) {
  if (arguments_.size() < 3) {
    throw std::string("usage: espeak-ng TEXT-FILE AUDIO-FILE [ARGUMENT...] MESSAGE-NAME");
  }
  OpenAudio(arguments_[1]);
  const std::string text = Cleaned(ReadText(arguments_[0]));
  const Arguments parsed = ParseArguments({arguments_.begin() + 2, arguments_.end() - 1});
  EndAfter(parsed.limit);
  const Samples samples = Spoken(text, parsed);
  if (!WriteWhole(audio_fd, reinterpret_cast<const char*>(samples.data()),
                  samples.size() * sizeof(samples[0]))) {
    throw Format("cannot write %s: %s", arguments_[1].c_str(), strerror(errno));
  }
}

void Check(const std::vector<std::string>& arguments_) {
  const Arguments parsed = ParseArguments(arguments_);
  EndAfter(parsed.limit);
  const Engine engine(parsed);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
  if (arguments.size() == 1 && arguments[0] != "--check") {
    ParseCommandLine(kProgram, argc, argv);
  }
  SilenceEngine();
  std::string why;
  try {
    if (!arguments.empty() && arguments[0] == "--check") {
      Check({arguments.begin() + 1, arguments.end()});
    } else {
      Translate(arguments);
    }
    return EXIT_SUCCESS;
  } catch (const std::string& text) {
    why = text;
  } catch (const std::exception& e) {
    why = e.what();
  }
  EmptyAudio();
  Report(ErrorLine(why));
  return EXIT_FAILURE;
}

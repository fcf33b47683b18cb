#include "preview.h"

#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "clock.h"
#include "format.h"
#include "words.h"

namespace {

constexpr size_t kMaxRunning = 2;
constexpr size_t kMaxKept = 8;  // Their files may be in memory.
constexpr double kLimit = 20;   // Seconds.
constexpr rlim_t kMaxProcessor = 20;
constexpr rlim_t kMaxSound = 8 << 20;  // Bytes; three minutes.
constexpr int kDefaultRate = 22050;
constexpr int kMaxRate = 192000;
constexpr int kMaxSeconds = 60;  // Length of the sound that is sent.
constexpr int kBytesPerSample = 2;
constexpr size_t kHeaderBytes = 44;

void Limit(__rlimit_resource_t resource_, rlim_t value_) {
  const struct rlimit limit = {value_, value_};
  setrlimit(resource_, &limit);
}

[[noreturn]] void Exec(char* const* arguments_, int parent_) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent_) {
    _exit(EXIT_FAILURE);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  Limit(RLIMIT_CPU, kMaxProcessor);
  Limit(RLIMIT_FSIZE, kMaxSound);
  Limit(RLIMIT_CORE, 0);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    dup2(null, fd);
  }
  execv(arguments_[0], arguments_);
  _exit(127);
}

int SpawnTranslator(std::vector<std::string> words_) {
  std::vector<char*> arguments;
  arguments.reserve(words_.size() + 1);
  for (std::string& word : words_) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  const int parent = getpid();
  const int pid = fork();
  if (pid == 0) {
    Exec(arguments.data(), parent);
  }
  if (pid < 0) {
    throw Format("The preview cannot be started: %s.", strerror(errno));
  }
  setpgid(pid, pid);  // Parent and child both do this, so that the group can be killed at once.
  return pid;
}

void WritePrivate(const std::string& path_, const std::string& text_) {
  const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  const bool is_written = fd >= 0 && WriteWhole(fd, text_.data(), text_.size());
  const int error = errno;
  if (fd >= 0) {
    close(fd);
  }
  if (!is_written) {
    throw Format("The preview cannot be made: %s.", strerror(error));
  }
}

off_t SizeOf(const std::string& path_) {
  struct stat status = {};
  return stat(path_.c_str(), &status) == 0 ? status.st_size : 0;
}

std::string ReadUpTo(const std::string& path_, size_t limit_) {
  InputFile file(path_);
  std::string bytes(std::min(limit_, static_cast<size_t>(SizeOf(path_))), '\0');
  bytes.resize(file.Read(bytes.data(), bytes.size()));
  return bytes;
}

void Append(std::string& bytes_, uint32_t number_, int count_) {
  for (int i = 0; i < count_; ++i) {
    bytes_ += static_cast<char>(number_ >> (8 * i) & 0xFF);
  }
}

}  // namespace

std::string WavOf(const std::string& sound_, int rate_, int max_seconds_) {
  if (sound_.compare(0, 4, "RIFF") == 0) {
    return sound_;
  }
  const size_t limit =
      static_cast<size_t>(rate_) * kBytesPerSample * static_cast<size_t>(max_seconds_);
  const size_t size = std::min(sound_.size(), limit) / kBytesPerSample * kBytesPerSample;
  std::string wav = "RIFF";
  wav.reserve(kHeaderBytes + size);
  Append(wav, static_cast<uint32_t>(kHeaderBytes - 8 + size), 4);
  wav += "WAVEfmt ";
  Append(wav, 16, 4);  // Bytes of this chunk.
  Append(wav, 1, 2);   // PCM.
  Append(wav, 1, 2);   // Channels.
  Append(wav, static_cast<uint32_t>(rate_), 4);
  Append(wav, static_cast<uint32_t>(rate_ * kBytesPerSample), 4);
  Append(wav, kBytesPerSample, 2);
  Append(wav, 8 * kBytesPerSample, 2);
  wav += "data";
  Append(wav, static_cast<uint32_t>(size), 4);
  return wav.append(sound_, 0, size);
}

Previews::Previews(const std::string& translator_) : translator(translator_) {}

Previews::~Previews() {
  while (!previews.empty()) {
    Drop(previews.begin()->first);
  }
  if (!scratch.empty()) {
    rmdir(scratch.c_str());
  }
}

int Previews::Start(const std::string& user_, const std::string& snippet_,
                    const std::vector<std::string>& arguments_) {
  if (!AreThere()) {
    throw std::string("There are no previews on this device.");
  }
  for (auto next = previews.begin(); next != previews.end();) {
    const int number = (next++)->first;
    if (previews.at(number).user == user_) {
      Drop(number);
    }
  }
  const auto runs = [](const auto& item_) { return item_.second.pid != 0; };
  if (std::count_if(previews.begin(), previews.end(), runs) >= static_cast<int>(kMaxRunning)) {
    throw std::string("Other previews are being made. Try again in a moment.");
  }
  while (previews.size() >= kMaxKept) {
    Drop(std::find_if_not(previews.begin(), previews.end(), runs)->first);
  }
  Scratch();
  const int number = ++last_number;
  Preview& preview = previews[number];
  preview.user = user_;
  preview.rate = std::min(NumberAmong(arguments_, "rate", kDefaultRate), kMaxRate);
  preview.deadline = Now() + kLimit;
  try {
    WritePrivate(PathOf(number, "text"), snippet_);
    WritePrivate(PathOf(number, "sound"), "");
    std::vector<std::string> words = {translator, PathOf(number, "text"), PathOf(number, "sound")};
    words.insert(words.end(), arguments_.begin(), arguments_.end());
    words.push_back("preview");  // Instead of the message's name.
    preview.pid = SpawnTranslator(std::move(words));
  } catch (const std::string&) {
    Drop(number);
    throw;
  }
  return number;
}

Previews::State Previews::Get(const std::string& user_, int number_, std::string& wav_) const {
  const auto found = previews.find(number_);
  if (found == previews.end() || found->second.user != user_) {
    return kNone;
  }
  const Preview& preview = found->second;
  if (preview.pid != 0) {
    return kRunning;
  }
  const std::string path = PathOf(number_, "sound");
  if (!preview.is_done || SizeOf(path) == 0) {
    return kFailed;
  }
  const size_t limit = static_cast<size_t>(preview.rate) * kBytesPerSample * kMaxSeconds;
  wav_ = WavOf(ReadUpTo(path, limit), preview.rate, kMaxSeconds);
  return kReady;
}

void Previews::OnChild() {
  for (auto& [number, preview] : previews) {
    int status = 0;
    if (preview.pid != 0 && waitpid(preview.pid, &status, WNOHANG) == preview.pid) {
      kill(-preview.pid, SIGKILL);  // Processes that the translator has left.
      preview.pid = 0;
      preview.is_done = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
  }
}

int Previews::NextTimeout() const {
  double first = -1;
  for (const auto& [number, preview] : previews) {
    if (preview.pid != 0 && (first < 0 || preview.deadline < first)) {
      first = preview.deadline;
    }
  }
  return first < 0 ? -1 : std::max(0, static_cast<int>(ceil((first - Now()) * 1000)));
}

void Previews::OnTimeout() {
  for (auto& [number, preview] : previews) {
    if (preview.pid != 0 && Now() >= preview.deadline) {
      kill(-preview.pid, SIGKILL);
      preview.deadline = Now() + kLimit;  // SIGCHLD reports its end.
    }
  }
}

const std::string& Previews::Scratch() {
  if (scratch.empty()) {
    scratch = CreateTemporaryDirectory("vocastra-desk-");
  }
  return scratch;
}

std::string Previews::PathOf(int number_, const char* kind_) const {
  return Format("%s/%d.%s", scratch.c_str(), number_, kind_);
}

void Previews::Drop(int number_) {
  const Preview& preview = previews.at(number_);
  if (preview.pid != 0) {
    kill(-preview.pid, SIGKILL);
    waitpid(preview.pid, nullptr, 0);
  }
  unlink(PathOf(number_, "text").c_str());
  unlink(PathOf(number_, "sound").c_str());
  previews.erase(number_);
}

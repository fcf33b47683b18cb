#include "format.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <limits>
#include <memory>

#include "debug.h"
#include "safe_strncpycat.h"

namespace {

constexpr size_t kPathSize = 4096;

// The template of a temporary name.
std::string TemplatePath(const char* prefix_) {
  char text[kPathSize];
  safe_strncpy(text, sizeof(text), "/tmp/");
  safe_strncat(text, sizeof(text), prefix_);
  safe_strncat(text, sizeof(text), "XXXXXX");
  return text;
}

// Blocks SIGINT and ignores SIGQUIT while it exists.
class CommandSignals {
 public:
  CommandSignals() {
    sigset_t sigint;
    sigemptyset(&sigint);
    sigaddset(&sigint, SIGINT);
    sigprocmask(SIG_BLOCK, &sigint, &saved_mask);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGQUIT, &ignore, &saved_sigquit);
  }
  ~CommandSignals() {
    sigaction(SIGQUIT, &saved_sigquit, nullptr);
    sigprocmask(SIG_SETMASK, &saved_mask, nullptr);
  }
  CommandSignals(const CommandSignals&) = delete;
  CommandSignals& operator=(const CommandSignals&) = delete;

  // Starts the command with the signals as they were before.
  void SpareCommand(posix_spawnattr_t* attributes_) const {
    short flags = POSIX_SPAWN_SETSIGMASK;
    posix_spawnattr_setsigmask(attributes_, &saved_mask);
    if (saved_sigquit.sa_handler != SIG_IGN) {
      sigset_t sigquit;
      sigemptyset(&sigquit);
      sigaddset(&sigquit, SIGQUIT);
      posix_spawnattr_setsigdefault(attributes_, &sigquit);
      flags |= POSIX_SPAWN_SETSIGDEF;
    }
    posix_spawnattr_setflags(attributes_, flags);
  }

 private:
  sigset_t saved_mask;
  struct sigaction saved_sigquit {};
};

}  // namespace

std::string Format(const char* format_, ...) {
  va_list args;
  va_start(args, format_);
  char* buffer = nullptr;
  const int length = vasprintf(&buffer, format_, args);
  va_end(args);  // NOMUTATE(call): generates no code.
  // NOMUTATE(operator, constant): an empty text either way; asan notices the leak.
  if (length < 0) {
    return std::string();
  }
  const std::unique_ptr<char, decltype(&free)> owner(buffer, free);
  return std::string(buffer, static_cast<size_t>(length));
}

int ParseInteger(const std::string& s_) {
  const char* text = s_.c_str();
  char* end = nullptr;
  const int base = s_.find("0x") != std::string::npos ? 0 : 10;
  errno = 0;
  const long value = strtol(text, &end, base);
  const bool whole = text[0] != '\0' && end == text + s_.size();
  if (!whole || errno != 0 || value < INT_MIN || value > INT_MAX) {
    throw Format("Could not convert \"%s\" to integer", text);
  }
  return static_cast<int>(value);
}

std::string AddTrailingSlash(const std::string& s_) {
  return s_.empty() || s_.back() == '/' ? s_ : s_ + "/";
}

std::string ListToString(const std::list<std::string>& words_) {
  std::string joined;
  for (const std::string& word : words_) {
    if (!joined.empty()) {
      joined += "|";
    }
    joined += word;
  }
  return joined;
}

int RunShell(const std::string& cmd_) {
  const CommandSignals signals;
  char shell[] = "sh";
  char option[] = "-c";
  // Not a copy, as commands that clean up must run even if memory runs out.
  char* const arguments[] = {shell, option, const_cast<char*>(cmd_.c_str()), nullptr};
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  signals.SpareCommand(&attributes);
  pid_t pid = 0;  // NOMUTATE(constant): posix_spawn sets it.
  const int error = posix_spawn(&pid, "/bin/sh", nullptr, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);  // NOMUTATE(call): releases nothing in this C library.
  if (error != 0) {
    return -1;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {  // NOMUTATE(constant): it is never 0.
    if (errno != EINTR) {
      return -1;
    }
  }
  return status;
}

// NOMUTATE(constant): -2 has such bits as well.
bool CommandFailed(int status_) { return status_ == -1 || (status_ & 0xFF00) != 0; }

void RunCommand(const std::string& cmd_) {
  if (CommandFailed(RunShell(cmd_))) {
    Debug(kDebugNormal, "Could not execute \"%s\"", cmd_.c_str());
  }
}

std::string CreateTemporaryDirectory(const char* prefix_) {
  const std::string path_template = TemplatePath(prefix_);
  std::string path = path_template;  // Overwritten, also on failure.
  if (mkdtemp(path.data()) == nullptr) {
    throw Format("Could not create temporary directory with template \"%s\"",
                 path_template.c_str());
  }
  return path;
}

std::string CreateTemporaryFile(const char* prefix_) {
  const std::string path_template = TemplatePath(prefix_);
  std::string path = path_template;
  const int fd = mkostemp(path.data(), O_CLOEXEC);
  if (fd < 0) {  // NOMUTATE(operator): descriptor 0 is never free.
    throw Format("Could not create temporary file with template \"%s\"", path_template.c_str());
  }
  close(fd);
  return path;
}

bool WriteWhole(int fd_, const char* data_, size_t length_) {
  size_t written = 0;
  while (written < length_) {
    const ssize_t count = write(fd_, data_ + written, length_ - written);
    if (count > 0) {
      written += static_cast<size_t>(count);
    } else if (count == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

InputFile::InputFile(const std::string& path_)
    : fd(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
  struct stat status {};
  if (!IsOpen()) {
    return;
  }
  if (fstat(fd, &status) < 0 || !S_ISREG(status.st_mode)) {
    close(fd);
    fd = -1;
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return;
  }
  // Files that the kernel makes up have no size; these are read until they end.
  unread = status.st_size > 0 ? status.st_size : std::numeric_limits<off_t>::max();
}

InputFile::~InputFile() {
  if (fd >= 0) {  // NOMUTATE(constant): close(-1) does nothing.
    close(fd);
  }
}

size_t InputFile::Read(void* buffer_, size_t size_) {
  char* const buffer = static_cast<char*>(buffer_);
  const size_t limit = unread < static_cast<off_t>(size_) ? static_cast<size_t>(unread) : size_;
  size_t length = 0;
  while (IsOpen() && length < limit) {
    const ssize_t count = read(fd, buffer + length, limit - length);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      break;
    }
    length += static_cast<size_t>(count);
  }
  unread -= static_cast<off_t>(length);
  return length;
}

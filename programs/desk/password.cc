#include "password.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr size_t kMaxLine = 1024;  // Bytes; a longer password is refused later.

// Turns the terminal's echo off while it lives. A signal that would end the program only ends the
// read, so that the echo is restored.
class Silence {
 public:
  Silence() {
    tcgetattr(STDIN_FILENO, &before);
    termios silent = before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) {};
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
      sigaction(signal, &interrupt, nullptr);
    }
  }
  ~Silence() { tcsetattr(STDIN_FILENO, TCSAFLUSH, &before); }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  termios before = {};
};

std::string ReadLine() {
  std::string line;
  char c = '\0';
  ssize_t count = 0;
  while (line.size() < kMaxLine && (count = read(STDIN_FILENO, &c, 1)) == 1 && c != '\n') {
    line += c;
  }
  if (count < 0 || (count == 0 && line.empty())) {
    throw std::string("no password");
  }
  return line;
}

std::string Ask(const char* question_) {
  fputs(question_, stderr);
  std::string line = ReadLine();
  fputs("\n", stderr);
  return line;
}

}  // namespace

std::string ReadPassword() {
  if (isatty(STDIN_FILENO) == 0) {
    return ReadLine();
  }
  const Silence silence;
  std::string password = Ask("Password: ");
  if (Ask("Again: ") != password) {
    throw std::string("the two passwords differ");
  }
  return password;
}

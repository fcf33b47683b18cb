// Formatting into strings, and the small string, number, command and file helpers that several
// modules share.
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <list>
#include <string>

// The message formatted as by printf; empty if the C library cannot format it.
std::string Format(const char* format_, ...) __attribute__((format(printf, 1, 2)));

// The number that the whole of s_ denotes: decimal ("010" is ten), or, if "0x" is anywhere in it,
// with strtol's automatic base. Leading white space and a sign are accepted, nothing may
// follow. Throws a string if s_ is no such number or lies outside
// -2147483648..2147483647, whatever the size of long.
int ParseInteger(const std::string& s_);

// The path with a "/" at its end. The empty path stays empty: it must not become the root.
std::string AddTrailingSlash(const std::string& s_);

// The words joined by "|". Empty words at the head add no separator.
std::string ListToString(const std::list<std::string>& words_);

// Runs cmd_ through /bin/sh and waits for its end. Returns the status as waitpid gives it, or -1
// if no shell could be started or its status was lost.
//
// Not system(): that discards a SIGINT which arrives while it sets up. Here SIGINT is blocked, so
// that a stop request stays pending until the command has ended. All else is as with system():
// SIGQUIT is ignored meanwhile, and the command starts with the caller's signal mask and
// disposition of SIGQUIT, so that a Ctrl-C or Ctrl-\ at the terminal ends the command.
int RunShell(const std::string& cmd_);

// True if status_, a result of RunShell, says that nothing ran or that the command exited with a
// code other than 0.
//
// A command counts as done if a signal ends the shell itself. If a signal ends a program that the
// shell waits for, the shell exits with 128 plus the signal's number, and the command counts as
// failed. dash waits for every program. Other shells may exec the program if the command is only
// that program, as busybox does for a translator; then the command counts as done.
bool CommandFailed(int status_);

// Runs cmd_ through RunShell and logs it if it failed.
void RunCommand(const std::string& cmd_);

// Creates a directory "/tmp/<prefix_>XXXXXX" (XXXXXX unique) with mode 0700 and returns its path.
// Throws a string on failure.
std::string CreateTemporaryDirectory(const char* prefix_);

// Creates an empty file "/tmp/<prefix_>XXXXXX" with mode 0600, closes it and returns its path.
// Throws a string on failure.
std::string CreateTemporaryFile(const char* prefix_);

// Writes length_ bytes, in one system call if the file takes all at once. False if not all of them
// could be written; errno tells why.
bool WriteWhole(int fd_, const char* data_, size_t length_);

// A regular file opened for reading, closed with the object and on exec. Nothing else can be
// opened: a FIFO would have to wait for its writer, and a device may have no end.
class InputFile {
 public:
  // If the file cannot be opened, errno tells why.
  explicit InputFile(const std::string& path_);
  ~InputFile();

  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  bool IsOpen() const { return fd >= 0; }

  // Reads up to size_ bytes and returns their number, less than size_ only at the end of the
  // file or after an error. 0 if the file is not open.
  //
  // The file ends where it ended when it was opened, even if it grows: this saves the read that
  // would find the end.
  size_t Read(void* buffer_, size_t size_);

 private:
  int fd;
  off_t unread = 0;  // Bytes up to the end of the file; more if the end is not known.
};

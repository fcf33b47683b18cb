// A file in the local directory that is being written, closed with the object and on exec.
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <string>

// The local directory does not take what it has to. Not a string, as it is no failure of the
// server.
struct LocalTrouble {
  std::string reason;
};

class LocalFile {
 public:
  // Opens path_ for writing and creates it if it is missing; flags_ are added, such as O_TRUNC or
  // O_APPEND. Everybody may read it, whatever the umask: the daemon may copy a message, with its
  // mode, for others to read. Throws LocalTrouble, as the others do.
  explicit LocalFile(const std::string& path_, int flags_);
  ~LocalFile();

  LocalFile(const LocalFile&) = delete;
  LocalFile& operator=(const LocalFile&) = delete;

  void Write(const char* data_, size_t size_);

  // Gives the file another name, in place of the file that has it.
  void Rename(const std::string& path_);

  // Gives the file and another one each other's names. False if the file system cannot, or there is
  // no other one.
  bool Exchange(const std::string& path_);

  // False if somebody has removed the file, or put another one into its place.
  bool IsInPlace() const;

 private:
  std::string path;
  int fd;
};

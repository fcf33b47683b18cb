// A file in the local directory that is being written. The destructor closes it, and so does exec.
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <string>

// Thrown if the local directory cannot be written. Not a string: strings are failures of the
// server.
struct LocalTrouble {
  std::string reason;
};

class LocalFile {
 public:
  // Opens path_ for writing and creates it if it is missing; flags_ are added, such as O_TRUNC or
  // O_APPEND. Everybody may read the file, independent of the umask: the daemon may copy a message
  // with its mode, and others read the copy. Throws LocalTrouble, as the other functions do.
  explicit LocalFile(const std::string& path_, int flags_);
  ~LocalFile();

  LocalFile(const LocalFile&) = delete;
  LocalFile& operator=(const LocalFile&) = delete;

  void Write(const char* data_, size_t size_);

  // Renames the file. Replaces a file that has the new name.
  void Rename(const std::string& path_);

  // Exchanges the names of this file and the one at path_. False if the file system cannot, or
  // there is no other file.
  bool Exchange(const std::string& path_);

  // False if the file was removed or replaced.
  bool IsInPlace() const;

 private:
  std::string path;
  int fd;
};

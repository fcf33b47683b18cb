// A file on its way into an input directory. It is written under a hidden name, which the daemon
// ignores, and renamed when it is complete.
#pragma once

#include <string>

class HiddenFile {
 public:
  // Creates an empty file in directory_, which ends in "/".
  // Throws a string on failure, as Write and Publish do.
  explicit HiddenFile(const std::string& directory_);
  // Removes the file unless it was published.
  ~HiddenFile();

  HiddenFile(const HiddenFile&) = delete;
  HiddenFile& operator=(const HiddenFile&) = delete;

  const std::string& path() const { return file_path; }

  // Writes the whole content and lets everybody read it. To be called once.
  void Write(const std::string& bytes_);

  // Renames the file; the daemon may take it at once.
  void Publish(const std::string& name_);

 private:
  int Close();
  void Require(bool is_ok_) const;

  std::string directory;
  std::string file_path;
  int fd = -1;
  bool is_published = false;
};

// A name for a message, safe in a shell: source_, the present time and the number of the process.
// The names of one source are unique and sort in the order of the calls, as the daemon takes
// waiting files in the order of their names.
std::string MessageName(const std::string& source_);

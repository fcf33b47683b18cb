// A directory that several processes share under one advisory lock.
//
// A listed file is a regular file whose name does not begin with a dot. Every operation ignores all
// other entries, even those whose type the file system does not report. Counting, listing, moving,
// copying and clearing take the lock (an exclusive flock on the directory itself) for their
// duration; Lock and Unlock are for callers that need it for longer.
#pragma once

#include <list>
#include <string>

class Directory {
 public:
  // Opens path_, with or without a trailing slash.
  // Throws a string naming the directory if it cannot be opened.
  explicit Directory(const std::string& path_);
  // Releases the lock.
  ~Directory();

  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  // Waits for the lock and takes it. A failure is logged, and the caller carries on without it.
  void Lock();
  // Releases the lock, however often it was taken.
  void Unlock();

  // Number of listed files. Logs and returns 0 if the directory is unreadable.
  int GetFileCountLocked();

  // Names (without directory) of the listed files in byte order: "B" before "a", "10" before
  // "9". Throws a string if the directory is unreadable; the lock is held then until Unlock or
  // the end of the object. Empty, with a log line, if there is no memory.
  // If files vanish during the call, there are empty names at the head, and as many names are
  // missing at the end. The next listing has them.
  std::list<std::string> GetFileNames();

  // Move or copy the file at current_path_ into the directory as new_name_, through the shell
  // and without quoting: neither may hold blanks or shell characters. A failure is logged.
  void MoveIntoDirectoryLocked(const std::string& current_path_, const std::string& new_name_);
  void CopyIntoDirectoryLocked(const std::string& current_path_, const std::string& new_name_);

  // Deletes every listed file; files that resist stay. Throws as GetFileNames does.
  // The lock is held for the listing only: a player that waits for it may take files meanwhile.
  void ClearDirectoryLocked();

 private:
  struct Impl;
  Impl* impl;  // Owned.
};

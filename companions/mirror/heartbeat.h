// The file ".helper.timestamp". Its changes tell the daemon that the mirror is alive.
#pragma once

#include <string>

class Heartbeat {
 public:
  // directory_ ends in "/".
  explicit Heartbeat(const std::string& directory_);

  // True if there was a beat, even of an earlier process.
  bool HasBegun() const { return number >= 0; }

  // Replaces the file by one with another text. Throws LocalTrouble. From the second beat on, two
  // files are exchanged: on a disk, to create a file for each beat would take a third of a look's
  // processor time.
  void Beat();

 private:
  std::string path;
  int number = -1;         // Of the last beat.
  bool has_spare = false;  // The previous beat's file exists, under a hidden name.
};

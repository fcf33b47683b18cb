// The file ".helper.timestamp", by whose changes the daemon knows that the mirror is alive.
#pragma once

#include <string>

class Heartbeat {
 public:
  // directory_ ends in "/".
  explicit Heartbeat(const std::string& directory_);

  // True if there was a beat, also one of another object before.
  bool HasBegun() const { return number >= 0; }

  // Replaces the file by one with another text. Throws LocalTrouble. From the second beat on, two
  // files take turns: on a disk, a new file for each beat would take a third of the processor time
  // of a look.
  void Beat();

 private:
  std::string path;
  int number = -1;         // Of the last beat.
  bool has_spare = false;  // The file of the beat before is there, under its hidden name.
};

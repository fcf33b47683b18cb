// The files of the server as a mirror knows them, and its memory of what it delivered. The daemon
// removes a file that it takes; a mirror without memory would deliver it again.
//
// The memory is in the local directory, in the hidden file ".helper.delivered". A delivery adds a
// line to it and then renames the hidden file with the content. So the next process can go on after
// an end at any moment: if the hidden file of a line still exists, it completes that delivery.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <limits>
#include <memory>
#include <string>
#include <unordered_map>

#include "localfile.h"

// A number that identifies a version of a file, never 0.
uint64_t Fingerprint(uint64_t size_, const std::string& time_);

struct KnownFile {
  uint64_t shown = 0;      // Fingerprint of size and stamp in the last listing that had the file.
  uint64_t delivered = 0;  // Fingerprint of the delivered copy's size and stamp; 0: none.
  uint64_t version = 0;    // Fingerprint of that copy's size and exact time.
  double due = 0;          // The earliest time at which the file may be fetched or deleted.
  // When to ask for the exact time again.
  double next_check = std::numeric_limits<double>::infinity();
  uint32_t seen = 0;      // Number of the last look that found it.
  uint16_t tries = 0;     // Failed tries since the last delivery.
  uint8_t told = 0;       // Bits: the failures that were reported.
  uint8_t checks = 0;     // Requests for the exact time since the delivery.
  bool is_local = false;  // The last look into the local directory found the copy.
};

class Known {
 public:
  using Files = std::unordered_map<std::string, KnownFile>;

  // Reads the memory, completes an interrupted delivery and removes other hidden parts. directory_
  // ends in "/". Throws LocalTrouble, as the other functions do.
  explicit Known(const std::string& directory_);

  Known(const Known&) = delete;
  Known& operator=(const Known&) = delete;

  Files& files() { return known; }

  // True if the memory's file is gone: the directory was emptied or replaced.
  bool HasLostMemory() const { return memory && !memory->IsInPlace(); }

  // Writes the memory again.
  void Rewrite();

  // A number for a new hidden file, never 0, and the file's path.
  uint64_t NextPart() { return ++last_part; }
  std::string PartPath(uint64_t part_) const;

  // A delivery has two steps. Record notes in the memory that the hidden file holds the version of
  // file_ that is shown now; if it throws, nothing has changed. Finish renames the hidden file, and
  // is to be repeated if it throws. No other change may come between them.
  void Record(Files::value_type& file_, uint64_t version_, uint64_t part_);
  void Finish();

  // Removes the local copy, if one was delivered, and the file's entry. Returns the next file.
  Files::iterator Forget(Files::iterator file_);

 private:
  void Load();
  void TakeLine(const std::string& line_);
  void RemoveParts() const;
  void Remember(const std::string& line_);

  std::string directory;
  Files known;
  std::unique_ptr<LocalFile> memory;  // Null: the memory must be rewritten before a line is added.
  size_t lines = 0;                   // In the memory.
  uint64_t last_part = 0;
  std::string unfinished;        // The file that is being delivered,
  uint64_t unfinished_part = 0;  // from that part; 0: none.
};

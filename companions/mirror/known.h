// The files of the server as a mirror knows them, and its memory of what it delivered. The daemon
// removes a file that it takes; a mirror without memory would deliver it again.
//
// The memory is in the local directory, in the hidden file ".helper.delivered". A delivery adds a
// line to it and then renames the hidden file with the content. So a process that is ended at any
// moment leaves enough for the next one to go on: a line whose hidden file is still there is a
// delivery to be completed.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <limits>
#include <memory>
#include <string>
#include <unordered_map>

#include "localfile.h"

// A number that tells versions of a file apart, never 0.
uint64_t Fingerprint(uint64_t size_, const std::string& time_);

struct KnownFile {
  uint64_t shown = 0;      // Fingerprint of size and stamp in the last listing that had the file.
  uint64_t delivered = 0;  // That of the copy that was delivered; 0: none.
  uint64_t version = 0;    // Fingerprint of that copy's size and exact time.
  double due = 0;          // When the file may be fetched, or deleted, at the earliest.
  double next_check = std::numeric_limits<double>::infinity();  // When to ask for the exact time.
  uint32_t seen = 0;      // Number of the last look that found it.
  uint16_t tries = 0;     // That did not succeed since it was delivered last.
  uint8_t told = 0;       // Bits: the troubles that were reported.
  uint8_t checks = 0;     // How often the exact time was asked for since the delivery.
  bool is_local = false;  // The last look into the local directory found the copy.
};

class Known {
 public:
  using Files = std::unordered_map<std::string, KnownFile>;

  // Reads the memory, completes a delivery that was cut short and removes other hidden parts.
  // directory_ ends in "/". Throws LocalTrouble, as the others do.
  explicit Known(const std::string& directory_);

  Known(const Known&) = delete;
  Known& operator=(const Known&) = delete;

  Files& files() { return known; }

  // Somebody has emptied the directory, or put another one into its place: the memory is gone.
  bool HasLostMemory() const { return memory && !memory->IsInPlace(); }

  // Writes the memory again.
  void Rewrite();

  // A number for a new hidden file, never 0, and the file's path.
  uint64_t NextPart() { return ++last_part; }
  std::string PartPath(uint64_t part_) const;

  // A delivery in two steps. The first writes into the memory that the hidden file is the version
  // of file_ that is shown now; if it throws, nothing has happened. The second gives the hidden
  // file its name, and is repeated if it throws. To be called before any other change.
  void Record(Files::value_type& file_, uint64_t version_, uint64_t part_);
  void Finish();

  // Removes the local copy, if one was delivered, and the knowledge. Returns the next file.
  Files::iterator Forget(Files::iterator file_);

 private:
  void Load();
  void TakeLine(const std::string& line_);
  void RemoveParts() const;
  void Remember(const std::string& line_);

  std::string directory;
  Files known;
  std::unique_ptr<LocalFile> memory;  // Null: to be rewritten before anything is added.
  size_t lines = 0;                   // In the memory.
  uint64_t last_part = 0;
  std::string unfinished;        // The file that is being delivered,
  uint64_t unfinished_part = 0;  // from that part; 0: none.
};

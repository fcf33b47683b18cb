// Names of files that are not passed on: the daemon hands names to the shell.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

// True for names of the form [A-Za-z0-9_][A-Za-z0-9._+=@-]* of at most 255 bytes.
bool IsSafeName(const std::string& name_);

// Tells which unsafe names are to be reported: each once, as long as listings show it, and not
// before two listings in a row do; it may be a name for the time of an upload.
class UnsafeNames {
 public:
  // Before a listing. Of one that was not ended, nothing counts.
  void BeginListing() { names.clear(); }

  // True if the name is to be reported.
  bool Take(const std::string& name_);

  void EndListing();

 private:
  // Fingerprints. The lowest bit is set if the name was reported.
  std::vector<uint64_t> names;
  std::vector<uint64_t> names_before;  // Sorted.
};

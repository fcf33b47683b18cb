// Names of files that the mirror refuses: the daemon passes names to the shell.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

// True for names of the form [A-Za-z0-9_][A-Za-z0-9._+=@-]* of at most 255 bytes.
bool IsSafeName(const std::string& name_);

// Decides which unsafe names to report: each once while listings show it, and only after two
// listings in a row, as an upload may have a temporary name.
class UnsafeNames {
 public:
  // To be called before a listing. Names of a listing without EndListing are ignored.
  void BeginListing() { names.clear(); }

  // True if the name is to be reported.
  bool Take(const std::string& name_);

  void EndListing();

 private:
  // Fingerprints. The lowest bit is set if the name was reported.
  std::vector<uint64_t> names;
  std::vector<uint64_t> names_before;  // Sorted.
};

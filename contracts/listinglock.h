// Keeps the daemon from listing a directory while a file appears or disappears in it.
//
// The daemon lists in two passes, under the directory's lock: it counts the files, and then takes
// as many names. If a file comes in between, another name is left out. That message is then said
// after later ones; or, where files stay, the daemon forgets the file and says it again.
#pragma once

#include <string>

#include "descriptor.h"

class ListingLock {
 public:
  // Waits for the lock, 0.1 s at most, since somebody else may hold it for long; then, or if the
  // directory may not be read, goes on without it. The lock ends with the object.
  explicit ListingLock(const std::string& directory_);

 private:
  const Descriptor directory;
};

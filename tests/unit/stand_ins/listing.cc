#include "stand_ins/listing.h"

#include <unistd.h>

#include "stand_ins/real.h"

using stand_ins::listing;
using stand_ins::Real;

stand_ins::Listing stand_ins::listing;

dirent* readdir(DIR* directory_) {
  if (listing.before_readdir) {
    listing.before_readdir();
  }
  if (listing.next_entry) {
    return const_cast<dirent*>(listing.next_entry());
  }
  return Real<dirent*(DIR*)>("readdir64")(directory_);  // With 64-bit inode numbers.
}

void rewinddir(DIR* directory_) noexcept {
  if (listing.before_rewinddir) {
    listing.before_rewinddir();
  }
  Real<void(DIR*)>("rewinddir")(directory_);
}

int unlink(const char* path_) noexcept {
  if (listing.before_unlink) {
    listing.before_unlink(path_);
  }
  return Real<int(const char*)>("unlink")(path_);
}

#include "listinglock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>

#include "clock.h"

namespace {

constexpr int kTries = 100;
constexpr int kPause = 1;  // Milliseconds; the daemon holds the lock about that long.

}  // namespace

ListingLock::ListingLock(const std::string& directory_)
    : directory(open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  for (int tries = 0; tries < kTries; ++tries) {
    if (flock(directory.fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) {
      return;
    }
    Nap(kPause);
  }
}

#include "directory.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "debug.h"
#include "format.h"

namespace {

constexpr size_t kSlotSize = 4096;  // One file name in the scratch area.

struct DirCloser {
  void operator()(DIR* dir_) const { closedir(dir_); }
};
using Listing = std::unique_ptr<DIR, DirCloser>;

// The next listed file, or null at the end of the listing.
const dirent* NextFile(const Listing& listing_) {
  const dirent* entry = nullptr;
  do {
    entry = readdir(listing_.get());
  } while (entry != nullptr && (entry->d_type != DT_REG || entry->d_name[0] == '.'));
  return entry;
}

size_t CountFiles(const Listing& listing_) {
  size_t count = 0;
  while (NextFile(listing_) != nullptr) {
    ++count;
  }
  return count;
}

// Cut to what a slot holds.
void CopyName(char* slot_, const char* name_) {
  const size_t length = strnlen(name_, kSlotSize - 1);
  memcpy(slot_, name_, length);
  slot_[length] = '\0';
}

// Compares two slots by their addresses.
int CompareSlots(const void* a_, const void* b_) {
  return strcmp(*static_cast<const char* const*>(a_), *static_cast<const char* const*>(b_));
}

}  // namespace

struct Directory::Impl {
  explicit Impl(const std::string& path_);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // Releases the lock at the end of a block, even if memory runs out.
  struct UnlockAtEnd {
    explicit UnlockAtEnd(const Impl& directory_) : directory(directory_) {}
    ~UnlockAtEnd() { directory.Unlock(); }
    UnlockAtEnd(const UnlockAtEnd&) = delete;
    UnlockAtEnd& operator=(const UnlockAtEnd&) = delete;

    const Impl& directory;
  };

  void Lock() const;
  void Unlock() const;
  int GetFileCount() const;
  std::list<std::string> GetFileNames();
  bool ReserveSlots(size_t count_);
  size_t FillSlots(const Listing& listing_, size_t count_);
  void RunIntoDirectory(const char* command_, const std::string& current_path_,
                        const std::string& new_name_) const;
  void Clear();

  std::string path;                  // Ends in "/".
  int dirfd = -1;                    // The object of the lock. NOMUTATE(constant): always set.
  char* file_name_buffer = nullptr;  // Slots for sorting names, kept between calls; malloc'ed.
  size_t file_name_buffer_chars = 0;
};

Directory::Impl::Impl(const std::string& path_) : path(AddTrailingSlash(path_)) {
  dirfd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (dirfd < 0) {
    throw Format("Could not open directory %s", path.c_str());
  }
}

Directory::Impl::~Impl() {
  Unlock();
  close(dirfd);
  free(file_name_buffer);
}

void Directory::Impl::Lock() const {
  if (flock(dirfd, LOCK_EX) < 0) {
    Debug(kDebugNormal, "Lock failed: %s (%d)", strerror(errno), errno);
  }
}

void Directory::Impl::Unlock() const { flock(dirfd, LOCK_UN); }

int Directory::Impl::GetFileCount() const {
  Lock();
  const UnlockAtEnd unlock(*this);
  const Listing listing(opendir(path.c_str()));
  if (!listing) {
    Debug(kDebugNormal, "Could not open \"%s\" for counting: %s", path.c_str(), strerror(errno));
    return 0;
  }
  return static_cast<int>(CountFiles(listing));
}

std::list<std::string> Directory::Impl::GetFileNames() {
  Lock();
  const Listing listing(opendir(path.c_str()));
  if (!listing) {
    // The lock stays taken; the next operation or the end of the object releases it.
    throw Format("Could not open \"%s\" for enumeration: %s", path.c_str(), strerror(errno));
  }
  const UnlockAtEnd unlock(*this);
  const size_t count = CountFiles(listing);
  std::list<std::string> names;
  if (count == 0 || !ReserveSlots(count)) {
    return names;
  }
  const size_t copied = FillSlots(listing, count);
  // Pointers are sorted: moving the slots would copy two pages of memory for every file.
  std::vector<const char*> sorted(count);
  for (size_t i = 0; i < count; ++i) {
    sorted[i] = file_name_buffer + i * kSlotSize;
  }
  // If files vanished between the passes, their empty slots come first, and as many names are
  // missing at the end. The next listing has them.
  // NOMUTATE(constant): the size is that of any element.
  qsort(sorted.data(), count, sizeof(sorted[0]), CompareSlots);
  for (size_t i = 0; i < copied; ++i) {
    names.emplace_back(sorted[i]);
  }
  return names;
}

// Writes the names of a second pass over the listing into the count_ slots, and makes the others
// empty. Returns the number of names.
//
// The rest of a slot is not zeroed: 4 KiB for each file, in every scan, cost more than reading the
// file.
size_t Directory::Impl::FillSlots(const Listing& listing_, size_t count_) {
  size_t copied = 0;
  rewinddir(listing_.get());
  const dirent* entry = nullptr;
  while (copied < count_ && (entry = NextFile(listing_)) != nullptr) {
    CopyName(file_name_buffer + copied * kSlotSize, entry->d_name);
    ++copied;
  }
  for (size_t i = copied; i < count_; ++i) {
    file_name_buffer[i * kSlotSize] = '\0';
  }
  return copied;
}

// Makes room for count_ slots. False, with a log line, if there is no memory.
bool Directory::Impl::ReserveSlots(size_t count_) {
  // NOMUTATE(operator): differs from four billion names on.
  const bool fits = count_ <= SIZE_MAX / kSlotSize;  // 32-bit: up to a million files.
  const size_t size = fits ? count_ * kSlotSize : SIZE_MAX;
  if (file_name_buffer_chars < size) {
    free(file_name_buffer);
    file_name_buffer_chars = 0;
    file_name_buffer = fits ? static_cast<char*>(malloc(size)) : nullptr;
    if (file_name_buffer == nullptr) {
      Debug(kDebugNormal, "Could not allocate %zu bytes for sorting files", size);
      return false;
    }
    file_name_buffer_chars = size;
  }
  return true;
}

void Directory::Impl::RunIntoDirectory(const char* command_, const std::string& current_path_,
                                       const std::string& new_name_) const {
  Lock();
  const UnlockAtEnd unlock(*this);
  RunCommand(
      Format("%s %s %s%s", command_, current_path_.c_str(), path.c_str(), new_name_.c_str()));
}

void Directory::Impl::Clear() {
  Lock();  // NOMUTATE(call): the listing locks, and unlocks again.
  // The listing unlocks on its way out: players rely on a short lock, however many files go.
  for (const std::string& name : GetFileNames()) {
    unlink((path + name).c_str());
  }
  Unlock();  // NOMUTATE(call): the listing has unlocked.
}

Directory::Directory(const std::string& path_) : impl(new Impl(path_)) {}

Directory::~Directory() { delete impl; }

void Directory::Lock() { impl->Lock(); }

void Directory::Unlock() { impl->Unlock(); }

int Directory::GetFileCountLocked() { return impl->GetFileCount(); }

std::list<std::string> Directory::GetFileNames() { return impl->GetFileNames(); }

void Directory::MoveIntoDirectoryLocked(const std::string& current_path_,
                                        const std::string& new_name_) {
  impl->RunIntoDirectory("mv", current_path_, new_name_);
}

void Directory::CopyIntoDirectoryLocked(const std::string& current_path_,
                                        const std::string& new_name_) {
  impl->RunIntoDirectory("cp", current_path_, new_name_);
}

void Directory::ClearDirectoryLocked() { impl->Clear(); }

#include "queue.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "clock.h"
#include "format.h"

namespace {

constexpr double kWatchedInterval = 1;      // Seconds between two looks at a watched directory.
constexpr double kUnwatchedInterval = 0.1;  // If it cannot be watched.

// Nanoseconds. A daemon makes no file in the first tenth of a second after its start.
constexpr int64_t kRestartTime = 90000000;

// Prefixes of hidden names. A number and a dot follow if the name is taken already, as a restarted
// daemon uses names again.
constexpr char kPlaying[] = ".playing.";
constexpr char kWaiting[] = ".waiting.";

// The hidden name of a file. The end of a very long name is cut; the important part is at its
// start.
std::string HiddenName(const std::string& prefix_, const std::string& name_) {
  return (prefix_ + name_).substr(0, NAME_MAX);
}

// The name that the daemon gave a hidden file; empty if no player has hidden it.
std::string NameOfHidden(const std::string& file_) {
  for (const std::string prefix : {kPlaying, kWaiting}) {
    if (file_.compare(0, prefix.size(), prefix) == 0) {
      const std::string name = file_.substr(prefix.size());
      const size_t digits = name.find_first_not_of("0123456789");
      const bool is_numbered = digits != std::string::npos && digits > 0 && name[digits] == '.';
      return is_numbered ? name.substr(digits + 1) : name;
    }
  }
  return "";
}

// Sorts pieces that were found together by their numbers, or by their times if these show that the
// daemon began its numbers again.
void Sort(std::vector<Piece>& pieces_) {
  std::sort(pieces_.begin(), pieces_.end(), [](const Piece& a_, const Piece& b_) {
    return std::make_pair(a_.parts.number, a_.time) < std::make_pair(b_.parts.number, b_.time);
  });
  int64_t newest = 0;
  bool has_restarted = false;
  for (const Piece& piece : pieces_) {
    has_restarted = has_restarted || piece.time < newest - kRestartTime;
    newest = std::max(newest, piece.time);
  }
  if (has_restarted) {
    std::sort(pieces_.begin(), pieces_.end(), [](const Piece& a_, const Piece& b_) {
      return std::make_pair(a_.time, a_.parts.number) < std::make_pair(b_.time, b_.parts.number);
    });
  }
}

}  // namespace

struct Queue::Impl {
  Impl(const std::string& path_, std::function<bool(const std::string&)> is_mine_)
      : path(path_), is_mine(std::move(is_mine_)) {
    directory = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
      throw Format("%s is not a directory", path.c_str());
    }
    watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    const uint32_t events = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                            IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    if (watch >= 0 && inotify_add_watch(watch, path.c_str(), events) < 0) {
      close(watch);
      watch = -1;
    }
  }
  ~Impl() {
    close(directory);
    if (watch >= 0) {
      close(watch);
    }
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void ReadEvents();
  // Takes the lock without waiting. The daemon holds it for milliseconds, but another process could
  // hold it for long, and sound must go on.
  bool Lock() const { return flock(directory, LOCK_EX | LOCK_NB) == 0; }
  void Unlock() const { flock(directory, LOCK_UN); }
  void Scan();
  void CheckDirectory() const;
  bool Look(const char* file_, Piece& piece_) const;
  Result Hide(const Piece& piece_, const char* prefix_, std::string& file_);
  std::list<Piece>::iterator Find(const Piece& piece_);

  const std::string path;
  const std::function<bool(const std::string&)> is_mine;
  int directory = -1;
  int watch = -1;
  bool is_changed = true;
  bool is_first_scan = true;
  double next_scan = 0;
  uint64_t next_place = 0;
  uint64_t version = 0;
  std::list<Piece> waiting;
  std::list<std::string> other_ids;
};

// Ignores the player's own renames of hidden files.
void Queue::Impl::ReadEvents() {
  alignas(inotify_event) char buffer[4096];
  ssize_t length = 0;
  while (watch >= 0 && (length = read(watch, buffer, sizeof(buffer))) > 0) {
    for (ssize_t at = 0; at < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      is_changed = is_changed || event->len == 0 || event->name[0] != '.';
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
}

// Throws if the directory was replaced: a new directory of the same name has another lock.
void Queue::Impl::CheckDirectory() const {
  struct stat opened = {};
  struct stat named = {};
  if (fstat(directory, &opened) != 0 || stat(path.c_str(), &named) != 0 ||
      opened.st_ino != named.st_ino || opened.st_dev != named.st_dev) {
    throw Format("%s is gone", path.c_str());
  }
}

// True if it is a file of the daemon; then sets piece_.
bool Queue::Impl::Look(const char* file_, Piece& piece_) const {
  piece_.file = file_;
  piece_.name = file_[0] == '.' ? NameOfHidden(file_) : file_;
  struct stat status = {};
  if (!ParseOutputName(piece_.name, piece_.parts) ||
      fstatat(directory, file_, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode)) {
    return false;
  }
  piece_.time = status.st_mtim.tv_sec * INT64_C(1000000000) + status.st_mtim.tv_nsec;
  return true;
}

// REQUIRES: the lock is held.
void Queue::Impl::Scan() {
  DIR* const listing = opendir(path.c_str());
  if (listing == nullptr) {
    throw Format("cannot read %s: %s", path.c_str(), strerror(errno));
  }
  std::vector<Piece> found;
  other_ids.clear();
  while (const dirent* entry = readdir(listing)) {
    Piece piece;
    // Only this player changes its hidden files, so the first scan of them is enough.
    if ((entry->d_name[0] == '.' && !is_first_scan) || !Look(entry->d_name, piece)) {
      continue;
    }
    if (is_mine(piece.parts.id)) {
      found.push_back(piece);
    } else if (!piece.IsHidden()) {
      other_ids.push_back(piece.parts.id);
    }
  }
  closedir(listing);
  is_first_scan = false;
  const size_t count = waiting.size();
  waiting.remove_if([&](const Piece& piece_) {
    const auto same = std::find_if(found.begin(), found.end(), [&](const Piece& other_) {
      return other_.file == piece_.file && other_.time == piece_.time;
    });
    const bool is_there = same != found.end();
    if (is_there) {
      found.erase(same);
    }
    return !is_there && !piece_.IsHidden();
  });
  version += waiting.size() != count || !found.empty() ? 1 : 0;
  Sort(found);
  for (Piece& piece : found) {
    piece.place = next_place++;
    waiting.push_back(piece);
  }
}

Queue::Result Queue::Impl::Hide(const Piece& piece_, const char* prefix_, std::string& file_) {
  if (piece_.file.compare(0, strlen(prefix_), prefix_) == 0) {
    file_ = piece_.file;
    return Result::kDone;
  }
  if (!piece_.IsHidden() && !Lock()) {
    return Result::kLocked;
  }
  file_ = HiddenName(prefix_, piece_.name);
  for (int number = 1; faccessat(directory, file_.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
       ++number) {
    file_ = HiddenName(Format("%s%d.", prefix_, number), piece_.name);
  }
  const bool is_done = renameat(directory, piece_.file.c_str(), directory, file_.c_str()) == 0;
  const int error = errno;
  Unlock();
  if (!is_done && error != ENOENT) {
    throw Format("cannot rename %s/%s: %s", path.c_str(), piece_.file.c_str(), strerror(error));
  }
  return is_done ? Result::kDone : Result::kGone;
}

std::list<Piece>::iterator Queue::Impl::Find(const Piece& piece_) {
  return std::find_if(waiting.begin(), waiting.end(),
                      [&](const Piece& other_) { return other_.place == piece_.place; });
}

Queue::Queue(const std::string& path_, std::function<bool(const std::string& id_)> is_mine_)
    : impl(std::make_unique<Impl>(path_, std::move(is_mine_))) {}

Queue::~Queue() = default;

int Queue::Descriptor() const { return impl->watch; }

bool Queue::Update() {
  impl->ReadEvents();
  const double now = Now();
  if (!impl->is_changed && now < impl->next_scan) {
    return true;
  }
  impl->CheckDirectory();
  if (!impl->Lock()) {
    return false;
  }
  impl->is_changed = false;
  impl->next_scan = now + (impl->watch >= 0 ? kWatchedInterval : kUnwatchedInterval);
  try {
    impl->Scan();
  } catch (...) {
    impl->Unlock();
    throw;
  }
  impl->Unlock();
  return true;
}

const std::list<Piece>& Queue::Waiting() const { return impl->waiting; }

const std::list<std::string>& Queue::OtherIds() const { return impl->other_ids; }

uint64_t Queue::Version() const { return impl->version; }

Queue::Result Queue::Take(const Piece& piece_, Piece& taken_) {
  taken_ = piece_;
  const Result result = impl->Hide(piece_, kPlaying, taken_.file);
  if (result != Result::kLocked) {
    impl->waiting.erase(impl->Find(taken_));
    ++impl->version;
  }
  return result;
}

Queue::Result Queue::MoveAside(const Piece& piece_) {
  const auto piece = impl->Find(piece_);
  std::string file;
  const Result result = impl->Hide(piece_, kWaiting, file);
  if (result == Result::kDone) {
    piece->file = file;
  } else if (result == Result::kGone) {
    impl->waiting.erase(piece);
    ++impl->version;
  }
  return result;
}

std::string Queue::PathOf(const Piece& taken_) const { return impl->path + "/" + taken_.file; }

void Queue::PutBack(const Piece& taken_) {
  const auto next = std::find_if(impl->waiting.begin(), impl->waiting.end(),
                                 [&](const Piece& other_) { return other_.place > taken_.place; });
  impl->waiting.insert(next, taken_);
  ++impl->version;
}

void Queue::Remove(const Piece& taken_) { unlinkat(impl->directory, taken_.file.c_str(), 0); }

void Queue::RemoveMovedAside() {
  impl->waiting.remove_if([&](const Piece& piece_) {
    const bool is_aside = piece_.file.compare(0, strlen(kWaiting), kWaiting) == 0;
    if (is_aside) {
      Remove(piece_);
      ++impl->version;
    }
    return is_aside;
  });
}

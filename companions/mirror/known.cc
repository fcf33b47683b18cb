#include "known.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "format.h"
#include "listinglock.h"

namespace {

constexpr char kMemory[] = ".helper.delivered";
constexpr char kPart[] = ".helper.part.";

// The memory is rewritten when it has so many lines more than two for each file.
constexpr size_t kSpareLines = 1000;

constexpr size_t kLineSize = 512;  // The longest line, in bytes: a name and three numbers.

// Bytes that are written at once when the memory is rewritten.
constexpr size_t kPieceSize = 1 << 14;

struct FileCloser {
  void operator()(FILE* file_) const { fclose(file_); }
};
struct DirectoryCloser {
  void operator()(DIR* directory_) const { closedir(directory_); }
};

// A line of the memory. Names have no blanks. delivered_ 0: the file is forgotten. part_: the
// hidden file from which it is delivered; 0: that is done.
std::string Line(const std::string& name_, uint64_t delivered_, uint64_t version_, uint64_t part_) {
  return name_ +
         Format(" %016" PRIx64 " %016" PRIx64 " %016" PRIx64 "\n", delivered_, version_, part_);
}

}  // namespace

uint64_t Fingerprint(uint64_t size_, const std::string& time_) {
  // FNV-1a. A server that forges equal versions harms only its own file.
  constexpr uint64_t kStart = 0xcbf29ce484222325;
  constexpr uint64_t kPrime = 0x100000001b3;
  uint64_t hash = (kStart ^ size_) * kPrime;
  hash = (hash ^ (hash >> 32)) * kPrime;  // Mixes all bits of the size into the result.
  for (const char c : time_) {
    hash = (hash ^ static_cast<unsigned char>(c)) * kPrime;
  }
  return hash | 1;
}

Known::Known(const std::string& directory_) : directory(directory_) {
  Load();
  Finish();
  RemoveParts();
  try {
    Rewrite();
  } catch (const LocalTrouble&) {
    // There may be room later. No file is delivered before that.
  }
}

std::string Known::PartPath(uint64_t part_) const {
  return directory + kPart + std::to_string(part_);
}

void Known::Record(Files::value_type& file_, uint64_t version_, uint64_t part_) {
  Remember(Line(file_.first, file_.second.shown, version_, part_));
  file_.second.delivered = file_.second.shown;
  file_.second.version = version_;
  unfinished = file_.first;
  unfinished_part = part_;
}

void Known::Finish() {
  if (unfinished_part == 0) {
    return;
  }
  const std::string part = PartPath(unfinished_part);
  const ListingLock lock(directory);
  // Without the hidden file the delivery is complete.
  if (rename(part.c_str(), (directory + unfinished).c_str()) != 0 && errno != ENOENT) {
    throw LocalTrouble{strerror(errno)};
  }
  unfinished_part = 0;
}

Known::Files::iterator Known::Forget(Files::iterator file_) {
  if (file_->second.delivered != 0) {
    const ListingLock lock(directory);
    unlink((directory + file_->first).c_str());
    Remember(Line(file_->first, 0, 0, 0));
  }
  return known.erase(file_);
}

// Reads the memory, which the constructor then rewrites with one line for each file. Ignores an
// incomplete line at the end: its delivery has not begun.
void Known::Load() {
  const std::unique_ptr<FILE, FileCloser> file(fopen((directory + kMemory).c_str(), "re"));
  if (!file) {
    if (errno != ENOENT) {
      throw LocalTrouble{strerror(errno)};
    }
    return;
  }
  char line[kLineSize];
  while (fgets(line, sizeof(line), file.get()) != nullptr) {
    TakeLine(line);
  }
  if (ferror(file.get()) != 0) {
    throw LocalTrouble{strerror(errno)};
  }
}

// Ignores a line that Line does not write.
void Known::TakeLine(const std::string& line_) {
  const std::string name = line_.substr(0, line_.find(' '));
  uint64_t delivered = 0;
  uint64_t version = 0;
  uint64_t part = 0;
  if (name.size() == line_.size() ||
      sscanf(line_.c_str() + name.size(), " %16" SCNx64 " %16" SCNx64 " %16" SCNx64,  // NOLINT
             &delivered, &version, &part) != 3 ||
      line_ != Line(name, delivered, version, part)) {
    return;
  }
  if (delivered == 0) {
    known.erase(name);
  } else {
    known[name].delivered = delivered;
    known[name].version = version;
  }
  unfinished = name;
  unfinished_part = part;
  last_part = part > last_part ? part : last_part;
}

void Known::RemoveParts() const {
  const std::unique_ptr<DIR, DirectoryCloser> listing(opendir(directory.c_str()));
  if (!listing) {
    throw LocalTrouble{strerror(errno)};
  }
  while (const dirent* entry = readdir(listing.get())) {
    if (strncmp(entry->d_name, kPart, strlen(kPart)) == 0) {
      unlink((directory + entry->d_name).c_str());
    }
  }
}

void Known::Remember(const std::string& line_) {
  if (!memory || lines > 2 * known.size() + kSpareLines) {
    Rewrite();
  }
  try {
    memory->Write(line_.data(), line_.size());
  } catch (const LocalTrouble&) {
    memory.reset();  // Part of the line may have been written.
    throw;
  }
  ++lines;
}

void Known::Rewrite() {
  auto file = std::make_unique<LocalFile>(directory + kMemory + ".new", O_TRUNC | O_APPEND);
  std::string piece;
  size_t count = 0;
  for (const auto& [name, state] : known) {
    if (state.delivered == 0) {
      continue;
    }
    piece += Line(name, state.delivered, state.version, 0);
    ++count;
    if (piece.size() >= kPieceSize) {
      file->Write(piece.data(), piece.size());
      piece.clear();
    }
  }
  file->Write(piece.data(), piece.size());
  file->Rename(directory + kMemory);
  memory = std::move(file);
  lines = count;
}

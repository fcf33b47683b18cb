// The memory that a document takes, and its limits. memory.cc counts it, in every build: what the
// daemon's code asks of operator new, and what expat asks for itself.
#pragma once

#include <stddef.h>

#include <algorithm>
#include <string>

#include "fuzz.h"

namespace fuzz {

// Counts from its construction. REQUIRES: one object at a time.
class Memory {
 public:
  Memory();
  // The largest number of bytes held at once, less those at the start.
  size_t Own() const;
  size_t Expats() const;
};

// The bytes that the daemon's code may hold for a document of that many bytes.
//   - Tree and text: 4 MiB and 64 times the file.
//   - Copies of the file while it is read and prepared: 3 times for the bytes as read, 2 * 2 times
//     for them as UTF-8, and 3 * 4 times for them with invalid ones replaced. For a string that
//     grows holds old and new, 3 times its length at most, and one byte may become 4 (0x85 of an
//     "ascii" file is U+FFFD and "e").
//   - The sorting of an element's attributes: 16 bytes for each, which has at least 6 in the file.
//   - Other small blocks: 64 KiB.
inline size_t OwnLimit(size_t size_) {
  return (size_t{4} << 20) + 64 * size_ + (3 + 2 * 2 + 3 * 4 + 3) * size_ + (64 << 10);
}

// Open elements, declarations and the token that is being read: an open element takes 150 bytes
// for 3 of the file, and a token is held in a buffer that doubles. Entities: expat stops when their
// text is over 8 MiB and over 100 times the file; what it keeps of it is in a buffer that doubles,
// so 3 times that while it grows.
inline size_t ExpatLimit(size_t size_) {
  const size_t entities = std::max(size_t{8} << 20, 100 * size_);
  return 128 * size_ + 3 * entities + (256 << 10);
}

inline void RequireLimit(const char* property_, size_t bytes_, size_t limit_) {
  Require(bytes_ <= limit_, property_,
          std::to_string(bytes_) + " bytes, the limit is " + std::to_string(limit_));
}

}  // namespace fuzz

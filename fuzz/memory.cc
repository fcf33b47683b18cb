// Counts memory by replacing operator new and by giving expat its own functions. Both work with and
// without sanitizers, but sanitizers no longer notice a block of "new" that is released by "free".
#include "memory.h"

#include <expat.h>
#include <malloc.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <new>

namespace {

// libFuzzer has a thread of its own.
class Counter {
 public:
  void* Add(void* block_) {
    const size_t now = held += malloc_usable_size(block_);
    if (now > peak) {
      peak = now;
    }
    return block_;
  }
  void Remove(void* block_) { held -= malloc_usable_size(block_); }
  void Start() {
    start = held.load();
    peak = held.load();
  }
  size_t Peak() const { return peak - start; }

 private:
  std::atomic<size_t> held{0};
  std::atomic<size_t> peak{0};
  size_t start = 0;
};

Counter own;
Counter expats;

void* Allocate(size_t size_, size_t alignment_) {
  void* block = nullptr;
  if (posix_memalign(&block, std::max(alignment_, sizeof(void*)), size_) != 0) {
    throw std::bad_alloc();
  }
  return own.Add(block);
}

void Release(void* block_) noexcept {
  own.Remove(block_);
  free(block_);
}

void* AllocateForExpat(size_t size_) { return expats.Add(malloc(size_)); }

void* ReallocateForExpat(void* block_, size_t size_) {
  // Counts old and new block together, as in the worst case.
  void* const moved = malloc(size_);
  if (moved == nullptr) {
    return nullptr;
  }
  expats.Add(moved);
  if (block_ != nullptr) {
    const size_t kept = std::min(size_, malloc_usable_size(block_));
    std::copy_n(static_cast<const char*>(block_), kept, static_cast<char*>(moved));
    expats.Remove(block_);
    free(block_);
  }
  return moved;
}

void ReleaseForExpat(void* block_) {
  expats.Remove(block_);
  free(block_);
}

}  // namespace

void* operator new(size_t size_) { return Allocate(size_, alignof(max_align_t)); }
void* operator new[](size_t size_) { return Allocate(size_, alignof(max_align_t)); }
void* operator new(size_t size_, std::align_val_t alignment_) {
  return Allocate(size_, static_cast<size_t>(alignment_));
}
void* operator new[](size_t size_, std::align_val_t alignment_) {
  return Allocate(size_, static_cast<size_t>(alignment_));
}
void* operator new(size_t size_, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return operator new(size_);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](size_t size_, const std::nothrow_t& tag_) noexcept {
  return operator new(size_, tag_);
}
void operator delete(void* block_) noexcept { Release(block_); }
void operator delete[](void* block_) noexcept { Release(block_); }
void operator delete(void* block_, const std::nothrow_t& /*tag*/) noexcept { Release(block_); }
void operator delete[](void* block_, const std::nothrow_t& /*tag*/) noexcept { Release(block_); }
void operator delete(void* block_, size_t /*size*/) noexcept { Release(block_); }
void operator delete[](void* block_, size_t /*size*/) noexcept { Release(block_); }
void operator delete(void* block_, std::align_val_t /*alignment*/) noexcept { Release(block_); }
void operator delete[](void* block_, std::align_val_t /*alignment*/) noexcept { Release(block_); }
void operator delete(void* block_, size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  Release(block_);
}
void operator delete[](void* block_, size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  Release(block_);
}

extern "C" XML_Parser XML_ParserCreate(const XML_Char* encoding_) {
  static const XML_Memory_Handling_Suite functions = {AllocateForExpat, ReallocateForExpat,
                                                      ReleaseForExpat};
  return XML_ParserCreate_MM(encoding_, &functions, nullptr);
}

namespace fuzz {

Memory::Memory() {
  own.Start();
  expats.Start();
}

size_t Memory::Own() const { return own.Peak(); }

size_t Memory::Expats() const { return expats.Peak(); }

}  // namespace fuzz

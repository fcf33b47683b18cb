// Counts memory by replacing operator new and by giving expat functions of its own. Both work with
// sanitizers as without; only a block of "new" that is released by "free" is not noticed any more.
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
  void* Add(void* block) {
    const size_t held = held_ += malloc_usable_size(block);
    if (held > peak_) {
      peak_ = held;
    }
    return block;
  }
  void Remove(void* block) { held_ -= malloc_usable_size(block); }
  void Start() {
    start_ = held_.load();
    peak_ = held_.load();
  }
  size_t Peak() const { return peak_ - start_; }

 private:
  std::atomic<size_t> held_{0};
  std::atomic<size_t> peak_{0};
  size_t start_ = 0;
};

Counter own;
Counter expats;

void* Allocate(size_t size, size_t alignment) {
  void* block = nullptr;
  if (posix_memalign(&block, std::max(alignment, sizeof(void*)), size) != 0) {
    throw std::bad_alloc();
  }
  return own.Add(block);
}

void Release(void* block) noexcept {
  own.Remove(block);
  free(block);
}

void* AllocateForExpat(size_t size) { return expats.Add(malloc(size)); }

void* ReallocateForExpat(void* block, size_t size) {
  // Old and new are held at once, as they are at worst.
  void* const moved = malloc(size);
  if (moved == nullptr) {
    return nullptr;
  }
  expats.Add(moved);
  if (block != nullptr) {
    const size_t kept = std::min(size, malloc_usable_size(block));
    std::copy_n(static_cast<const char*>(block), kept, static_cast<char*>(moved));
    expats.Remove(block);
    free(block);
  }
  return moved;
}

void ReleaseForExpat(void* block) {
  expats.Remove(block);
  free(block);
}

}  // namespace

void* operator new(size_t size) { return Allocate(size, alignof(max_align_t)); }
void* operator new[](size_t size) { return Allocate(size, alignof(max_align_t)); }
void* operator new(size_t size, std::align_val_t alignment) {
  return Allocate(size, static_cast<size_t>(alignment));
}
void* operator new[](size_t size, std::align_val_t alignment) {
  return Allocate(size, static_cast<size_t>(alignment));
}
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* block) noexcept { Release(block); }
void operator delete[](void* block) noexcept { Release(block); }
void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept { Release(block); }
void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept { Release(block); }
void operator delete(void* block, size_t /*size*/) noexcept { Release(block); }
void operator delete[](void* block, size_t /*size*/) noexcept { Release(block); }
void operator delete(void* block, std::align_val_t /*alignment*/) noexcept { Release(block); }
void operator delete[](void* block, std::align_val_t /*alignment*/) noexcept { Release(block); }
void operator delete(void* block, size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  Release(block);
}
void operator delete[](void* block, size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  Release(block);
}

extern "C" XML_Parser XML_ParserCreate(const XML_Char* encoding) {
  static const XML_Memory_Handling_Suite functions = {AllocateForExpat, ReallocateForExpat,
                                                      ReleaseForExpat};
  return XML_ParserCreate_MM(encoding, &functions, nullptr);
}

namespace fuzz {

Memory::Memory() {
  own.Start();
  expats.Start();
}

size_t Memory::Own() const { return own.Peak(); }

size_t Memory::Expats() const { return expats.Peak(); }

}  // namespace fuzz

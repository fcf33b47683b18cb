#include "stand_ins/heap.h"

#include <stdlib.h>

#include <new>

void* operator new(size_t size_) {
  void* const block = size_ < stand_ins::failing_request ? malloc(size_) : nullptr;
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  return block;
}

void operator delete(void* block_) noexcept { free(block_); }
void operator delete(void* block_, size_t /*size*/) noexcept { free(block_); }

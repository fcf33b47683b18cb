// Preloaded next to passes.c: counts requests to the heap. Releases are not counted.
#include <errno.h>
#include <stddef.h>

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* block, size_t size);

static unsigned long requests;

unsigned long heap_requests(void);
unsigned long heap_requests(void) { return requests; }

void* malloc(size_t size) {
  ++requests;
  return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
  ++requests;
  return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
  ++requests;
  return __libc_realloc(block, size);
}

#include "debug.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "format.h"

namespace {

unsigned int debug_mask = kDebugDefault;

// Enough for the text of a whole message file, 64 KiB. Longer lines are rare.
constexpr size_t kLineSize = 72 * 1024;  // NOMUTATE(constant): only decides which memory is used.

// Writes the line in one write; the newline replaces the terminating zero. The buffer is on the
// stack, which saves requests to the heap. Only a line that does not fit is formatted a second
// time.
__attribute__((format(printf, 1, 0))) void WriteLine(const char* format_, va_list args_) {
  char line[kLineSize];
  va_list args_again;
  va_copy(args_again, args_);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started it.
  const int result = vsnprintf(line, sizeof(line), format_, args_);
  const size_t length = static_cast<size_t>(result);
  if (result >= 0 && length < sizeof(line)) {
    line[length] = '\n';
    WriteWhole(STDERR_FILENO, line, length + 1);
  } else if (result >= 0) {
    // NOMUTATE(operator, constant): asan notices.
    char* long_line = static_cast<char*>(malloc(length + 1));
    if (long_line != nullptr) {
      // NOMUTATE(constant): the text ends before that; asan notices.
      vsnprintf(long_line, length + 1, format_, args_again);
      long_line[length] = '\n';
      WriteWhole(STDERR_FILENO, long_line, length + 1);
      free(long_line);  // NOMUTATE(call): asan notices.
    }
  }
  va_end(args_again);  // NOMUTATE(call): generates no code.
}

}  // namespace

void SetDebugMask(unsigned int mask_) { debug_mask = mask_; }

bool IsDebugEnabled(unsigned int mask_) { return (mask_ & debug_mask) != 0; }

void Debug(unsigned int mask_, const char* format_, ...) {
  if (!IsDebugEnabled(mask_)) {
    return;
  }
  const int saved_errno = errno;  // Callers log while they handle an error.
  va_list args;
  va_start(args, format_);
  WriteLine(format_, args);
  va_end(args);  // NOMUTATE(call): generates no code.
  errno = saved_errno;
}

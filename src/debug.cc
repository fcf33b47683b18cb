#include "debug.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

unsigned int debug_mask = kDebugDefault;

void WriteWhole(const char* data, size_t length) {
  while (length > 0) {
    const ssize_t written = write(STDERR_FILENO, data, length);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;
    }
    data += written;
    length -= static_cast<size_t>(written);
  }
}

}  // namespace

void SetDebugMask(unsigned int mask) { debug_mask = mask; }

void Debug(unsigned int mask, const char* format, ...) {
  if ((mask & debug_mask) == 0) {
    return;
  }
  const int saved_errno = errno;  // Callers log in the middle of handling an error.
  va_list args;
  va_start(args, format);
  char* line = nullptr;
  const int length = vasprintf(&line, format, args);
  va_end(args);
  if (length >= 0) {
    line[length] = '\n';  // In place of the terminating zero: what is written needs none.
    WriteWhole(line, static_cast<size_t>(length) + 1);
    free(line);
  }
  errno = saved_errno;
}

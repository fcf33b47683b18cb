// Wraps read() and write().
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace stand_ins {

struct Files {
  size_t read_piece = SIZE_MAX;          // No read() gives more bytes.
  int read_interruptions = 0;            // This many calls fail with EINTR first.
  size_t write_piece = SIZE_MAX;         // No write() takes more bytes.
  int write_interruptions = 0;           // This many calls fail with EINTR first.
  int reads = 0;                         // Calls of read() so far.
  std::vector<size_t> writes_to_stdout;  // Bytes of each write().
  std::string full_file;                 // write() finds no room in it.
};
extern Files files;

}  // namespace stand_ins

// Bounded copy and append of zero-terminated strings, for the fixed buffers that system calls
// need. n_ is always the size in bytes of the whole buffer dst_.
#pragma once

#include <stddef.h>

// Copies as much of src_ as fits and always terminates; the rest of the buffer is zeroed, as
// strncpy does. A null src_ leaves the empty string, and the rest as it is. Does nothing if dst_ is
// null or n_ is 0. Returns dst_.
char* safe_strncpy(char* dst_, size_t n_, const char* src_);

// Appends as much of src_ as fits to the string in dst_ and always terminates: a buffer without a
// terminating zero is cut at its last byte first. A null src_ appends nothing. Does nothing if
// dst_ is null or n_ is 0. With n_ == 1 the buffer becomes the empty string.
// Returns dst_.
char* safe_strncat(char* dst_, size_t n_, const char* src_);

// The process-wide diagnostic log: one line per call on standard error, filtered by a bit mask.
//
// There is no prefix and no time stamp; the program that collects standard error adds them. For use
// by one thread.
#pragma once

// Message classes: the bits of the mask.
constexpr unsigned int kDebugNormal = 0x1;  // Errors survived and changes of state.
constexpr unsigned int kDebugTrace = 0x4;   // Every step with each item.

constexpr unsigned int kDebugAvailable = 0x7;  // Bit 0x2 is reserved; no message uses it.
constexpr unsigned int kDebugDefault = kDebugNormal;

// Replaces the mask; the old one is not merged in.
void SetDebugMask(unsigned int mask_);

// True if Debug writes messages of this mask. For callers whose arguments are costly to make.
bool IsDebugEnabled(unsigned int mask_);

// Writes the message, formatted as by printf, and a newline if any bit of mask_ is set in the
// process's mask. The line reaches standard error in one write, so that lines of the daemon and
// of the programs it starts do not mix; in a pipe, up to its PIPE_BUF bytes, 4096 on Linux.
// Failures to write are ignored: there is nowhere to report them.
void Debug(unsigned int mask_, const char* format_, ...) __attribute__((format(printf, 2, 3)));

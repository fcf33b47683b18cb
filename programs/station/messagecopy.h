// The hidden copy of a message, in the message's directory. Its name tells a later station all that
// it needs: ".station-w-ARRIVAL-NAME".
#pragma once

#include <stdint.h>

#include <string>

struct CopyName {
  bool is_speaking = false;  // The message was being spoken: "s" in place of "w".
  int64_t arrival = 0;       // Nanoseconds since 1970.
  std::string name;          // Of the message. A long one is cut off to make room for the rest.
};

std::string FormatCopyName(const CopyName& copy_);

// False if it is the name of something else.
bool ParseCopyName(const std::string& file_, CopyName& copy_);

// Copies a regular file of at most 1 MiB; the copy appears as a whole. False if that is not
// possible. REQUIRES: nobody else writes below temporary_, which is in the same directory as to_.
bool CopyMessage(const std::string& from_, const std::string& to_, const std::string& temporary_);

// Lets the copy appear as to_ too, or only there if it cannot be linked; is_kept_ tells whether the
// copy is still there. False if it cannot appear, with errno EEXIST if the name is taken.
bool ShowCopy(const std::string& copy_, const std::string& to_, bool& is_kept_);

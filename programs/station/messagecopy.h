// The hidden copy of a message, in the message's directory. Its name holds all that a later station
// needs: ".station-w-ARRIVAL-NAME".
#pragma once

#include <stdint.h>

#include <string>

struct CopyName {
  bool is_speaking = false;  // The message was being spoken: "s" instead of "w".
  int64_t arrival = 0;       // Nanoseconds since 1970.
  std::string name;          // Of the message; a long name is cut to make room for the rest.
};

std::string FormatCopyName(const CopyName& copy_);

// False if it is the name of something else.
bool ParseCopyName(const std::string& file_, CopyName& copy_);

// Copies a regular file of at most 1 MiB. The copy appears under its name when it is complete.
// False if that fails. REQUIRES: nobody else writes below temporary_, which is in the same
// directory as to_.
bool CopyMessage(const std::string& from_, const std::string& to_, const std::string& temporary_);

// Links the copy to the name to_, or renames it to that if it cannot be linked. is_kept_: the copy
// still has its own name. False if both fail, with errno EEXIST if the name to_ is taken.
bool ShowCopy(const std::string& copy_, const std::string& to_, bool& is_kept_);

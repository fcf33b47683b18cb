// Handing a message over: from a text and a directory to a file that the daemon takes as a whole.
//
// The daemon looks into its input directories at any time and takes what it finds. So the message
// is written under a hidden name and renamed. The name is new for every message, because a file
// that comes back with the same text counts as unchanged, and it is safe in a shell, which the
// daemon uses to copy files.
#pragma once

#include <optional>
#include <string>

#include "configuration.h"
#include "xml.h"

// The directory of that id; without one, the only local directory, or the one called
// "announcements". source_ is the configuration's name in messages.
// Throws a string if there is no such directory, or if it is not local.
const XMLElement& FindLocalDirectory(const XMLElement& root_, const std::optional<std::string>& id_,
                                     const std::string& source_);

extern const char kDefaultDirectory[];

// Where messages go and how they are written.
struct Destination {
  // directory_: an element below root_, as FindLocalDirectory returns it. encoding_: instead of the
  // directory's. is_raw_: messages are bytes that are not converted.
  // REQUIRES: root_ outlives the destination.
  // Throws a string if the daemon could not read such a message.
  Destination(const XMLElement& root_, const XMLElement& directory_,
              const std::optional<std::string>& encoding_, bool is_raw_);

  LocalDirectory directory;
  std::string encoding;
  bool is_raw;
  const XMLElement* parser;  // Of XML documents; null for text.
};

// Hands a text over, in UTF-8, or the bytes of a raw message. source_ begins the file's name, which
// is returned. Throws a string if nothing in it can be said, or if it cannot be written.
std::string HandOver(const Destination& destination_, const std::string& text_,
                     const std::string& source_);

// Throws a string if the parser of destination_ finds nothing to say in the document at path_;
// returns what it finds, as valid UTF-8.
std::string TextOfDocument(const Destination& destination_, const std::string& path_);

// True if the station that wrote the health file runs.
bool IsServiceRunning(const std::string& health_path_);

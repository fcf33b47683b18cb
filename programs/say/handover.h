// Hands a message over: makes a file in an input directory that the daemon takes as a whole.
//
// The daemon may scan its input directories at any time. So the message is written under a hidden
// name and renamed. The name is new for each message, because the daemon ignores a file that comes
// back with the same text. The name is safe in a shell, which the daemon uses to copy files.
#pragma once

#include <optional>
#include <string>

#include "configuration.h"
#include "xml.h"

// The directory with that id; without an id, the only local directory, or the one with the id
// "announcements". source_: the configuration's name in error texts.
// Throws a string if there is no such directory, or if it is not local.
const XMLElement& FindLocalDirectory(const XMLElement& root_, const std::optional<std::string>& id_,
                                     const std::string& source_);

extern const char kDefaultDirectory[];

// The directory and the encoding of messages.
struct Destination {
  // directory_: an element below root_, as FindLocalDirectory returns it. encoding_: replaces the
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

// Hands over a text in UTF-8, or the bytes of a raw message. Returns the file's name, which begins
// with source_. Throws a string if the text has nothing to say, or if the file cannot be written.
std::string HandOver(const Destination& destination_, const std::string& text_,
                     const std::string& source_);

// The text that the parser of destination_ finds in the document at path_, as valid UTF-8. Throws a
// string if it finds none.
std::string TextOfDocument(const Destination& destination_, const std::string& path_);

// True if the station that wrote the health file runs.
bool IsServiceRunning(const std::string& health_path_);

// Reading the daemon's configuration: the elements below "tts-config", as the daemon understands
// them.
#pragma once

#include <map>
#include <string>

#include "xml.h"

// True if name_ is an encoding of message files: "ascii", "utf8" or "utf16".
bool IsEncoding(const std::string& name_);

// The first child of root_ with that name and id; the daemon ignores later ones. Null if there is
// none. Status files can be searched as well.
const XMLElement* FindById(const XMLElement& root_, const char* name_, const std::string& id_);

// The path that the daemon scans for a "directory" element of type "local": its "path", followed by
// its "subdir". Ends in "/" unless both are empty.
std::string ScannedPath(const XMLElement& directory_);

// An input directory of type "local".
struct LocalDirectory {
  // REQUIRES: directory_ is a "directory" element with an id.
  // Throws a string if "auto-delete" is needed and is not a number.
  explicit LocalDirectory(const XMLElement& directory_);

  // True if its messages are XML documents.
  bool IsXml() const { return !parser.empty() && parser != "text"; }

  std::string id;
  std::string path;    // ScannedPath.
  bool removes_taken;  // The daemon removes the files that it takes.
  std::string parser;
  std::string encoding;
  bool is_cache;       // Nothing is spoken.
  XMLElement element;  // Name and attributes.
};

// The part of any input directory that a player needs.
struct ConfiguredDirectory {
  std::string display_id;
  int priority;  // The smaller, the more urgent.
};

// The directories below root_ by their ids, without those whose priority is not a number: the
// daemon skips them.
std::map<std::string, ConfiguredDirectory> ConfiguredDirectories(const XMLElement& root_);

// Files that hold the state of a program as XML and are replaced by a rename.
#pragma once

#include <string>

#include "xml.h"

// The text without line ends and other control characters, which would break a reader.
std::string OneLine(std::string text_);

// An attribute's value as any XML reader takes it, in one line.
std::string Escaped(const std::string& text_);

// Replaces the file at path_ by the dump of root_, unless it holds that already. While there is no
// room for a new file, writes over the old one, in room that was kept for that. Throws a string if
// both fail.
void ReplaceByDump(const std::string& path_, const XMLElement& root_);

// An attribute that was written by "%lld". Throws a string if it is absent.
long long LongAttribute(const XMLElement& element_, const char* name_);

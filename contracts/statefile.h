// Files that hold the state of a program as XML and are replaced by a rename.
#pragma once

#include <string>

#include "xml.h"

// The text with a replacement for each control character, line ends included.
std::string OneLine(std::string text_);

// The text as an attribute's value of well-formed XML, in one line.
std::string Escaped(const std::string& text_);

// Replaces the file at path_ by the dump of root_, unless it holds that already. Without room for a
// new file, overwrites the old one, for which room is reserved. Throws a string if both fail.
void ReplaceByDump(const std::string& path_, const XMLElement& root_);

// The value of an attribute that was written by "%lld". Throws a string if it is absent.
long long LongAttribute(const XMLElement& element_, const char* name_);

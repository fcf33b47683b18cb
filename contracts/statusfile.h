// Reading the daemon's status file, which is rewritten in place about ten times a second, without
// a lock and without escaping values.
#pragma once

#include <memory>
#include <string>

#include "xml.h"

// The whole content of a regular file. Throws a string if it cannot be opened.
std::string ReadWhole(const std::string& path_);

// The same; empty if the file cannot be opened.
std::string ReadOrNothing(const std::string& path_);

// The tree of a text as XMLElement::Dump writes it, with unescaped values; null if the text is not
// one complete document.
std::unique_ptr<XMLElement> ParseDump(const std::string& text_);

// The tree of a status text; null if the text is not one complete document as the daemon writes it.
// The tree has every attribute that the daemon reports, so reading them cannot fail. Values are
// taken byte for byte, even if a quote or an ampersand in a file name makes the XML malformed.
std::unique_ptr<XMLElement> ParseStatus(const std::string& text_);

// Reads the status file at path_ once. Returns its tree; null while the file holds an incomplete
// status. Throws a string if the file cannot be read, or is larger than any status.
std::unique_ptr<XMLElement> TryReadStatus(const std::string& path_);

// The tree of the status file at path_, which is read again while it holds an incomplete status.
// Throws as TryReadStatus does, and after limit_ seconds without a complete status.
std::unique_ptr<XMLElement> ReadStatus(const std::string& path_, double limit_ = 2);

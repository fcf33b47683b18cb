// The bytes of a message, as the daemon's text parsers read them.
#pragma once

#include <string>

// True if text_ has other characters than spaces, control characters and punctuation. The daemon
// accepts a single mark after a space as a message, but it has nothing to say.
// REQUIRES: text_ is valid UTF-8.
bool HasWords(const std::string& text_);

// Converts text_ from UTF-8 to the bytes of a text file. encoding_: one that IsEncoding accepts.
// Throws a string if it is not valid, has no words, has characters that the encoding lacks, or is
// longer than the daemon's limit.
std::string Encode(std::string text_, const std::string& encoding_);

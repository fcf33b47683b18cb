// The bytes of a message, as the daemon's text parsers read them.
#pragma once

#include <string>

// True if there is more in text_ than spaces, control characters and punctuation. The daemon makes
// a message of a lone mark after a space, but there is nothing in it to say.
// REQUIRES: text_ is valid UTF-8.
bool HasWords(const std::string& text_);

// text_, which is UTF-8, as the bytes of a text file in an encoding for which IsEncoding holds.
// Throws a string if it is not valid, has no words, has characters that the encoding lacks, or is
// longer than what the daemon reads.
std::string Encode(std::string text_, const std::string& encoding_);

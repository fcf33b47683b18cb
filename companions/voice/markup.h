// The text of a snippet, and what the engine is given in its place.
#pragma once

#include <string>

// text_ without what the engine would take for commands: a blank for each control character and
// each byte that is not UTF-8, and none at the end.
std::string Cleaned(const std::string& text_);

// The cleaned text_ in SSML: every pause tag, "\pau=N\" with N of one to four digits, is a break of
// N milliseconds, and everything else is read aloud as it is. There is no "speak" element around
// it: at one, the engine reads the files of all voices, a quarter of the time that ten words take.
std::string MarkedUp(const std::string& text_);

// True if there is a letter or a digit outside the pause tags of the cleaned text_.
bool HasWords(const std::string& text_);

// The silence after the cleaned text_, in milliseconds: long only after a sentence, as a message is
// spoken in many pieces.
int PauseAfter(const std::string& text_);

// The text of a snippet, and its markup for the engine.
#pragma once

#include <string>

// text_ without bytes that the engine would take for commands: each control character and each byte
// that is not UTF-8 becomes a blank, and blanks at the end are removed.
std::string Cleaned(const std::string& text_);

// The cleaned text_ in SSML: every pause tag, "\pau=N\" with N of one to four digits, is a break of
// N milliseconds, and everything else is read aloud as it is. It has no "speak" element, for which
// the engine would read the files of all voices: a quarter of the time that ten words take.
std::string MarkedUp(const std::string& text_);

// True if there is a letter or a digit outside the pause tags of the cleaned text_.
bool HasWords(const std::string& text_);

// The silence after the cleaned text_, in milliseconds. It is long only after a sentence, as other
// pieces follow within one.
int PauseAfter(const std::string& text_);

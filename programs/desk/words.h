// What the translator gets of a text, and how long that takes to say.
#pragma once

#include <string>
#include <vector>

// The words of a text as the daemon makes them, see "Words" in vocastra-messages(7).
// REQUIRES: text_ is valid UTF-8.
std::vector<std::string> SpokenWords(const std::string& text_);

// The text file of a whole message at its start, with the glossary's speech if there is a file of
// that path which can be read.
std::string SnippetOf(const std::string& text_, const std::string& glossary_path_);

// The words of "conv-opts" as the shell splits them.
std::vector<std::string> TranslatorArguments(const std::string& conv_opts_);

// The value of the last "NAME=number" among them, or default_.
int NumberAmong(const std::vector<std::string>& arguments_, const std::string& name_, int default_);

// Words per second of a directory with these arguments: an estimate that knows only "speed".
double PaceOf(const std::vector<std::string>& arguments_);

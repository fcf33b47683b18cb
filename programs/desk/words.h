// The words that the translator gets from a text, and how long it speaks them.
#pragma once

#include <string>
#include <vector>

// The words of a text as the daemon makes them, see "Words" in vocastra-messages(7).
// REQUIRES: text_ is valid UTF-8.
std::vector<std::string> SpokenWords(const std::string& text_);

// The translator's text file for a whole message, with the glossary's replacements if the glossary
// can be read.
std::string SnippetOf(const std::string& text_, const std::string& glossary_path_);

// The words of "conv-opts" as the shell splits them.
std::vector<std::string> TranslatorArguments(const std::string& conv_opts_);

// The value of the last "NAME=number" among the arguments; default_ if there is none.
int NumberAmong(const std::vector<std::string>& arguments_, const std::string& name_, int default_);

// Estimated words per second with these arguments, of which only "speed" counts.
double PaceOf(const std::vector<std::string>& arguments_);

// Passwords that a person types.
#pragma once

#include <string>

// From the terminal, twice and without echo; or, if standard input is no terminal, its first line.
// Throws a string if there is none, or the two differ.
std::string ReadPassword();

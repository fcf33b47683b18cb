// Reading a password that a person types.
#pragma once

#include <string>

// Asks for the password twice on the terminal, without echo. If standard input is no terminal,
// reads its first line. Throws a string if there is no password, or the two differ.
std::string ReadPassword();

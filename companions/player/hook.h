// Commands of the user that run before and after sound.
#pragma once

#include <string>

// Runs command_ through the shell and waits for its end, for 5 seconds at most; then it is killed,
// with all that it has started. Returns why it failed; empty if it did not.
std::string RunHook(const std::string& command_);

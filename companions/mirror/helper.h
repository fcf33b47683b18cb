// The main program that the two helpers share.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "commandline.h"
#include "mirror.h"

// Reads the arguments with read_, makes the local directory and runs the mirror. There must be
// count_ arguments. They are erased from the process list, as one is a password. read_ fills in the
// settings and throws a string if the arguments cannot work. Returns the exit status.
int RunHelper(const Program& program_, size_t count_, int argc_, char** argv_,
              const std::function<void(const std::vector<std::string>&)>& read_,
              MirrorSettings* settings_, const MakeRemote& make_remote_);

// The frame of the two helpers' programs.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "commandline.h"
#include "mirror.h"

// Reads the arguments, which must be as many as count_, with read_, makes the local directory and
// runs the mirror. The arguments' places in the process list are blank from then on: one is a
// password. read_ fills in the settings and throws a string if the arguments cannot work. Returns
// the exit status.
int RunHelper(const Program& program_, size_t count_, int argc_, char** argv_,
              const std::function<void(const std::vector<std::string>&)>& read_,
              MirrorSettings* settings_, const MakeRemote& make_remote_);

// Checks the daemon's configuration.
#pragma once

#include <set>

#include "check.h"
#include "findings.h"
#include "paths.h"

// Checks the file, its parsers and its directories, and adds its paths to uses_. Uses only the
// translator, the helpers and the player's rate of options_. Returns the priorities of the
// directories.
std::set<int> CheckConfiguration(const CheckOptions& options_, PathUses& uses_,
                                 Findings& findings_);

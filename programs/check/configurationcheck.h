// What the daemon makes of its configuration.
#pragma once

#include "check.h"
#include "findings.h"
#include "paths.h"

// Judges the file, its parsers and its directories, and notes the paths in it. Of the command line
// it only matters whether there is a helper for remote directories.
void CheckConfiguration(const CheckOptions& options_, PathUses& uses_, Findings& findings_);

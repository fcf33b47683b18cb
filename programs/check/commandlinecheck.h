// Checks the daemon's command line.
#pragma once

#include "check.h"
#include "findings.h"
#include "paths.h"

// Checks the daemon's given and missing options, and adds their paths to uses_. has_priorities_:
// some directories are more urgent than others.
void CheckCommandLine(const CheckOptions& options_, bool has_priorities_, PathUses& uses_,
                      Findings& findings_);

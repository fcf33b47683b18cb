// What the daemon makes of its command line.
#pragma once

#include "check.h"
#include "findings.h"
#include "paths.h"

// Judges the daemon's options, those that are missing as well, and notes the paths among them.
void CheckCommandLine(const CheckOptions& options_, PathUses& uses_, Findings& findings_);

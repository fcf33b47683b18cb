// Checks the daemon's command line.
#pragma once

#include "check.h"
#include "findings.h"
#include "paths.h"

// Checks the daemon's options, missing ones too, and adds their paths to uses_.
void CheckCommandLine(const CheckOptions& options_, PathUses& uses_, Findings& findings_);

// Checks the daemon's configuration.
#pragma once

#include "check.h"
#include "findings.h"
#include "paths.h"

// Checks the file, its parsers and its directories, and adds its paths to uses_. Of the command
// line, only the helpers for remote directories matter.
void CheckConfiguration(const CheckOptions& options_, PathUses& uses_, Findings& findings_);

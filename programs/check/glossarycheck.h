// Checks a glossary.
#pragma once

#include <string>

#include "findings.h"

// Finds entries that the daemon refuses, never looks up, or ignores because of an earlier one.
void CheckGlossary(const std::string& path_, Findings& findings_);

// Checks one input directory.
#pragma once

#include "check.h"
#include "findings.h"
#include "paths.h"
#include "translatorcheck.h"
#include "xml.h"

// Checks a "directory" element that has an id, except for its parser, and adds its paths to uses_.
void CheckDirectory(const CheckOptions& options_, TranslatorCheck& translator_,
                    const XMLElement& element_, const Place& place_, PathUses& uses_,
                    Findings& findings_);

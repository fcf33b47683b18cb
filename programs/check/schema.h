// The schema of the configuration, made from the table of attributes.
#pragma once

#include <string>

// frame_ with attributes of the table in the place of "@ELEMENT@" and "@ELEMENT TYPES@": those that
// may be in the element whatever its other attributes, and that mean something for every type of
// directory or for just these. Each is a line, indented like the first.
std::string MakeSchema(const std::string& frame_);

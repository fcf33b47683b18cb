// The schema of the configuration, made from the table of attributes.
#pragma once

#include <string>

// frame_ with attributes of the table instead of "@ELEMENT@" and "@ELEMENT TYPES@". These are the
// attributes of the element that are allowed independent of others, and that have an effect for all
// types of directories, or only for TYPES. Each is a line, indented like the first.
std::string MakeSchema(const std::string& frame_);

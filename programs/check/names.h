// Misspelt names of elements and attributes.
#pragma once

#include <string>
#include <vector>

// The one of known_ that was probably meant by a name that is not among them; empty if none is
// near.
std::string NearestName(const std::string& name_, const std::vector<std::string>& known_);

// The remedy for a name that is near to a known one.
std::string DidYouMean(const std::string& name_);

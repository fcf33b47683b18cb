// Misspelt names of elements and attributes.
#pragma once

#include <string>
#include <vector>

// The name in known_ that name_ is probably meant to be; empty if none is near.
std::string NearestName(const std::string& name_, const std::vector<std::string>& known_);

// The remedy for a name that is near to a known one.
std::string DidYouMean(const std::string& name_);

// Creates input directories.
#pragma once

#include <string>

// Creates what is missing of path_, which ends in "/". Owner and group may write to a new
// directory, and others may not even read it. A new directory has the set-group-ID bit, so that the
// files in it get its group. It gets its own group from its parent if that has the bit. A failure
// is no error here: whoever uses the directory reports it.
void CreateDirectories(const std::string& path_);

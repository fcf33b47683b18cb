// The interface that turns a message file into its text.
#pragma once

#include <string>

class FileParser {
 public:
  virtual ~FileParser() = default;

  // The message text of the file at path_, in UTF-8. Empty means that there is nothing to say.
  // Bad content is no error: it is logged, and the usable part of the text is returned. Never
  // throws a std::exception.
  virtual std::string ParseFile(const std::string& path_) const = 0;
};

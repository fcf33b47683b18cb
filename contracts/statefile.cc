#include "statefile.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "format.h"
#include "statusfile.h"

namespace {

bool Holds(const std::string& path_, const std::string& text_) {
  try {
    return ReadWhole(path_) == text_;
  } catch (const std::string&) {
    return false;
  }
}

}  // namespace

std::string OneLine(std::string text_) {
  std::replace_if(
      text_.begin(), text_.end(),
      [](char c_) { return static_cast<unsigned char>(c_) < ' ' || c_ == 127; }, '?');
  return text_;
}

void ReplaceByDump(const std::string& path_, const XMLElement& root_) {
  const std::string text = root_.DumpToString("");
  if (Holds(path_, text)) {
    return;
  }
  const std::string temporary = path_ + ".new";
  FILE* const file = fopen(temporary.c_str(), "we");
  bool is_written = file != nullptr;
  if (is_written) {
    is_written = fputs(text.c_str(), file) >= 0;
    is_written = fclose(file) == 0 && is_written;
  }
  if (!is_written || rename(temporary.c_str(), path_.c_str()) != 0) {
    const std::string why = strerror(errno);
    unlink(temporary.c_str());
    throw Format("cannot write %s: %s", path_.c_str(), why.c_str());
  }
}

long long LongAttribute(const XMLElement& element_, const char* name_) {
  return strtoll(element_.GetAttributeString(name_).c_str(), nullptr, 10);
}

#include "statefile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "format.h"
#include "statusfile.h"

namespace {

// Bytes that are allocated beyond the end of each file, to be used when the file system is full.
constexpr off_t kReserve = 16 * 1024;

bool Holds(const std::string& path_, const std::string& text_) {
  try {
    return ReadWhole(path_) == text_;
  } catch (const std::string&) {
    return false;
  }
}

// Writes the text to a new file, with the reserve if the file system allows it.
bool WriteNew(const std::string& path_, const std::string& text_) {
  const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) {
    return false;
  }
  const bool is_written = WriteWhole(fd, text_.data(), text_.size());
  const int error = errno;
  if (is_written) {
    fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(text_.size()) + kReserve);
  }
  close(fd);
  errno = error;
  return is_written;
}

// Overwrites the present file without truncating it, which would free its blocks.
bool Overwrite(const std::string& path_, std::string text_) {
  const int fd = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
  struct stat status {};
  if (fd < 0 || fstat(fd, &status) != 0) {
    return false;
  }
  text_.resize(std::max(text_.size(), static_cast<size_t>(status.st_size)), '\n');
  const bool is_written = WriteWhole(fd, text_.data(), text_.size());
  close(fd);
  return is_written;
}

}  // namespace

std::string OneLine(std::string text_) {
  std::replace_if(
      text_.begin(), text_.end(),
      [](char c_) { return static_cast<unsigned char>(c_) < ' ' || c_ == 127; }, '?');
  return text_;
}

std::string Escaped(const std::string& text_) {
  std::string result;
  for (const char c : OneLine(text_)) {
    if (c == '&') {
      result += "&amp;";
    } else if (c == '<') {
      result += "&lt;";
    } else if (c == '"') {
      result += "&quot;";
    } else {
      result += c;
    }
  }
  return result;
}

void ReplaceByDump(const std::string& path_, const XMLElement& root_) {
  const std::string text = root_.DumpToString("");
  if (Holds(path_, text)) {
    return;
  }
  const std::string temporary = path_ + ".new";
  if (WriteNew(temporary, text) && rename(temporary.c_str(), path_.c_str()) == 0) {
    return;
  }
  const std::string why = strerror(errno);
  unlink(temporary.c_str());
  if (!Overwrite(path_, text)) {
    throw Format("cannot write %s: %s", path_.c_str(), why.c_str());
  }
}

long long LongAttribute(const XMLElement& element_, const char* name_) {
  return strtoll(element_.GetAttributeString(name_).c_str(), nullptr, 10);
}

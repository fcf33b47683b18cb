// Shared by the fuzzers. Each one defines LLVMFuzzerTestOneInput for one kind of input and
// aborts, with a line that says why, when a property does not hold.
#pragma once

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <utf8.h>

#include <string>

#include "xml.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_);

namespace fuzz {

inline void Require(bool holds_, const char* property_, const std::string& detail_ = "") {
  if (!holds_) {
    fprintf(stderr, "property does not hold: %s\n%s\n", property_, detail_.c_str());
    abort();
  }
}

inline bool IsUtf8(const std::string& text_) {
  return utf8::find_invalid(text_.begin(), text_.end()) == text_.end();
}

inline std::string Dumped(const XMLElement& root_) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* const stream = open_memstream(&buffer, &size);
  root_.Dump(stream, "");
  fclose(stream);
  std::string text(buffer, size);
  free(buffer);
  return text;
}

// The input, taken apart from the front.
class Input {
 public:
  Input(const uint8_t* data_, size_t size_) : data(data_), size(size_) {}

  uint8_t Byte() {
    if (size == 0) {
      return 0;
    }
    --size;
    return *data++;
  }
  // Up to the next line feed, which is dropped.
  std::string Line() {
    std::string line;
    for (uint8_t byte = 0; size > 0 && (byte = Byte()) != '\n';) {
      line += static_cast<char>(byte);
    }
    return line;
  }
  bool IsEmpty() const { return size == 0; }
  std::string Rest() { return std::string(reinterpret_cast<const char*>(data), size); }

 private:
  const uint8_t* data;
  size_t size;
};

// A directory of this process on a memory file system, removed at its end.
class Scratch {
 public:
  Scratch() {
    char made[] = "/dev/shm/vocastra-fuzz-XXXXXX";
    Require(mkdtemp(made) != nullptr, "a scratch directory can be made");
    path = made;
  }
  ~Scratch() {
    if (system(("rm -rf " + path).c_str()) != 0) {
      fprintf(stderr, "could not remove %s\n", path.c_str());
    }
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::string Write(const std::string& name_, const std::string& content_) const {
    const std::string file = path + "/" + name_;
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    Require(fd >= 0, "a scratch file can be written");
    size_t written = 0;
    while (written < content_.size()) {
      const ssize_t count = write(fd, content_.data() + written, content_.size() - written);
      Require(count > 0, "a scratch file can be written");
      written += static_cast<size_t>(count);
    }
    close(fd);
    return file;
  }
  const std::string& Path() const { return path; }

 private:
  std::string path;
};

}  // namespace fuzz

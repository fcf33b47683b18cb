// What the fuzzers share. Each one defines LLVMFuzzerTestOneInput for one kind of input and
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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

inline void Require(bool holds, const char* property, const std::string& detail = "") {
  if (!holds) {
    fprintf(stderr, "property does not hold: %s\n%s\n", property, detail.c_str());
    abort();
  }
}

inline bool IsUtf8(const std::string& text) {
  return utf8::find_invalid(text.begin(), text.end()) == text.end();
}

inline std::string Dumped(const XMLElement& root) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* const stream = open_memstream(&buffer, &size);
  root.Dump(stream, "");
  fclose(stream);
  std::string text(buffer, size);
  free(buffer);
  return text;
}

// The input, taken apart from the front.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint8_t Byte() {
    if (size_ == 0) {
      return 0;
    }
    --size_;
    return *data_++;
  }
  // Up to the next line feed, which is dropped.
  std::string Line() {
    std::string line;
    for (uint8_t byte = 0; size_ > 0 && (byte = Byte()) != '\n';) {
      line += static_cast<char>(byte);
    }
    return line;
  }
  bool IsEmpty() const { return size_ == 0; }
  std::string Rest() { return std::string(reinterpret_cast<const char*>(data_), size_); }

 private:
  const uint8_t* data_;
  size_t size_;
};

// A directory of this process on a memory file system, removed at its end.
class Scratch {
 public:
  Scratch() {
    char path[] = "/dev/shm/vocastra-fuzz-XXXXXX";
    Require(mkdtemp(path) != nullptr, "a scratch directory can be made");
    path_ = path;
  }
  ~Scratch() {
    if (system(("rm -rf " + path_).c_str()) != 0) {
      fprintf(stderr, "could not remove %s\n", path_.c_str());
    }
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::string Write(const std::string& name, const std::string& content) const {
    const std::string path = path_ + "/" + name;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    Require(fd >= 0, "a scratch file can be written");
    size_t written = 0;
    while (written < content.size()) {
      const ssize_t count = write(fd, content.data() + written, content.size() - written);
      Require(count > 0, "a scratch file can be written");
      written += static_cast<size_t>(count);
    }
    close(fd);
    return path;
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace fuzz

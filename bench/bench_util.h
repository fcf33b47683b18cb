// Shared by the benchmarks: a scratch directory and files in it.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

// A temporary directory, which is removed with its contents.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    char made[] = "/tmp/vocastra-bench-XXXXXX";
    if (mkdtemp(made) == nullptr) {
      abort();
    }
    path = made;
  }
  ~ScratchDirectory() {
    if (system(("rm -rf " + path).c_str()) != 0) {
      abort();
    }
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::string& Path() const { return path; }

  // Returns the path of the file written.
  std::string Write(const std::string& name_, const std::string& content_) const {
    const std::string file_path = path + "/" + name_;
    FILE* file = fopen(file_path.c_str(), "we");
    if (file == nullptr || fwrite(content_.data(), 1, content_.size(), file) != content_.size() ||
        fclose(file) != 0) {
      abort();
    }
    return file_path;
  }

 private:
  std::string path;
};

// At least size_ bytes of text: words_ over and over.
inline std::string Repeated(const std::string& words_, size_t size_) {
  std::string text;
  while (text.size() < size_) {
    text += words_;
  }
  return text;
}

// At least size_ bytes of sentences of random words, the same in every run. In a repeated text the
// branch predictor would know the words.
inline std::string NaturalText(size_t size_) {
  constexpr const char* kWords[] = {
      "der",    "Zug",    "nach", "Köln",  "fährt", "heute",     "the",   "train", "to",
      "north",  "leaves", "from", "Gleis", "fünf,", "platform",  "nine,", "nicht", "Minuten",
      "später", "bitte",  "für",  "Ihr",   "über",  "Frankfurt", "we",    "ask",   "patience."};
  std::string text;
  uint32_t state = 1;
  while (text.size() < size_) {
    state = state * 1664525 + 1013904223;  // Numerical Recipes' generator.
    text += kWords[(state >> 16) % (sizeof(kWords) / sizeof(kWords[0]))];
    text += ' ';
  }
  return text;
}

constexpr char kEnglish[] = "The train to the north leaves from platform nine, not from six. ";

// What the benchmarks share: a scratch directory and files in it.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

// A directory of the benchmark's own, removed with all that is in it.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    char path[] = "/tmp/vocastra-bench-XXXXXX";
    if (mkdtemp(path) == nullptr) {
      abort();
    }
    path_ = path;
  }
  ~ScratchDirectory() {
    if (system(("rm -rf " + path_).c_str()) != 0) {
      abort();
    }
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::string& path() const { return path_; }

  // Returns the path of the file written.
  std::string Write(const std::string& name, const std::string& content) const {
    const std::string path = path_ + "/" + name;
    FILE* file = fopen(path.c_str(), "we");
    if (file == nullptr || fwrite(content.data(), 1, content.size(), file) != content.size() ||
        fclose(file) != 0) {
      abort();
    }
    return path;
  }

 private:
  std::string path_;
};

// At least size bytes of text in the words given, over and over.
inline std::string Repeated(const std::string& words, size_t size) {
  std::string text;
  while (text.size() < size) {
    text += words;
  }
  return text;
}

// At least size bytes of sentences, words drawn at random and always the same ones: a text that
// repeats itself would let the processor foresee where its words and umlauts are.
inline std::string NaturalText(size_t size) {
  constexpr const char* kWords[] = {
      "der",    "Zug",    "nach", "Köln",  "fährt", "heute",     "the",   "train", "to",
      "north",  "leaves", "from", "Gleis", "fünf,", "platform",  "nine,", "nicht", "Minuten",
      "später", "bitte",  "für",  "Ihr",   "über",  "Frankfurt", "we",    "ask",   "patience."};
  std::string text;
  uint32_t state = 1;
  while (text.size() < size) {
    state = state * 1664525 + 1013904223;  // Numerical Recipes' generator.
    text += kWords[(state >> 16) % (sizeof(kWords) / sizeof(kWords[0]))];
    text += ' ';
  }
  return text;
}

constexpr char kEnglish[] = "The train to the north leaves from platform nine, not from six. ";

// Runs the fuzzer's input function on every file given, twice each, so that state left over from
// one input shows in the next.
#include <stdio.h>

#include <fstream>
#include <iterator>
#include <string>

#include "fuzz.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s FILE...\n", argv[0]);
    return 1;
  }
  for (int i = 1; i < argc; ++i) {
    std::ifstream file(argv[i], std::ios::binary);
    if (!file) {
      fprintf(stderr, "could not open %s\n", argv[i]);
      return 1;
    }
    const std::string content(std::istreambuf_iterator<char>(file), {});
    for (int time = 0; time < 2; ++time) {
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(content.data()), content.size());
    }
  }
  fprintf(stderr, "%d files, each run twice\n", argc - 1);
  return 0;
}

// Makes the schema of the configuration: "make_schema FRAME SCHEMA". Only the build runs it.

#include <fstream>
#include <iterator>
#include <string>

#include "schema.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    return 2;
  }
  std::ifstream input(argv[1]);
  const std::string frame((std::istreambuf_iterator<char>(input)), {});
  std::ofstream output(argv[2]);
  output << MakeSchema(frame) << std::flush;
  return input && output ? 0 : 1;
}

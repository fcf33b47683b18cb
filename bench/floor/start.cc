// The least work from start to the first status file, and the least memory: a process that links
// the daemon's libraries, lets the shell empty the input directory, writes a status file and waits.
//
// start [DIRECTORY STATUS]; without arguments it only waits.
#include <expat.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <string>

int main(int argc, char** argv) {
  std::map<std::string, std::string> words;
  words.emplace("version", XML_ExpatVersion());
  if (argc == 3) {
    if (system(("rm " + std::string(argv[1]) + "/* > /dev/null 2>&1").c_str()) == -1) {
      return 2;
    }
    const int fd = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0 ||
        dprintf(fd, "<tts-status version=\"%s\"/>\n", words.begin()->second.c_str()) < 0) {
      return 2;
    }
    close(fd);
  }
  for (;;) {
    usleep(100000);
  }
}

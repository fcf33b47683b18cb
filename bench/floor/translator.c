// A translator with little work: copies the text to the audio file as sixteen-bit samples.
//
// translator TEXT AUDIO [arguments...] MESSAGE
#include <fcntl.h>
#include <unistd.h>

int main(int argc, char** argv) {
  char text[4096];
  char audio[2 * sizeof(text)];
  if (argc < 3) {
    return 2;
  }
  const int from = open(argv[1], O_RDONLY);
  const int to = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const ssize_t length = read(from, text, sizeof(text));
  for (ssize_t i = 0; i < length; ++i) {
    audio[2 * i] = text[i];
    audio[2 * i + 1] = 0;
  }
  return to >= 0 && length >= 0 && write(to, audio, (size_t)(2 * length)) == 2 * length ? 0 : 1;
}

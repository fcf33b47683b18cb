#include "heartbeat.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <utility>

#include "format.h"
#include "localfile.h"

namespace {

// The daemon compares 16-bit checksums of the texts, and a checksum of 0 means a missing file. The
// checksums of these texts differ, and none is 0.
constexpr int kTexts = 100;
constexpr char kText[] = "alive %02d\n";
constexpr size_t kTextSize = 9;  // Bytes of a text.

}  // namespace

Heartbeat::Heartbeat(const std::string& directory_) : path(directory_ + ".helper.timestamp") {
  InputFile file(path);
  char text[kTextSize + 1] = "";
  file.Read(text, kTextSize);
  if (file.IsOpen() && sscanf(text, kText, &number) != 1) {  // NOLINT(cert-err34-c): two digits.
    number = 0;
  }
}

void Heartbeat::Beat() {
  const int next = (number + 1) % kTexts;
  const std::string text = Format(kText, next);
  LocalFile file(path + ".new", std::exchange(has_spare, false) ? 0 : O_TRUNC);
  file.Write(text.data(), text.size());  // All texts have the same size.
  has_spare = file.Exchange(path);
  if (!has_spare) {
    file.Rename(path);
  }
  number = next;
}

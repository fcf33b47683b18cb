#include "clipcheck.h"

#include <ctype.h>
#include <stdint.h>
#include <strings.h>

#include <algorithm>

#include "format.h"

namespace {

constexpr size_t kHeadBytes = 64 << 10;  // The chunks before the sound are shorter.

std::string ReadHead(const std::string& path_) {
  InputFile file(path_);
  std::string head(kHeadBytes, '\0');
  head.resize(file.Read(head.data(), head.size()));
  return head;
}

bool HasAt(const std::string& text_, size_t at_, const std::string& part_) {
  return text_.size() >= at_ && text_.compare(at_, part_.size(), part_) == 0;
}

bool EndsLike(const std::string& name_, const std::string& end_) {
  return name_.size() >= end_.size() &&
         strcasecmp(name_.c_str() + name_.size() - end_.size(), end_.c_str()) == 0;
}

// The little-endian number of four bytes. REQUIRES: text_ has them.
uint32_t NumberAt(const std::string& text_, size_t at_) {
  uint32_t number = 0;
  for (size_t i = 4; i-- > 0;) {
    number = number << 8 | static_cast<unsigned char>(text_[at_ + i]);
  }
  return number;
}

// Looks for the chunk with the format and then for the one with the sound. Returns the reason if
// one is missing.
std::string WhyNoWav(const std::string& head_) {
  constexpr size_t kHeader = 12;
  constexpr size_t kChunkHeader = 8;
  if (!HasAt(head_, kHeader - 4, "WAVE")) {
    return "it begins with RIFF, but is not WAV";
  }
  bool has_format = false;
  for (uint64_t at = kHeader; at + kChunkHeader <= head_.size();) {
    const size_t here = static_cast<size_t>(at);
    const uint32_t size = NumberAt(head_, here + 4);
    has_format = has_format || HasAt(head_, here, "fmt ");
    if (HasAt(head_, here, "data")) {
      return !has_format ? "its format is missing" : size == 0 ? "it has no samples" : "";
    }
    at += kChunkHeader + size + size % 2;
    if (at > kHeadBytes) {
      return "";  // The next chunk is beyond the bytes that were read.
    }
  }
  return "it ends before its sound";
}

bool IsText(const std::string& head_) {
  return std::all_of(head_.begin(), head_.end(), [](char c_) {
    const auto byte = static_cast<unsigned char>(c_);
    return isprint(byte) != 0 || isspace(byte) != 0;
  });
}

}  // namespace

std::string WhyNoSound(const std::string& path_) {
  static const struct {
    size_t at;
    std::string bytes;
    const char* kind;
  } kOthers[] = {
      {0, "ID3", "MP3"}, {0, "OggS", "Ogg"}, {0, "fLaC", "FLAC"}, {0, "FORM", "AIFF"},
      {0, ".snd", "AU"}, {4, "ftyp", "MP4"}, {0, "caff", "CAF"},  {0, "\x1a\x45\xdf\xa3", "WebM"},
  };
  const std::string head = ReadHead(path_);
  if (head.empty()) {
    return "it is empty";
  }
  if (HasAt(head, 0, "RIFF")) {
    return WhyNoWav(head);
  }
  for (const auto& other : kOthers) {
    if (HasAt(head, other.at, other.bytes)) {
      return std::string("it is ") + other.kind;
    }
  }
  if (EndsLike(path_, ".wav")) {
    return "it is called WAV, but does not begin with RIFF";
  }
  if (EndsLike(path_, ".mp3")) {
    return "it is called MP3";
  }
  return IsText(head) ? "it is text" : "";
}

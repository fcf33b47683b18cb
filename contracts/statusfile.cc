#include "statusfile.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

#include "clock.h"
#include "format.h"

namespace {

constexpr int kHalfFilePause = 10;  // Milliseconds.
constexpr size_t kMaxFileBytes = 16 << 20;
constexpr size_t kMaxStatusBytes = 4 << 20;  // More than any status.
// Of an element. The time to read them grows with the square of their number.
constexpr int kMaxAttributes = 30;

constexpr char kNameCharacters[] = "abcdefghijklmnopqrstuvwxyz-";

// Reads a dump from front to back. Each step returns false at a byte that a dump cannot have there,
// and at the end of an incomplete file.
class DumpParser {
 public:
  explicit DumpParser(const std::string& text_) : text(text_) {}

  // Null if the text is not one complete document.
  std::unique_ptr<XMLElement> Parse() {
    do {
      while (Take(" ")) {
      }
      if (!(Take("</") ? EndTag() : StartTag())) {
        return nullptr;
      }
    } while (last != nullptr);
    if (position != text.size()) {
      return nullptr;
    }
    return std::move(root);
  }

 private:
  bool Take(const char* expected_) {
    const size_t length = strlen(expected_);
    if (text.compare(position, length, expected_) != 0) {
      return false;
    }
    position += length;
    return true;
  }

  std::string Name() {
    const size_t start = position;
    position = std::min(text.find_first_not_of(kNameCharacters, start), text.size());
    return text.substr(start, position - start);
  }

  bool StartTag() {
    if (!Take("<")) {
      return false;
    }
    auto element = std::make_unique<XMLElement>(Name().c_str());
    for (int count = 0; Take(" "); ++count) {
      const std::string name = Name();
      std::string value;
      if (count == kMaxAttributes || !Take("=\"") || !Value(value)) {
        return false;
      }
      element->SetAttributeString(name, value);
    }
    const bool is_empty = Take("/>\n");
    if (!is_empty && !Take(">\n")) {
      return false;
    }
    XMLElement* const added = element.get();
    if (last != nullptr) {
      last->AddChild(element.release());
    } else {
      root = std::move(element);
    }
    if (!is_empty) {
      last = added;
    }
    return true;
  }

  // A value may hold anything. It ends at the first quote before a further attribute or the end of
  // the tag.
  bool Value(std::string& value_) {
    for (size_t quote = text.find('"', position); quote != std::string::npos;
         quote = text.find('"', quote + 1)) {
      if (IsAfterValue(quote + 1)) {
        value_ = text.substr(position, quote - position);
        position = quote + 1;
        return true;
      }
    }
    return false;
  }

  bool IsAfterValue(size_t position_) const {
    if (text.compare(position_, 2, ">\n") == 0 || text.compare(position_, 3, "/>\n") == 0) {
      return true;
    }
    const size_t end = text.find_first_not_of(kNameCharacters, position_ + 1);
    return text.compare(position_, 1, " ") == 0 && end > position_ + 1 &&
           end != std::string::npos && text.compare(end, 2, "=\"") == 0;
  }

  bool EndTag() {
    if (last == nullptr || Name() != last->GetName() || !Take(">\n")) {
      return false;
    }
    last = last->GetParent();
    return true;
  }

  const std::string& text;
  size_t position = 0;
  std::unique_ptr<XMLElement> root;
  XMLElement* last = nullptr;  // The innermost open element.
};

// True if the tree has every attribute that the daemon reports.
bool IsStatus(const XMLElement& root_) {
  try {
    for (const char* name : {"timestamp", "now-playing", "output-bound"}) {
      root_.GetAttributeInteger(name);
    }
    root_.GetAttributeString("state");
    for (const XMLElement* directory : root_.GetChildren("directory")) {
      for (const char* name : {"id", "status", "path"}) {
        directory->GetAttributeString(name);
      }
      directory->GetAttributeInteger("total-file-count");
      directory->GetAttributeInteger("updated-file-count");
      for (const XMLElement* message : directory->GetChildren("message")) {
        message->GetAttributeInteger("id");
        message->GetAttributeInteger("plays");
        message->GetAttributeString("filename");
      }
    }
  } catch (const std::string&) {
    return false;
  }
  return root_.GetName() == "tts-status";
}

}  // namespace

std::string ReadWhole(const std::string& path_) {
  InputFile file(path_);
  if (!file.IsOpen()) {
    throw Format("%s: %s", path_.c_str(), strerror(errno));
  }
  std::string text;
  char block[65536];
  size_t length = 0;
  while (text.size() < kMaxFileBytes && (length = file.Read(block, sizeof(block))) > 0) {
    text.append(block, length);
  }
  return text;
}

std::string ReadOrNothing(const std::string& path_) {
  try {
    return ReadWhole(path_);
  } catch (const std::string&) {
    return "";
  }
}

std::unique_ptr<XMLElement> ParseDump(const std::string& text_) {
  return DumpParser(text_).Parse();
}

std::unique_ptr<XMLElement> ParseStatus(const std::string& text_) {
  std::unique_ptr<XMLElement> root = ParseDump(text_);
  if (!root || !IsStatus(*root)) {
    return nullptr;
  }
  return root;
}

std::unique_ptr<XMLElement> TryReadStatus(const std::string& path_) {
  const std::string text = ReadWhole(path_);
  if (text.size() > kMaxStatusBytes) {
    throw Format("%s: is too large for a status", path_.c_str());
  }
  std::unique_ptr<XMLElement> root = ParseStatus(text);
  // Compares a second read: the first text may be mixed from two statuses.
  if (root && ReadWhole(path_) != text) {
    root.reset();
  }
  return root;
}

std::unique_ptr<XMLElement> ReadStatus(const std::string& path_, double limit_) {
  const double deadline = Now() + limit_;
  do {
    std::unique_ptr<XMLElement> root = TryReadStatus(path_);
    if (root) {
      return root;
    }
    Nap(kHalfFilePause);
  } while (Now() < deadline);
  throw Format("%s: holds no whole status", path_.c_str());
}

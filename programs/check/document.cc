#include "document.h"

#include <errno.h>
#include <expat.h>
#include <string.h>
#include <unistd.h>
#include <utf8.h>

#include <algorithm>
#include <list>
#include <type_traits>

#include "charencoding.h"
#include "format.h"

namespace {

std::string ReadWhole(const std::string& path_) {
  InputFile file(path_);
  std::string text;
  char block[16384];
  size_t length = 0;
  while ((length = file.Read(block, sizeof(block))) > 0) {
    text.append(block, length);
  }
  return text;
}

}  // namespace

// Reads a file a second time, to its end, and keeps what LoadXMLTree does not: the line of every
// element, and whether the file ends early.
class TagReader {
 public:
  explicit TagReader(const std::string& path_) {
    std::string text = ReadWhole(path_);  // Empty if it cannot be read.
    const auto invalid = utf8::find_invalid(text.begin(), text.end());
    if (invalid != text.end()) {
      invalid_line = 1 + static_cast<int>(std::count(text.begin(), invalid, '\n'));
      text = Utf8ReplaceInvalid(text);  // As the daemon does.
    }
    const std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> owner(
        XML_ParserCreate("UTF-8"), XML_ParserFree);
    parser = owner.get();
    XML_SetUserData(parser, this);
    XML_SetElementHandler(parser, Start, End);
    if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE) != XML_STATUS_OK) {
      error = XML_ErrorString(XML_GetErrorCode(parser));
      error_line = Line();
    } else {
      error_line = tags.front().line;
    }
  }

  std::vector<Tag> tags;                                   // In the order of start tags.
  std::string error;                                       // Empty: whole and well-formed.
  int error_line = 1;                                      // Of the root if there is no error.
  int invalid_line = 0;                                    // Of the first byte that is not UTF-8.
  std::vector<std::pair<std::string, int>> open_elements;  // Where reading stopped.

 private:
  static void Start(void* user_, const char* name_, const char** attributes_) noexcept {
    auto* self = static_cast<TagReader*>(user_);
    Tag tag;
    tag.line = self->Line();
    for (; attributes_[0] != nullptr; attributes_ += 2) {
      tag.attributes.emplace_back(attributes_[0], attributes_[1]);
    }
    self->open_elements.emplace_back(name_, tag.line);
    self->tags.push_back(std::move(tag));
  }

  static void End(void* user_, const char* /*name_*/) noexcept {
    static_cast<TagReader*>(user_)->open_elements.pop_back();
  }

  int Line() const { return static_cast<int>(XML_GetCurrentLineNumber(parser)); }

  XML_Parser parser = nullptr;
};

Document::Document(const std::string& path_, const std::string& root_name_, Findings& findings_)
    : path(path_) {
  const TagReader reader(path_);
  try {
    root = LoadXMLTree(path_, root_name_);
  } catch (const std::string& why) {
    findings_.Error({path_, reader.error_line, root_name_}, Complete(why, reader),
                    RemedyFor(reader));
    return;
  }
  NoteTags(reader);
  if (!reader.error.empty()) {
    const auto& [name, line] =
        reader.open_elements.empty() ? std::make_pair(root_name_, 1) : reader.open_elements.back();
    findings_.Error({path_, reader.error_line, root_name_},
                    "the file ends early, inside <" + name + "> of line " + std::to_string(line) +
                        "; the daemon would take what is there for all",
                    "Restore the rest of the file");
  }
  if (reader.invalid_line != 0) {
    findings_.Warning({path_, reader.invalid_line, root_name_},
                      "not UTF-8; the daemon replaces what is wrong by U+FFFD",
                      "Save the file as UTF-8");
  }
}

Place Document::PlaceOf(const XMLElement& element_, const std::string& item_) const {
  return {path, TagOf(element_).line, item_};
}

void Document::CheckChildren(const XMLElement& element_, const std::vector<std::string>& known_,
                             Findings& findings_) const {
  for (const XMLElement* child : element_.GetChildren("")) {
    const std::string name = child->GetName();
    if (std::find(known_.begin(), known_.end(), name) == known_.end()) {
      findings_.Warning(PlaceOf(*child, name),
                        "unknown element in <" + element_.GetName() + "> is ignored", "Remove it");
    }
  }
}

bool Document::IsReadable() const { return access(path.c_str(), R_OK) == 0; }

// Adds the XML error to why_: if the XML is malformed before the root, the daemon only names the
// missing root.
std::string Document::Complete(const std::string& why_, const TagReader& reader_) const {
  const bool is_complete = !IsReadable() || reader_.error.empty() ||
                           why_.compare(0, reader_.error.size(), reader_.error) == 0;
  return is_complete ? why_ : why_ + ": " + reader_.error;
}

std::string Document::RemedyFor(const TagReader& reader_) const {
  if (!IsReadable()) {
    return std::string("Let the daemon's user read it (") + strerror(errno) + ")";
  }
  return reader_.error.empty() ? "Name the root element so" : "Correct the XML at that line";
}

// Both go through the elements in the order of start tags.
void Document::NoteTags(const TagReader& reader_) {
  std::vector<const XMLElement*> waiting = {root.get()};
  for (const Tag& tag : reader_.tags) {
    if (waiting.empty()) {
      break;
    }
    const XMLElement* element = waiting.back();
    waiting.pop_back();
    tags[element] = tag;
    const std::list<const XMLElement*> children = element->GetChildren("");
    waiting.insert(waiting.end(), children.rbegin(), children.rend());
  }
}

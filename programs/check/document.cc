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
#include "names.h"

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

bool IsUtf16(const std::string& text_) {
  const std::string begin = text_.substr(0, 2);
  return begin == "\xff\xfe" || begin == "\xfe\xff" || begin == std::string("<\0", 2) ||
         begin == std::string("\0<", 2);
}

// True if the line has a "&" that begins no predefined reference.
bool HasBareAmpersand(const std::string& line_) {
  for (size_t at = line_.find('&'); at != std::string::npos; at = line_.find('&', at + 1)) {
    const auto begins = [&](const char* name_) {
      return line_.compare(at + 1, strlen(name_), name_) == 0;
    };
    if (!begins("amp;") && !begins("lt;") && !begins("gt;") && !begins("quot;") &&
        !begins("apos;") && !begins("#")) {
      return true;
    }
  }
  return false;
}

// The error for which the daemon refuses the document at path_, "... at line N"; empty if it is
// well-formed or cannot be read.
std::string DaemonError(const std::string& path_) {
  try {
    const XMLDocument document(path_, "utf8");
    const std::unique_ptr<XMLElement> root(document.GetRoot());
    return document.GetError();
  } catch (const std::string&) {
    return "";
  }
}

}  // namespace

// Reads a file a second time, to its end, and keeps facts that LoadXMLTree drops: the line of each
// element, and whether the file ends early. REQUIRES: the daemon's limits on documents, which bound
// the time and memory of this too, do not stop LoadXMLTree.
class TagReader {
 public:
  explicit TagReader(const std::string& path_) {
    std::string text = ReadWhole(path_);  // Empty if it cannot be read.
    is_utf16 = IsUtf16(text);
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
    XML_SetCharacterDataHandler(parser, Text);
    if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE) != XML_STATUS_OK) {
      error = XML_ErrorString(XML_GetErrorCode(parser));
      error_line = Line();
      const auto at = static_cast<size_t>(std::max<XML_Index>(XML_GetCurrentByteIndex(parser), 0));
      const size_t begin = at == 0 ? 0 : text.rfind('\n', at - 1) + 1;
      has_bare_ampersand = HasBareAmpersand(text.substr(begin, text.find('\n', at) - begin));
    } else {
      error_line = tags.front().line;
    }
  }

  struct OpenElement {
    std::string name;
    size_t tag;  // Index.
  };

  std::vector<Tag> tags;            // In the order of start tags.
  std::string error;                // Empty: the file is complete and well-formed.
  int error_line = 1;               // Of the root if there is no error.
  bool has_bare_ampersand = false;  // In the line of the error.
  bool is_utf16 = false;
  int invalid_line = 0;                    // Of the first byte that is not UTF-8.
  std::vector<OpenElement> open_elements;  // Where reading stopped.

 private:
  static void Start(void* user_, const char* name_, const char** attributes_) noexcept {
    auto* self = static_cast<TagReader*>(user_);
    Tag tag;
    tag.line = self->Line();
    // Specified attributes come first. The tag's default attributes, which follow, are left out.
    for (int i = 0; i < XML_GetSpecifiedAttributeCount(self->parser); i += 2) {
      tag.attributes.emplace_back(attributes_[i]);
    }
    self->open_elements.push_back({name_, self->tags.size()});
    self->tags.push_back(std::move(tag));
  }

  static void Text(void* user_, const char* text_, int length_) noexcept {
    auto* self = static_cast<TagReader*>(user_);
    Tag& tag = self->tags[self->open_elements.back().tag];
    const bool is_blank = std::all_of(text_, text_ + length_,
                                      [](char c_) { return strchr(" \t\r\n", c_) != nullptr; });
    if (tag.text_line == 0 && !is_blank) {
      tag.text_line = self->Line();
    }
  }

  static void End(void* user_, const char* /*name_*/) noexcept {
    static_cast<TagReader*>(user_)->open_elements.pop_back();
  }

  int Line() const { return static_cast<int>(XML_GetCurrentLineNumber(parser)); }

  XML_Parser parser = nullptr;
};

Document::Document(const std::string& path_, const std::string& root_name_, Findings& findings_)
    : path(path_) {
  try {
    root = LoadXMLTree(path_, root_name_);
  } catch (const std::string& why) {
    Explain(why, root_name_, findings_);
    return;
  }
  const TagReader reader(path_);
  NoteTags(reader);
  if (!reader.error.empty()) {
    std::string name = root_name_;
    int line = 1;
    if (!reader.open_elements.empty()) {
      name = reader.open_elements.back().name;
      line = reader.tags[reader.open_elements.back().tag].line;
    }
    findings_.Error({path_, reader.error_line, root_name_},
                    "the file ends early, inside <" + name + "> of line " + std::to_string(line) +
                        "; the daemon would use the part that is there",
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

void Document::CheckContent(const XMLElement& element_, const std::vector<std::string>& known_,
                            Findings& findings_) const {
  const Tag& tag = TagOf(element_);
  if (tag.text_line != 0) {
    findings_.Warning({path, tag.text_line, element_.GetName()}, "text in the element is ignored",
                      "Remove it, or write it as an attribute or a comment");
  }
  for (const XMLElement* child : element_.GetChildren("")) {
    const std::string name = child->GetName();
    if (std::find(known_.begin(), known_.end(), name) != known_.end()) {
      continue;
    }
    const std::string problem = "unknown element in <" + element_.GetName() + "> is ignored";
    const std::string meant = NearestName(name, known_);
    const std::string remedy = meant.empty() ? "Remove it" : DidYouMean(meant);
    if (meant.empty() || root->GetName() != "tts-config") {
      findings_.Warning(PlaceOf(*child, name), problem, remedy);
    } else {
      findings_.Error(PlaceOf(*child, name), problem, remedy);
    }
  }
}

bool Document::IsReadable() const { return access(path.c_str(), R_OK) == 0; }

// Adds the finding for a file that LoadXMLTree has refused.
void Document::Explain(const std::string& why_, const std::string& root_name_,
                       Findings& findings_) const {
  const std::string error = DaemonError(path);
  const std::string exhausted = std::string(XML_ErrorString(XML_ERROR_NO_MEMORY)) + " at line ";
  if (error.compare(0, exhausted.size(), exhausted) == 0) {
    findings_.Error({path, ParseInteger(error.substr(exhausted.size())), root_name_},
                    "the daemon refuses a document that takes so much memory: " + error,
                    "Remove entities and attribute declarations");
    return;
  }
  const TagReader reader(path);
  findings_.Error({path, reader.error_line, root_name_}, Complete(why_, reader), RemedyFor(reader));
}

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
  if (reader_.is_utf16) {
    return "Save the file as UTF-8: it is UTF-16";
  }
  if (reader_.has_bare_ampersand) {
    return "Write \"&amp;\" for each \"&\" at that line";
  }
  return reader_.error.empty() ? "Correct the name of the root element"
                               : "Correct the XML at that line";
}

// Pairs elements and tags, as both are in the order of start tags.
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

// vocastra-check: says what the daemon would trip over, or do without a word.
//
// An error is what keeps messages from being spoken or destroys files that are not the daemon's
// own; a warning is what the daemon does otherwise than it is written. What the modules judge is
// left to them; this program only adds lines, remedies and what nobody else looks at.

#include <errno.h>
#include <expat.h>
#include <getopt.h>
#include <limits.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utf8.h>

#include <algorithm>
#include <exception>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "charencoding.h"
#include "debug.h"
#include "format.h"
#include "xml.h"
#include "xmlfileparser.h"

namespace {

enum ExitStatus { kClean = 0, kWarnings = 1, kErrors = 2 };

struct Options {
  bool is_verbose = false;
  std::string config_path;
  std::string glossary_path;
  bool has_command_line = false;  // Any of the options below was given: judge them all.
  std::string debug_mask = "1";
  std::string status_path;
  std::string output_path;
  std::string translator_path;
  std::string cifs_helper_path;
  std::string ftp_helper_path;
  std::string words = "10";
  std::string files = "10";
};

// --- Findings ------------------------------------------------------------------------------------

std::string Quoted(const std::string& value) { return "\"" + value + "\""; }

struct Place {
  std::string file;
  int line = 0;      // 0: the command line.
  std::string what;  // Which element or option.
};

class Findings {
 public:
  void Error(const Place& place, const std::string& what, const std::string& remedy) {
    Add(place, "error", what, remedy);
    status_ = kErrors;
  }
  void Warning(const Place& place, const std::string& what, const std::string& remedy) {
    Add(place, "warning", what, remedy);
    status_ = std::max(status_, kWarnings);
  }

  // In the order of files and lines; on standard error, where a service's log comes from.
  ExitStatus Print() {
    std::stable_sort(lines_.begin(), lines_.end(),
                     [](const Line& a, const Line& b) { return a.first < b.first; });
    for (const Line& line : lines_) {
      fprintf(stderr, "%s\n", line.second.c_str());
    }
    return status_;
  }

 private:
  using Line = std::pair<std::tuple<size_t, int>, std::string>;  // Rank of the file, line; text.

  void Add(const Place& place, const char* kind, const std::string& what,
           const std::string& remedy) {
    const size_t rank = ranks_.emplace(place.file, ranks_.size()).first->second;
    std::string text = Format("%s:%d: %s: %s: %s. %s.", place.file.c_str(), place.line, kind,
                              place.what.c_str(), what.c_str(), remedy.c_str());
    // One finding is one line, whatever the file holds.
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return Utf8IsControl(c) && c < 0x80; },
        '?');
    lines_.emplace_back(std::make_tuple(rank, place.line), text);
  }

  std::map<std::string, size_t> ranks_;
  std::vector<Line> lines_;
  ExitStatus status_ = kClean;
};

// --- Lines of an XML file ------------------------------------------------------------------------

// What the daemon's tree does not keep of an element.
struct Tag {
  int line = 0;
  std::vector<std::pair<std::string, std::string>> attributes;
};

// The whole file as the daemon gives it to the parser; empty if it cannot be read.
std::string ReadMended(const std::string& path, size_t& first_invalid) {
  InputFile file(path);
  std::string text;
  char block[16384];
  size_t length = 0;
  while ((length = file.Read(block, sizeof(block))) > 0) {
    text.append(block, length);
  }
  first_invalid = static_cast<size_t>(utf8::find_invalid(text.begin(), text.end()) - text.begin());
  if (first_invalid == text.size()) {
    first_invalid = std::string::npos;
    return text;
  }
  return Utf8ReplaceInvalid(text);
}

// Goes over a file once more, to the very end, and keeps what LoadXMLTree does not: the lines of
// its elements, and that it ends early.
class TagReader {
 public:
  explicit TagReader(const std::string& path) {
    size_t first_invalid = 0;
    const std::string text = ReadMended(path, first_invalid);
    if (first_invalid != std::string::npos) {
      const auto end = text.begin() + static_cast<std::ptrdiff_t>(first_invalid);
      invalid_line = 1 + static_cast<int>(std::count(text.begin(), end, '\n'));
    }
    const std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> parser(
        XML_ParserCreate("UTF-8"), XML_ParserFree);
    parser_ = parser.get();
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(parser_, Start, End);
    if (XML_Parse(parser_, text.data(), static_cast<int>(text.size()), XML_TRUE) != XML_STATUS_OK) {
      error = XML_ErrorString(XML_GetErrorCode(parser_));
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
  static void Start(void* user, const char* name, const char** attributes) noexcept {
    auto* self = static_cast<TagReader*>(user);
    Tag tag;
    tag.line = self->Line();
    for (; attributes[0] != nullptr; attributes += 2) {
      tag.attributes.emplace_back(attributes[0], attributes[1]);
    }
    self->open_elements.emplace_back(name, tag.line);
    self->tags.push_back(std::move(tag));
  }

  static void End(void* user, const char* /*name*/) noexcept {
    static_cast<TagReader*>(user)->open_elements.pop_back();
  }

  int Line() const { return static_cast<int>(XML_GetCurrentLineNumber(parser_)); }

  XML_Parser parser_;
};

// An XML file as the daemon loads it, with the place of every element.
class Document {
 public:
  // Null root, and findings that say why, if the daemon could not use the file.
  Document(const std::string& path, const std::string& root_name, Findings& findings)
      : path_(path) {
    const TagReader reader(path);
    try {
      root = LoadXMLTree(path, root_name);
    } catch (const std::string& why) {
      findings.Error({path, reader.error_line, root_name}, Complete(why, reader),
                     RemedyFor(reader));
      return;
    }
    NoteTags(reader);
    if (!reader.error.empty()) {
      const auto& [name, line] =
          reader.open_elements.empty() ? std::make_pair(root_name, 1) : reader.open_elements.back();
      findings.Error({path, reader.error_line, root_name},
                     "the file ends early, inside <" + name + "> of line " + std::to_string(line) +
                         "; the daemon would take what is there for all",
                     "Restore the rest of the file");
    }
    if (reader.invalid_line != 0) {
      findings.Warning({path, reader.invalid_line, root_name},
                       "not UTF-8; the daemon replaces what is wrong by U+FFFD",
                       "Save the file as UTF-8");
    }
  }

  const Tag& TagOf(const XMLElement& element) const { return tags_.at(&element); }

  Place PlaceOf(const XMLElement& element, const std::string& what) const {
    return {path_, TagOf(element).line, what};
  }

  std::unique_ptr<XMLElement> root;

 private:
  bool IsReadable() const { return access(path_.c_str(), R_OK) == 0; }

  // The daemon only says which root it misses when the XML breaks before there is one.
  std::string Complete(const std::string& why, const TagReader& reader) const {
    const bool is_complete = !IsReadable() || reader.error.empty() ||
                             why.compare(0, reader.error.size(), reader.error) == 0;
    return is_complete ? why : why + ": " + reader.error;
  }

  std::string RemedyFor(const TagReader& reader) const {
    if (!IsReadable()) {
      return std::string("Let the daemon's user read it (") + strerror(errno) + ")";
    }
    return reader.error.empty() ? "Name the root element so" : "Correct the XML at that line";
  }

  void NoteTags(const TagReader& reader) {
    std::vector<const XMLElement*> waiting = {root.get()};
    for (const Tag& tag : reader.tags) {
      if (waiting.empty()) {
        break;
      }
      const XMLElement* element = waiting.back();
      waiting.pop_back();
      tags_[element] = tag;
      const std::list<const XMLElement*> children = element->GetChildren("");
      waiting.insert(waiting.end(), children.rbegin(), children.rend());
    }
  }

  std::string path_;
  std::map<const XMLElement*, Tag> tags_;
};

// --- Paths ---------------------------------------------------------------------------------------

// Without links, "." and ".."; as far as the path exists up to its last name.
std::string RealPath(const std::string& path) {
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) != nullptr) {
    return resolved;
  }
  std::string plain = path.substr(0, path.find_last_not_of('/') + 1);
  const size_t slash = plain.rfind('/');
  if (slash != std::string::npos && slash > 0 &&
      realpath(plain.substr(0, slash).c_str(), resolved) != nullptr) {
    return resolved + plain.substr(slash);
  }
  return plain;
}

bool IsBelow(const std::string& path, const std::string& directory) {
  return path.size() > directory.size() && path.compare(0, directory.size(), directory) == 0 &&
         path[directory.size()] == '/';
}

std::string ParentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

// Why the files in that directory must not be removed; empty if nothing is known against it.
std::string WhyPrecious(const std::string& real) {
  static const char* const kSystemTrees[] = {"/bin",     "/boot",     "/etc",       "/lib",
                                             "/proc",    "/sbin",     "/sys",       "/usr/bin",
                                             "/usr/lib", "/usr/sbin", "/usr/share", "/usr/include"};
  static const char* const kSharedPlaces[] = {
      "/",     "/dev",     "/dev/shm",  "/home",      "/media",   "/mnt",      "/opt",
      "/root", "/run",     "/run/lock", "/srv",       "/tmp",     "/usr",      "/usr/local",
      "/var",  "/var/lib", "/var/log",  "/var/spool", "/var/tmp", "/var/cache"};
  for (const char* tree : kSystemTrees) {
    if (real == tree || IsBelow(real, tree)) {
      return "it belongs to the system";
    }
  }
  for (const char* place : kSharedPlaces) {
    if (real == place) {
      return "other programs keep files there";
    }
  }
  std::string why;
  setpwent();
  while (const passwd* user = getpwent()) {
    if (RealPath(user->pw_dir) == real) {
      why = std::string("it is the home directory of ") + user->pw_name;
      break;
    }
  }
  endpwent();
  return why;
}

// The characters of value that the shell does not take as they are, each once.
std::string ShellCharacters(const std::string& value, bool may_be_words) {
  std::string found;
  for (const char c : value) {
    const bool is_read = strchr("\"'$;&|<>()`*?[]#~!\\\r\n", c) != nullptr;
    const bool is_blank = c == ' ' || c == '\t';
    if (c != '\0' && (is_read || (is_blank && !may_be_words)) &&
        found.find(c) == std::string::npos) {
      found += c;
    }
  }
  return found;
}

std::string Described(const std::string& characters) {
  std::string text;
  for (const char c : characters) {
    text += text.empty() ? "" : " ";
    text += c == ' '                 ? "blank"
            : c == '\t'              ? "tab"
            : c == '\n' || c == '\r' ? "line end"
                                     : std::string(1, c);
  }
  return text;
}

std::string ThroughShell(const std::string& what, const std::string& characters) {
  return what + " goes through the shell, which reads " + Described(characters);
}

// What is wrong with a directory that the daemon reads, writes and searches; empty: nothing.
std::string WhyUnusable(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    return strerror(errno);
  }
  if (!S_ISDIR(status.st_mode)) {
    return "not a directory";
  }
  if (access(path.c_str(), R_OK | W_OK | X_OK) != 0) {
    return "not readable and writable";
  }
  return "";
}

// What is wrong with a program; empty: nothing.
std::string WhyNotExecutable(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    return strerror(errno);
  }
  return S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0 ? "" : "not executable";
}

constexpr char kAboveSubdir[] = "path above subdir";  // Emptied, but not looked into.
constexpr char kLastPlayed[] = "last-played-path";
constexpr char kOutput[] = "output";

// Directories that the daemon uses, and files that it needs.
class PathUses {
 public:
  // A directory whose files the daemon takes or removes.
  void AddDirectory(const Place& place, const std::string& role, const std::string& path) {
    directories_.push_back({place, role, path, RealPath(path)});
  }
  void AddFile(const Place& place, const std::string& role, const std::string& path) {
    files_.push_back({place, role, path, RealPath(path)});
  }

  void Check(Findings& findings) const {
    for (size_t i = 0; i < directories_.size(); ++i) {
      const Use& directory = directories_[i];
      const std::string why = WhyPrecious(directory.real);
      if (!why.empty()) {
        findings.Error(directory.place,
                       directory.role + " " + Quoted(directory.path) + " is emptied, but " + why,
                       "Use a directory of its own");
      }
      for (size_t j = 0; j < i; ++j) {
        CheckPair(directories_[j], directory, findings);
      }
      for (const Use& file : files_) {
        if (ParentOf(file.real) == directory.real) {
          findings.Error(file.place,
                         file.role + " " + Quoted(file.path) + " lies in the " + directory.role +
                             " of " + directory.place.what + ", where files are taken or removed",
                         "Move it elsewhere");
        }
      }
    }
  }

 private:
  struct Use {
    Place place;
    std::string role;
    std::string path;
    std::string real;
  };

  // Sub-directories are ignored and never removed, so only one below an input is worth a word.
  static void CheckPair(const Use& first, const Use& second, Findings& findings) {
    const bool is_same_role = first.role == second.role;
    const std::string name = second.role + " " + Quoted(second.path);
    if (first.real == second.real) {
      if (is_same_role && first.role == kAboveSubdir) {
        return;
      }
      if (is_same_role && first.role == kLastPlayed) {
        findings.Warning(
            second.place,
            name + " is also that of " + first.place.what + ": each removes the other's copies",
            "Make sure that this is meant");
        return;
      }
      findings.Error(second.place,
                     name + " is also the " + first.role + " of " + first.place.what +
                         ": each takes or removes the other's files",
                     "Use a directory of its own");
    } else if ((first.role == kOutput) != (second.role == kOutput) &&
               (IsBelow(first.real, second.real) || IsBelow(second.real, first.real))) {
      findings.Warning(second.place,
                       name + " and the " + first.role + " " + Quoted(first.path) + " of " +
                           first.place.what + " lie one inside the other",
                       "Keep them apart");
    }
  }

  std::vector<Use> directories_;
  std::vector<Use> files_;
};

// --- Attributes ----------------------------------------------------------------------------------

struct Attribute {
  const char* name;
  bool is_number;
  const char* types;  // Blank-separated types of directory for which it means something.
};

constexpr char kAllTypes[] = "local cifs ftp";
constexpr char kRemoteTypes[] = "cifs ftp";

const std::vector<Attribute> kDirectoryAttributes = {
    {"id", false, kAllTypes},           {"display-id", false, kAllTypes},
    {"parser", false, kAllTypes},       {"encoding", false, kAllTypes},
    {"priority", true, kAllTypes},      {"loops", true, kAllTypes},
    {"subdir", false, kAllTypes},       {"conv-opts", false, kAllTypes},
    {"preview", true, kAllTypes},       {"last-played-path", false, kAllTypes},
    {"bumper-path", false, kAllTypes},  {"spacer-path", false, kAllTypes},
    {"silence-path", false, kAllTypes}, {"dir-mode", false, kAllTypes},
    {"auto-delete", true, kAllTypes},   {"ftp-poll-rate", true, "ftp"},
    {"type", false, kAllTypes},         {"path", false, kAllTypes},
    {"username", false, kRemoteTypes},  {"password", false, kRemoteTypes},
    {"mount-opts", false, "cifs"},      {"ftp-mode", false, "ftp"}};
const std::vector<Attribute> kRootAttributes = {{"state", false, kAllTypes}};
const std::vector<Attribute> kParserAttributes = {
    {"id", false, kAllTypes}, {"type", false, kAllTypes}, {"attr-mode", true, kAllTypes}};
const std::vector<Attribute> kFieldAttributes = {{"parent", false, kAllTypes},
                                                 {"tag", false, kAllTypes},
                                                 {"attr", false, kAllTypes},
                                                 {"attr_value", false, kAllTypes}};
const std::vector<Attribute> kWordAttributes = {{"text", false, kAllTypes},
                                                {"speech", false, kAllTypes}};

// Letters and digits in lower case: "Bumper_Path" and "bumper-path" are alike.
std::string Simplified(const std::string& name) {
  std::string text;
  for (const char c : name) {
    if (isalnum(static_cast<unsigned char>(c)) != 0) {
      text += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
  }
  return text;
}

// Warns of attributes that nobody reads.
void CheckKnown(const Tag& tag, const Place& place, const std::vector<Attribute>& known,
                Findings& findings) {
  for (const auto& [name, value] : tag.attributes) {
    std::string remedy = "Remove it";
    bool is_known = false;
    for (const Attribute& attribute : known) {
      is_known = is_known || name == attribute.name;
      if (Simplified(name) == Simplified(attribute.name)) {
        remedy = "Write " + Quoted(attribute.name);
      }
    }
    if (!is_known) {
      findings.Warning(place, "unknown attribute " + Quoted(name) + " is ignored", remedy);
    }
  }
}

void CheckChildren(const Document& document, const XMLElement& element,
                   const std::set<std::string>& known, Findings& findings) {
  for (const XMLElement* child : element.GetChildren("")) {
    const std::string name = child->GetName();
    if (known.count(name) == 0) {
      findings.Warning(document.PlaceOf(*child, name),
                       "unknown element in <" + element.GetName() + "> is ignored", "Remove it");
    }
  }
}

// --- Configuration -------------------------------------------------------------------------------

class ConfigurationCheck {
 public:
  ConfigurationCheck(const Options& options, PathUses& uses, Findings& findings)
      : options_(options),
        uses_(uses),
        findings_(findings),
        document_(options.config_path, "tts-config", findings) {}

  void Run() {
    if (!document_.root) {
      return;
    }
    const XMLElement& root = *document_.root;
    CheckChildren(document_, root, {"directory", "parser"}, findings_);
    CheckRoot(root);
    for (const XMLElement* parser : root.GetChildren("parser")) {
      CheckParser(*parser);
    }
    std::set<std::string> ids;
    for (const XMLElement* directory : root.GetChildren("directory")) {
      CheckDirectory(*directory, ids);
    }
    if (ids.empty()) {
      findings_.Warning(document_.PlaceOf(root, "tts-config"), "there is no directory to watch",
                        "Add a \"directory\" element");
    }
  }

 private:
  void CheckRoot(const XMLElement& root) {
    const Place place = document_.PlaceOf(root, "tts-config");
    CheckKnown(document_.TagOf(root), place, kRootAttributes, findings_);
    const std::string state = root.GetAttributeString("state", "(none)");
    if (state == "(none)") {
      findings_.Error(place, "no attribute \"state\"; the daemon would not use the file",
                      "Add state=\"run\"");
    } else if (state != "run" && state != "stop") {
      findings_.Error(place, "state " + Quoted(state) + " is not \"run\": nothing would be spoken",
                      "Write \"run\" or \"stop\"");
    }
  }

  // Follows the daemon's registration of parsers under encoded ids.
  void CheckParser(const XMLElement& parser) {
    const std::string id = parser.GetAttributeString("id", "");
    const Place place = document_.PlaceOf(parser, "parser " + Quoted(id));
    CheckKnown(document_.TagOf(parser), place, kParserAttributes, findings_);
    CheckChildren(document_, parser, {"field"}, findings_);
    if (!Require(parser, place, "id")) {
      return;
    }
    if (parsers_.count(id) != 0) {
      findings_.Error(place, "the id is taken by an encoded parser; this one is ignored",
                      "Choose an id that does not end in an encoding");
      return;
    }
    if (!Require(parser, place, "type")) {
      return;
    }
    const std::string type = parser.GetAttributeString("type");
    if (type != "xml") {
      findings_.Warning(place, "type " + Quoted(type) + " is unknown; the parser is ignored",
                        "Write \"xml\"");
      return;
    }
    CheckFields(parser, place);
    if (!parsers_.insert(id + "-utf8").second) {
      findings_.Error(place, "the id is taken; this parser is ignored without a word",
                      "Choose another id");
    }
    parsers_.insert({id + "-ascii", id + "-utf16"});
  }

  void CheckFields(const XMLElement& parser, const Place& place) {
    bool is_attribute_mode = false;
    try {
      is_attribute_mode = parser.GetAttributeInteger("attr-mode", 0) != 0;
    } catch (const std::string& why) {
      findings_.Error(place, why + "; no message would be spoken", "Write 0 or 1");
    }
    const std::list<const XMLElement*> fields = parser.GetChildren("field");
    if (fields.empty()) {
      findings_.Warning(place, "no \"field\": the parser finds nothing to say",
                        "Add a \"field\" element");
    }
    int number = 0;
    for (const XMLElement* field : fields) {
      CheckField(*field, place.what + ", field " + std::to_string(++number), is_attribute_mode);
    }
  }

  void CheckField(const XMLElement& field, const std::string& what, bool is_attribute_mode) {
    const Place place = document_.PlaceOf(field, what);
    CheckKnown(document_.TagOf(field), place, kFieldAttributes, findings_);
    if (!Require(field, place, "tag") || !Require(field, place, "attr") ||
        !Require(field, place, "attr_value")) {
      return;
    }
    const bool has_attribute = !field.GetAttributeString("attr").empty();
    const bool has_value = !field.GetAttributeString("attr_value").empty();
    if (field.GetAttributeString("tag").empty()) {
      findings_.Warning(place, "empty \"tag\": the field is skipped", "Name an element");
    }
    if (is_attribute_mode && !has_attribute) {
      findings_.Warning(place, "empty \"attr\" in attribute mode: the field yields nothing",
                        "Name the attribute to be said");
    }
    if (has_value && (is_attribute_mode || !has_attribute)) {
      findings_.Warning(place,
                        is_attribute_mode ? "\"attr_value\" means nothing in attribute mode"
                                          : "\"attr_value\" means nothing without \"attr\"",
                        "Empty it");
    }
  }

  // The daemon takes no part of a configuration in which such an attribute is missing.
  bool Require(const XMLElement& element, const Place& place, const char* name) {
    try {
      element.GetAttributeString(name);
      return true;
    } catch (const std::string& why) {
      findings_.Error(place, why + "; no message would be spoken",
                      std::string("Add ") + name + "=\"...\"");
      return false;
    }
  }

  void CheckDirectory(const XMLElement& directory, std::set<std::string>& ids) {
    const std::string id = directory.GetAttributeString("id", "");
    const Place place = document_.PlaceOf(directory, "directory " + Quoted(id));
    const std::string type = directory.GetAttributeString("type", "");
    CheckKnown(document_.TagOf(directory), place, kDirectoryAttributes, findings_);
    CheckChildren(document_, directory, {}, findings_);
    try {
      directory.GetAttributeString("id");
    } catch (const std::string& why) {
      findings_.Error(place, why + "; the directory is skipped", "Give it an id of its own");
      return;
    }
    if (!ids.insert(id).second) {
      findings_.Error(place, "an earlier directory has this id; this one is ignored",
                      "Choose another id");
      return;
    }
    CheckNumbers(directory, place);
    CheckMeaning(directory, place, type);
    CheckValues(directory, place);
    CheckParserOf(directory, place);
    CheckClips(directory, place);
    CheckLastPlayed(directory, place);
    if (type == "local") {
      CheckLocal(directory, place);
    } else if (type == "cifs") {
      CheckRemote(directory, place, "-i", options_.cifs_helper_path);
    } else if (type == "ftp") {
      CheckRemote(directory, place, "-p", options_.ftp_helper_path);
    } else {
      findings_.Error(place,
                      "type " + Quoted(type) +
                          " is unknown: the daemon cannot scan it, and then speaks nothing at all",
                      "Write \"local\", \"cifs\" or \"ftp\"");
    }
  }

  void CheckNumbers(const XMLElement& directory, const Place& place) {
    for (const Attribute& attribute : kDirectoryAttributes) {
      if (!attribute.is_number) {
        continue;
      }
      try {
        directory.GetAttributeInteger(attribute.name, 0);
      } catch (const std::string& why) {
        findings_.Error(place, why + "; the directory is skipped", "Write a whole number");
      }
    }
  }

  void CheckMeaning(const XMLElement& directory, const Place& place, const std::string& type) {
    for (const Attribute& attribute : kDirectoryAttributes) {
      const bool is_type = strstr(kAllTypes, type.c_str()) != nullptr;
      const bool has_meaning = strstr(attribute.types, type.c_str()) != nullptr;
      if (is_type && !has_meaning && !directory.GetAttributeString(attribute.name, "").empty()) {
        findings_.Warning(place, Quoted(attribute.name) + " means nothing for type " + Quoted(type),
                          "Remove it");
      }
    }
  }

  // Values that are numbers or words and yet do not do what they seem to.
  void CheckValues(const XMLElement& directory, const Place& place) {
    if (IntegerOf(directory, "loops", 1) < 1) {
      findings_.Warning(place, "\"loops\" below 1: messages are spoken once all the same",
                        "Write 1 or more");
    }
    if (IntegerOf(directory, "ftp-poll-rate", 5) < 1) {
      findings_.Warning(place, "\"ftp-poll-rate\" is no number of seconds above 0",
                        "Write 1 or more");
    }
    const std::string mode = directory.GetAttributeString("dir-mode", "");
    if (!mode.empty() && mode != "cache") {
      findings_.Warning(place, "dir-mode " + Quoted(mode) + " means nothing",
                        "Write \"cache\" or remove it");
    }
    const std::string ftp_mode = directory.GetAttributeString("ftp-mode", "passive");
    if (ftp_mode != "passive" && ftp_mode != "active") {
      findings_.Warning(place, "ftp-mode " + Quoted(ftp_mode) + " is unknown",
                        "Write \"passive\" or \"active\"");
    }
    const std::string id = directory.GetAttributeString("id");
    const std::string display_id = directory.GetAttributeString("display-id", id);
    std::string bad = ShellCharacters(display_id, false);
    bad += display_id.find('/') != std::string::npos ? "/" : "";
    if (!bad.empty()) {
      findings_.Error(
          place,
          Quoted(display_id) + " is part of audio file names, which cannot hold " + Described(bad),
          "Set a \"display-id\" of letters, digits and \"_\"");
    }
    bad = ShellCharacters(directory.GetAttributeString("conv-opts", ""), true);
    if (!bad.empty()) {
      findings_.Warning(place, ThroughShell("conv-opts", bad), "Make sure that this is meant");
    }
  }

  static int IntegerOf(const XMLElement& directory, const char* name, int otherwise) {
    try {
      return directory.GetAttributeInteger(name, otherwise);
    } catch (const std::string&) {
      return otherwise;  // Said already.
    }
  }

  void CheckParserOf(const XMLElement& directory, const Place& place) {
    const std::string parser = directory.GetAttributeString("parser", "");
    const std::string encoding = directory.GetAttributeString("encoding", "");
    if (parser.empty()) {
      if (!encoding.empty() && encoding != "utf8") {
        findings_.Warning(place,
                          "encoding " + Quoted(encoding) + " means nothing without \"parser\"",
                          "Add parser=\"text\"");
      }
    } else if (parsers_.count(parser + "-" + encoding) == 0) {
      const bool has_encoding = encoding == "ascii" || encoding == "utf8" || encoding == "utf16";
      findings_.Error(place,
                      has_encoding
                          ? "there is no parser " + Quoted(parser) + ": no file would be read"
                          : "parser " + Quoted(parser) + " has no encoding " + Quoted(encoding) +
                                ": no file would be read",
                      has_encoding ? "Name \"text\" or a \"parser\" element of this file"
                                   : "Set \"encoding\" to \"ascii\", \"utf8\" or \"utf16\"");
    }
  }

  void CheckClips(const XMLElement& directory, const Place& place) {
    const bool has_bumper = !directory.GetAttributeString("bumper-path", "").empty();
    const bool has_spacer = !directory.GetAttributeString("spacer-path", "").empty();
    if (has_bumper && !has_spacer) {
      findings_.Warning(place, "bumper without spacer: the daemon copies a spacer from nowhere",
                        "Add \"spacer-path\"");
    } else if (has_spacer && !has_bumper) {
      findings_.Warning(place, "spacer without bumper is never played", "Add \"bumper-path\"");
    }
    for (const std::string name : {"bumper-path", "spacer-path", "silence-path"}) {
      const std::string path = directory.GetAttributeString(name, "");
      if (path.empty()) {
        continue;
      }
      CheckShellPath(place, name, path, false);
      struct stat status = {};
      if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
          access(path.c_str(), R_OK) != 0) {
        findings_.Warning(place, name + " " + Quoted(path) + " is no readable file",
                          "Put the clip there");
      }
      uses_.AddFile(place, name, path);
    }
  }

  // Paths are words of shell commands. Where files are removed, half a path is a danger.
  void CheckShellPath(const Place& place, const std::string& name, const std::string& path,
                      bool is_emptied) {
    const std::string bad = ShellCharacters(path, false);
    if (!bad.empty()) {
      const std::string what = ThroughShell(name + " " + Quoted(path), bad);
      const std::string remedy = "Use letters, digits and . _ + - / only";
      if (is_emptied) {
        findings_.Error(place, what + ": other files would be removed", remedy);
      } else {
        findings_.Warning(place, what + ": the file is not found", remedy);
      }
    }
    if (path[0] != '/') {
      findings_.Warning(place,
                        name + " " + Quoted(path) + " depends on where the daemon is started",
                        "Write a path from the root");
    }
  }

  void CheckLastPlayed(const XMLElement& directory, const Place& place) {
    const std::string path = directory.GetAttributeString("last-played-path", "");
    if (path.empty()) {
      return;
    }
    CheckShellPath(place, "last-played-path", path, true);
    const std::string why = WhyUnusable(path);
    const std::string what = "last-played-path " + Quoted(path) + ": " + why;
    if (!why.empty() && directory.GetAttributeString("dir-mode", "") == "cache") {
      findings_.Error(place, what + "; every pass of the daemon would fail",
                      "Make the directory, for the daemon's user");
    } else if (!why.empty()) {
      findings_.Warning(place, what + "; copies are lost",
                        "Make the directory, for the daemon's user");
    }
    uses_.AddDirectory(place, kLastPlayed, path);
  }

  void CheckLocal(const XMLElement& directory, const Place& place) {
    const std::string path = directory.GetAttributeString("path", "");
    const std::string subdir = directory.GetAttributeString("subdir", "");
    if (path.empty()) {
      findings_.Error(place,
                      "no \"path\": the daemon cannot scan it, and then speaks nothing at all",
                      "Add a \"path\"");
      return;
    }
    CheckShellPath(place, "path", path, true);
    uses_.AddDirectory(place, subdir.empty() ? "path" : kAboveSubdir, path);
    CheckScanned(place, path);
    if (!subdir.empty()) {
      const std::string scanned = AddTrailingSlash(path) + subdir;
      if (!directory.GetAttributeString("last-played-path", "").empty()) {
        CheckShellPath(place, "subdir", scanned, true);
      }
      uses_.AddDirectory(place, "subdir", scanned);
      CheckScanned(place, scanned);
    }
  }

  void CheckScanned(const Place& place, const std::string& path) {
    const std::string why = WhyUnusable(path);
    if (!why.empty()) {
      findings_.Error(place, Quoted(path) + ": " + why + "; the daemon cannot work with it",
                      "Make the directory, for the daemon's user");
      return;
    }
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && (status.st_mode & S_ISVTX) != 0 && geteuid() != 0 &&
        status.st_uid != geteuid()) {
      findings_.Warning(
          place,
          Quoted(path) + " is sticky: files of others cannot be removed, and are then not spoken",
          "Take its sticky bit away, or give it to the daemon's user");
    }
  }

  void CheckRemote(const XMLElement& directory, const Place& place, const char* option,
                   const std::string& helper_path) {
    if (directory.GetAttributeString("path", "").empty()) {
      findings_.Error(place, "no \"path\": the helper has nothing to mirror", "Add a \"path\"");
    }
    if (options_.has_command_line && helper_path.empty()) {
      findings_.Error(place, "no helper for it: the directory is skipped",
                      std::string("Give the daemon option ") + option);
    }
  }

  const Options& options_;
  PathUses& uses_;
  Findings& findings_;
  Document document_;
  std::set<std::string> parsers_ = {"text-ascii", "text-utf8", "text-utf16"};
};

// --- Glossary ------------------------------------------------------------------------------------

// Why the daemon, which splits messages at these characters and strips words of some, never looks
// that text up; empty if it does.
std::string WhyNeverMatches(const std::string& text) {
  constexpr int kMaxWordChars = 100;
  int length = 0;
  for (auto next = text.begin(); next != text.end();) {
    const uint32_t cp = utf8::next(next, text.end());
    ++length;
    if (Utf8IsSpace(cp) || Utf8IsControl(cp)) {
      return "it has a blank or control character, where words end";
    }
    if (Utf8IsBreak(cp) && next != text.end()) {
      return Format("words end after \"%c\"", static_cast<char>(cp));
    }
  }
  if (length == 0) {
    return "it is empty";
  }
  if (length > kMaxWordChars) {
    return Format("words are cut after %d characters", kMaxWordChars);
  }
  if (length > 1 && (text.back() == '.' || text.back() == ',')) {
    return Format("\"%c\" is taken off a word before it is looked up", text.back());
  }
  return "";
}

void CheckGlossary(const std::string& path, Findings& findings) {
  const Document document(path, "glossary", findings);
  if (!document.root) {
    return;
  }
  CheckKnown(document.TagOf(*document.root), document.PlaceOf(*document.root, "glossary"), {},
             findings);
  CheckChildren(document, *document.root, {"word"}, findings);
  std::set<std::string> texts;
  for (const XMLElement* word : document.root->GetChildren("word")) {
    const std::string text = word->GetAttributeString("text", "");
    const Place place = document.PlaceOf(*word, "word " + Quoted(text));
    CheckKnown(document.TagOf(*word), place, kWordAttributes, findings);
    try {
      word->GetAttributeString("text");
      word->GetAttributeString("speech");
    } catch (const std::string& why) {
      findings.Error(place, why + "; no message would be spoken", "Add it");
      continue;
    }
    const std::string why = WhyNeverMatches(text);
    if (!why.empty()) {
      findings.Warning(place, "never matches: " + why, "Write the word as it stands by itself");
    } else if (!texts.insert(text).second) {
      findings.Warning(place, "an earlier entry has this text; this one is ignored", "Remove it");
    }
  }
}

// --- Command line --------------------------------------------------------------------------------

Place OptionPlace(const char* option) { return {"<command-line>", 0, option}; }

// The daemon reads numbers without a check. Returns what it makes of this one.
int CheckNumber(const char* option, const std::string& text, Findings& findings) {
  char* end = nullptr;
  const int value = static_cast<int>(strtol(text.c_str(), &end, 0));
  if (end == text.c_str() || *end != '\0') {
    findings.Warning(OptionPlace(option),
                     Quoted(text) + " is no number; the daemon takes " + std::to_string(value),
                     "Write a whole number");
  } else if (value != static_cast<int>(strtol(text.c_str(), nullptr, 10)) && value != 0 &&
             strpbrk(text.c_str(), "xX") == nullptr) {
    findings.Warning(OptionPlace(option),
                     Quoted(text) + " begins with 0 and is read as octal, " + std::to_string(value),
                     "Write it without the leading 0");
  }
  return value;
}

// As the shell finds it: the first word, along PATH if it has no slash.
std::string WhyNoTranslator(const std::string& command) {
  const std::string program = command.substr(0, command.find(' '));
  if (program.find('/') != std::string::npos) {
    return WhyNotExecutable(program);
  }
  const char* path = getenv("PATH");
  std::string rest = path == nullptr ? "/usr/bin:/bin" : path;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find(':'), rest.size());
    if (WhyNotExecutable(AddTrailingSlash(rest.substr(0, end)) + program).empty()) {
      return "";
    }
    rest.erase(0, end + 1);
  }
  return "not found";
}

void CheckTranslator(const std::string& path, Findings& findings) {
  const Place place = OptionPlace("-t");
  if (path.empty()) {
    findings.Error(place, "no translator: nothing would be spoken", "Give the daemon option -t");
    return;
  }
  const std::string bad = ShellCharacters(path, false);
  if (!bad.empty()) {
    findings.Warning(place, ThroughShell(Quoted(path), bad),
                     "Use a path of letters, digits and . _ + - / only");
  }
  const std::string why = WhyNoTranslator(path);
  if (!why.empty()) {
    findings.Error(place, Quoted(path) + ": " + why, "Name a program that the daemon may execute");
  }
}

void CheckOutput(const std::string& path, PathUses& uses, Findings& findings) {
  const Place place = OptionPlace("-o");
  if (path.empty()) {
    findings.Error(place, "no output directory: nothing would be delivered",
                   "Give the daemon option -o");
    return;
  }
  const std::string bad = ShellCharacters(path, false);
  if (!bad.empty()) {
    findings.Error(place, ThroughShell(Quoted(path), bad),
                   "Use letters, digits and . _ + - / only");
  }
  const std::string why = WhyUnusable(path);
  if (!why.empty()) {
    findings.Error(place, Quoted(path) + ": " + why, "Make the directory, for the daemon's user");
  }
  uses.AddDirectory(place, kOutput, path);
}

void CheckStatus(const std::string& path, PathUses& uses, Findings& findings) {
  if (path.empty()) {
    return;
  }
  const bool is_there = access(path.c_str(), F_OK) == 0;
  if (access(is_there ? path.c_str() : ParentOf(path).c_str(), W_OK) != 0) {
    findings.Warning(OptionPlace("-s"), Quoted(path) + " cannot be written: " + strerror(errno),
                     "Make its directory, for the daemon's user");
  }
  uses.AddFile(OptionPlace("-s"), "status file", path);
}

void CheckHelper(const char* option, const std::string& path, Findings& findings) {
  const std::string why = path.empty() ? "" : WhyNotExecutable(path);
  if (!why.empty()) {
    findings.Error(OptionPlace(option), Quoted(path) + ": " + why,
                   "Name a program that the daemon may execute");
  }
}

void CheckCommandLine(const Options& options, PathUses& uses, Findings& findings) {
  CheckTranslator(options.translator_path, findings);
  CheckOutput(options.output_path, uses, findings);
  CheckStatus(options.status_path, uses, findings);
  CheckHelper("-i", options.cifs_helper_path, findings);
  CheckHelper("-p", options.ftp_helper_path, findings);
  for (const auto& [option, path] : {std::make_pair("-t", options.translator_path),
                                     std::make_pair("-i", options.cifs_helper_path),
                                     std::make_pair("-p", options.ftp_helper_path)}) {
    if (path.find('/') != std::string::npos) {
      uses.AddFile(OptionPlace(option), "program", path);
    }
  }
  CheckNumber("-d", options.debug_mask, findings);
  if (CheckNumber("-w", options.words, findings) < 1) {
    findings.Warning(OptionPlace("-w"),
                     Quoted(options.words) + " words: every word is spoken by itself",
                     "Write 1 or more");
  }
  if (CheckNumber("-f", options.files, findings) < 1) {
    findings.Error(OptionPlace("-f"),
                   Quoted(options.files) + " files: there is never room for audio",
                   "Write 1 or more");
  }
}

void PrintUsage() {
  puts("Usage: vocastra-check CONFIG [-v] [-g GLOSSARY] [options of the daemon]");
  puts("Says what the vocastra daemon would trip over, or do without a word.");
  puts("");
  puts("  -g, --glossary FILE    Look at this glossary, too");
  puts("  -v, --verbose          Say so when there is nothing to say");
  puts("  -h, --help             Show this message");
  puts("  -V, --version          Show the version");
  puts("Of the daemon's options, -c CONFIG may stand for CONFIG; with any of -d -f -i -o -p -s -t");
  puts("-w the daemon's whole command line is judged. Run it as the daemon's user.");
  puts("");
  puts("Findings go to standard error: FILE:LINE: error|warning: ELEMENT: what is wrong. Remedy.");
  puts("Exit status: 0 clean; 1 warnings; 2 errors, or wrong use.");
}

[[noreturn]] void FailUsage(const std::string& why) {
  fprintf(stderr, "vocastra-check: %s\n", why.c_str());
  exit(kErrors);
}

Options ParseOptions(int argc, char** argv) {
  constexpr option kLongOptions[] = {
      {"help", no_argument, nullptr, 'h'},
      {"verbose", no_argument, nullptr, 'v'},
      {"version", no_argument, nullptr, 'V'},
      {"debug", required_argument, nullptr, 'd'},
      {"config", required_argument, nullptr, 'c'},
      {"status", required_argument, nullptr, 's'},
      {"output", required_argument, nullptr, 'o'},
      {"translator", required_argument, nullptr, 't'},
      {"glossary", required_argument, nullptr, 'g'},
      {"cifs-helper", required_argument, nullptr, 'i'},
      {"ftp-helper", required_argument, nullptr, 'p'},
      {"words", required_argument, nullptr, 'w'},
      {"files", required_argument, nullptr, 'f'},
      {nullptr, 0, nullptr, 0},
  };
  Options options;
  const std::map<int, std::string*> daemon_options = {{'d', &options.debug_mask},
                                                      {'s', &options.status_path},
                                                      {'o', &options.output_path},
                                                      {'t', &options.translator_path},
                                                      {'i', &options.cifs_helper_path},
                                                      {'p', &options.ftp_helper_path},
                                                      {'w', &options.words},
                                                      {'f', &options.files}};
  int result = 0;
  while ((result = getopt_long(argc, argv, "hvVd:c:s:o:t:g:i:p:w:f:", kLongOptions, nullptr)) !=
         -1) {
    const auto daemon_option = daemon_options.find(result);
    if (daemon_option != daemon_options.end()) {
      *daemon_option->second = optarg;
      options.has_command_line = true;
      continue;
    }
    switch (result) {
      case 'h':
        PrintUsage();
        exit(EXIT_SUCCESS);
      case 'V':
        puts("vocastra-check " VOCASTRA_VERSION);
        exit(EXIT_SUCCESS);
      case 'v':
        options.is_verbose = true;
        break;
      case 'c':
        options.config_path = optarg;
        break;
      case 'g':
        options.glossary_path = optarg;
        break;
      default:
        exit(kErrors);
    }
  }
  if (optind < argc) {
    options.config_path = argv[optind++];
  }
  if (optind < argc || options.config_path.empty()) {
    FailUsage("name one configuration file (see --help)");
  }
  return options;
}

ExitStatus Check(const Options& options) {
  Findings findings;
  PathUses uses;
  uses.AddFile({options.config_path, 1, "tts-config"}, "configuration", options.config_path);
  ConfigurationCheck(options, uses, findings).Run();
  if (!options.glossary_path.empty()) {
    uses.AddFile({options.glossary_path, 1, "glossary"}, "glossary", options.glossary_path);
    CheckGlossary(options.glossary_path, findings);
  }
  if (options.has_command_line) {
    CheckCommandLine(options, uses, findings);
  }
  uses.Check(findings);
  const ExitStatus status = findings.Print();
  if (status == kClean && options.is_verbose) {
    fprintf(stderr, "%s: no findings\n", options.config_path.c_str());
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options = ParseOptions(argc, argv);
    SetDebugMask(0);
    return Check(options);
  } catch (const std::exception& e) {
    FailUsage(e.what());
  }
}

#include "configurationcheck.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <set>
#include <string>

#include "attributes.h"
#include "configuration.h"
#include "document.h"
#include "format.h"
#include "translatorcheck.h"

namespace {

constexpr char kMakeDirectory[] = "Make the directory, for the daemon's user";

std::string Text(const XMLElement& element_, const char* name_) {
  return element_.GetAttributeString(name_, "");
}

// False, with a finding, if a required attribute is missing: then every pass of the daemon fails.
bool Require(const XMLElement& element_, const Place& place_, const char* name_,
             Findings& findings_) {
  try {
    element_.GetAttributeString(name_);
    return true;
  } catch (const std::string& why) {
    findings_.Error(place_, why + "; no message would be spoken",
                    std::string("Add ") + name_ + "=\"...\"");
    return false;
  }
}

// --- Parsers -------------------------------------------------------------------------------------

// Follows the daemon's registration of parsers under encoded ids.
class ParserCheck {
 public:
  ParserCheck(const Document& document_, Findings& findings_)
      : document(document_), findings(findings_) {}

  // REQUIRES: parsers are checked in the order of the document, all of them before any IsKnown.
  void Check(const XMLElement& parser_) {
    const std::string id = Text(parser_, "id");
    const Place place = document.PlaceOf(parser_, "parser " + Quoted(id));
    CheckAttributes(document, parser_, place, findings);
    document.CheckChildren(parser_, {"field"}, findings);
    if (!Require(parser_, place, "id", findings)) {
      return;
    }
    if (ids.count(id) != 0) {
      findings.Error(place, "the id is taken by an encoded parser; this one is ignored",
                     "Choose an id that does not end in an encoding");
      return;
    }
    if (!Require(parser_, place, "type", findings)) {
      return;
    }
    const std::string type = parser_.GetAttributeString("type");
    if (type != "xml") {
      findings.Warning(place, "type " + Quoted(type) + " is unknown; the parser is ignored",
                       "Write \"xml\"");
      return;
    }
    CheckFields(parser_, place);
    if (!ids.insert(id + "-utf8").second) {
      findings.Error(place, "the id is taken; this parser is ignored silently",
                     "Choose another id");
    }
    ids.insert({id + "-ascii", id + "-utf16"});
  }

  // True if there is a parser under that encoded id.
  bool IsKnown(const std::string& encoded_id_) const { return ids.count(encoded_id_) != 0; }

 private:
  void CheckFields(const XMLElement& parser_, const Place& place_) {
    try {
      parser_.GetAttributeInteger("attr-mode", 0);
    } catch (const std::string& why) {
      findings.Error(place_, why + "; no message would be spoken", "Write 0 or 1");
    }
    const std::list<const XMLElement*> fields = parser_.GetChildren("field");
    if (fields.empty()) {
      findings.Warning(place_, "no \"field\": the parser finds nothing to say",
                       "Add a \"field\" element");
    }
    int number = 0;
    for (const XMLElement* field : fields) {
      CheckField(*field, place_.item + ", field " + std::to_string(++number),
                 NumberOf(parser_, "attr-mode") != 0);
    }
  }

  void CheckField(const XMLElement& field_, const std::string& item_, bool is_attribute_mode_) {
    const Place place = document.PlaceOf(field_, item_);
    CheckAttributes(document, field_, place, findings);
    if (!Require(field_, place, "tag", findings) || !Require(field_, place, "attr", findings) ||
        !Require(field_, place, "attr_value", findings)) {
      return;
    }
    const bool has_attribute = !field_.GetAttributeString("attr").empty();
    const bool has_value = !field_.GetAttributeString("attr_value").empty();
    if (field_.GetAttributeString("tag").empty()) {
      findings.Warning(place, "empty \"tag\": the field is skipped", "Name an element");
    }
    if (is_attribute_mode_ && !has_attribute) {
      findings.Warning(place, "empty \"attr\" in attribute mode: the field yields nothing",
                       "Name the attribute to be said");
    }
    if (has_value && (is_attribute_mode_ || !has_attribute)) {
      findings.Warning(place,
                       is_attribute_mode_ ? "\"attr_value\" means nothing in attribute mode"
                                          : "\"attr_value\" means nothing without \"attr\"",
                       "Empty it");
    }
  }

  const Document& document;
  Findings& findings;
  std::set<std::string> ids = {"text-ascii", "text-utf8", "text-utf16"};
};

// --- Directories ---------------------------------------------------------------------------------

// One "directory" element that has an id.
class DirectoryCheck {
 public:
  DirectoryCheck(const CheckOptions& options_, TranslatorCheck& translator_,
                 const XMLElement& element_, const Place& place_, PathUses& uses_,
                 Findings& findings_)
      : options(options_),
        translator(translator_),
        element(element_),
        place(place_),
        type(Text(element_, "type")),
        uses(uses_),
        findings(findings_) {}

  void Check(const ParserCheck& parsers_) {
    CheckNumbers();
    const bool is_type = type == "local" || type == "cifs" || type == "ftp";
    if (is_type) {
      CheckMeaning();
    }
    CheckValues();
    CheckNames();
    CheckTranslation();
    CheckParser(parsers_);
    CheckClips();
    CheckLastPlayed();
    if (type == "local") {
      CheckLocal();
    } else if (is_type) {
      CheckRemote(type == "cifs" ? 'i' : 'p');
    } else {
      findings.Error(place,
                     "type " + Quoted(type) +
                         " is unknown: the daemon cannot scan it, and then speaks nothing at all",
                     "Write \"local\", \"cifs\" or \"ftp\"");
    }
  }

 private:
  void CheckNumbers() {
    for (const Attribute& attribute : AttributesOf("directory")) {
      if (!attribute.IsNumber()) {
        continue;
      }
      try {
        element.GetAttributeInteger(attribute.name, 0);
      } catch (const std::string& why) {
        findings.Error(place, why + "; the directory is skipped", "Write a whole number");
      }
    }
  }

  void CheckMeaning() {
    for (const Attribute& attribute : AttributesOf("directory")) {
      if (!attribute.HasMeaningFor(type) && !Text(element, attribute.name).empty()) {
        findings.Warning(place, Quoted(attribute.name) + " means nothing for type " + Quoted(type),
                         "Remove it");
      }
    }
  }

  // Valid numbers and words that do not have the effect that they seem to have.
  void CheckValues() {
    if (NumberOf(element, "loops") < 1) {
      findings.Warning(place, "\"loops\" below 1: messages are spoken once", "Write 1 or more");
    }
    if (NumberOf(element, "ftp-poll-rate") < 1) {
      findings.Warning(place, "\"ftp-poll-rate\" is no number of seconds above 0",
                       "Write 1 or more");
    }
    const std::string mode = TextOf(element, "dir-mode");
    if (!mode.empty() && mode != "cache") {
      findings.Warning(place, "dir-mode " + Quoted(mode) + " means nothing",
                       "Write \"cache\" or remove it");
    }
    CheckFtpMode(TextOf(element, "ftp-mode"));
  }

  // Options have values, which are the helper's.
  void CheckFtpMode(const std::string& mode_) {
    size_t end = 0;
    for (size_t begin = 0; begin <= mode_.size(); begin = end + 1) {
      end = std::min(mode_.find(',', begin), mode_.size());
      const std::string word = mode_.substr(begin, end - begin);
      if (word != "passive" && word != "active" && word.find('=') == std::string::npos) {
        findings.Warning(place, "ftp-mode " + Quoted(word) + " is unknown",
                         "Write \"passive\" or \"active\", or an option of the helper");
      }
    }
  }

  // Text that goes through the shell.
  void CheckNames() {
    const std::string display_id = element.GetAttributeString("display-id", Text(element, "id"));
    std::string bad = ShellCharacters(display_id, false);
    bad += display_id.find('/') != std::string::npos ? "/" : "";
    if (!bad.empty()) {
      findings.Error(
          place,
          Quoted(display_id) + " is part of audio file names, which cannot hold " + Described(bad),
          "Set a \"display-id\" of letters, digits and \"_\"");
    }
    bad = ShellCharacters(TextOf(element, "conv-opts"), true);
    if (!bad.empty()) {
      findings.Warning(place, ThroughShell("conv-opts", bad), "Make sure that this is meant");
    }
  }

  void CheckTranslation() {
    const std::string arguments = TextOf(element, "conv-opts");
    const bool is_spoken = TextOf(element, "dir-mode") != "cache";
    const std::string why = is_spoken ? translator.WhyRefused(arguments) : "";
    if (!why.empty()) {
      findings.Error(place,
                     "the translator refuses conv-opts " + Quoted(arguments) + ": " + why +
                         "; no message would be spoken",
                     "Try it with --check");
    }
  }

  void CheckParser(const ParserCheck& parsers_) {
    const std::string parser = TextOf(element, "parser");
    const std::string encoding = TextOf(element, "encoding");
    if (parser.empty()) {
      if (!encoding.empty() && encoding != "utf8") {
        findings.Warning(place,
                         "encoding " + Quoted(encoding) + " means nothing without \"parser\"",
                         "Add parser=\"text\"");
      }
    } else if (parsers_.IsKnown(parser + "-" + encoding)) {
      return;
    } else if (IsEncoding(encoding)) {
      findings.Error(place, "there is no parser " + Quoted(parser) + ": no file would be read",
                     "Name \"text\" or a \"parser\" element of this file");
    } else {
      findings.Error(place,
                     "parser " + Quoted(parser) + " has no encoding " + Quoted(encoding) +
                         ": no file would be read",
                     "Set \"encoding\" to \"ascii\", \"utf8\" or \"utf16\"");
    }
  }

  void CheckClips() {
    const bool has_bumper = !TextOf(element, "bumper-path").empty();
    const bool has_spacer = !TextOf(element, "spacer-path").empty();
    if (has_bumper && !has_spacer) {
      findings.Warning(place, "bumper without spacer: the daemon copies a spacer from nowhere",
                       "Add \"spacer-path\"");
    } else if (has_spacer && !has_bumper) {
      findings.Warning(place, "spacer without bumper is never played", "Add \"bumper-path\"");
    }
    for (const std::string name : {"bumper-path", "spacer-path", "silence-path"}) {
      const std::string path = TextOf(element, name);
      if (!path.empty()) {
        CheckClip(name, path);
      }
    }
  }

  void CheckClip(const std::string& name_, const std::string& path_) {
    CheckShellPath(name_, path_, false);
    struct stat status = {};
    if (stat(path_.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        access(path_.c_str(), R_OK) != 0) {
      findings.Warning(place, name_ + " " + Quoted(path_) + " is no readable file",
                       "Put the clip there");
    }
    uses.AddFile(place, name_, path_);
  }

  // Paths are words of shell commands. If the shell splits a path whose files are removed, it
  // removes other files.
  void CheckShellPath(const std::string& name_, const std::string& path_, bool is_emptied_) {
    const std::string bad = ShellCharacters(path_, false);
    if (!bad.empty()) {
      const std::string what = ThroughShell(name_ + " " + Quoted(path_), bad);
      if (is_emptied_) {
        findings.Error(place, what + ": other files would be removed", kSafeCharacters);
      } else {
        findings.Warning(place, what + ": the file is not found", kSafeCharacters);
      }
    }
    if (path_[0] != '/') {
      findings.Warning(place,
                       name_ + " " + Quoted(path_) + " depends on where the daemon is started",
                       "Write a path from the root");
    }
  }

  void CheckLastPlayed() {
    const std::string path = TextOf(element, "last-played-path");
    if (path.empty()) {
      return;
    }
    CheckShellPath("last-played-path", path, true);
    const std::string why = WhyUnusable(path);
    const std::string what = "last-played-path " + Quoted(path) + ": " + why;
    if (!why.empty() && TextOf(element, "dir-mode") == "cache") {
      findings.Error(place, what + "; every pass of the daemon would fail", kMakeDirectory);
    } else if (!why.empty()) {
      findings.Warning(place, what + "; copies are lost", kMakeDirectory);
    }
    uses.AddDirectory(place, kLastPlayed, path);
  }

  void CheckLocal() {
    const std::string path = TextOf(element, "path");
    const std::string subdir = TextOf(element, "subdir");
    if (path.empty()) {
      findings.Error(place,
                     "no \"path\": the daemon cannot scan it, and then speaks nothing at all",
                     "Add a \"path\"");
      return;
    }
    CheckShellPath("path", path, true);
    uses.AddDirectory(place, subdir.empty() ? "path" : kAboveSubdir, path);
    CheckScanned(path);
    if (!subdir.empty()) {
      const std::string scanned = AddTrailingSlash(path) + subdir;
      if (!TextOf(element, "last-played-path").empty()) {
        CheckShellPath("subdir", scanned, true);
      }
      uses.AddDirectory(place, "subdir", scanned);
      CheckScanned(scanned);
    }
  }

  void CheckScanned(const std::string& path_) {
    const std::string why = WhyUnusable(path_);
    if (!why.empty()) {
      findings.Error(place, Quoted(path_) + ": " + why + "; the daemon cannot work with it",
                     kMakeDirectory);
      return;
    }
    struct stat status = {};
    if (stat(path_.c_str(), &status) == 0 && (status.st_mode & S_ISVTX) != 0 && geteuid() != 0 &&
        status.st_uid != geteuid()) {
      findings.Warning(
          place,
          Quoted(path_) + " is sticky: files of others cannot be removed, and are then not spoken",
          "Take its sticky bit away, or give it to the daemon's user");
    }
  }

  // letter_: the daemon's option that names the helper.
  void CheckRemote(char letter_) {
    if (TextOf(element, "path").empty()) {
      findings.Error(place, "no \"path\": the helper has nothing to mirror", "Add a \"path\"");
    }
    if (!options.daemon.empty() && options.Argument(letter_).empty()) {
      findings.Error(place, "no helper for it: the directory is skipped",
                     std::string("Give the daemon option -") + letter_);
    }
  }

  const CheckOptions& options;
  TranslatorCheck& translator;
  const XMLElement& element;
  const Place place;
  const std::string type;
  PathUses& uses;
  Findings& findings;
};

// --- The whole -----------------------------------------------------------------------------------

void CheckRoot(const Document& document_, Findings& findings_) {
  const XMLElement& root = *document_.Root();
  const Place place = document_.PlaceOf(root, "tts-config");
  document_.CheckChildren(root, {"directory", "parser"}, findings_);
  CheckAttributes(document_, root, place, findings_);
  const std::string state = root.GetAttributeString("state", "(none)");
  if (state == "(none)") {
    findings_.Error(place, "no attribute \"state\"; the daemon would not use the file",
                    "Add state=\"run\"");
  } else if (state != "run" && state != "stop") {
    findings_.Error(place, "state " + Quoted(state) + " is not \"run\": nothing would be spoken",
                    "Write \"run\" or \"stop\"");
  }
}

// True if the element has an id of its own, so that the daemon uses it. ids_ are the earlier ids.
bool CheckId(const Document& document_, const XMLElement& directory_, const Place& place_,
             std::set<std::string>& ids_, Findings& findings_) {
  CheckAttributes(document_, directory_, place_, findings_);
  document_.CheckChildren(directory_, {}, findings_);
  try {
    if (ids_.insert(directory_.GetAttributeString("id")).second) {
      return true;
    }
  } catch (const std::string& why) {
    findings_.Error(place_, why + "; the directory is skipped", "Give it an id of its own");
    return false;
  }
  findings_.Error(place_, "an earlier directory has this id; this one is ignored",
                  "Choose another id");
  return false;
}

}  // namespace

void CheckConfiguration(const CheckOptions& options_, PathUses& uses_, Findings& findings_) {
  const Document document(options_.config_path, "tts-config", findings_);
  if (document.Root() == nullptr) {
    return;
  }
  const XMLElement& root = *document.Root();
  CheckRoot(document, findings_);
  ParserCheck parsers(document, findings_);
  for (const XMLElement* parser : root.GetChildren("parser")) {
    parsers.Check(*parser);
  }
  TranslatorCheck translator(options_.Argument('t'));
  std::set<std::string> ids;
  for (const XMLElement* directory : root.GetChildren("directory")) {
    const Place place = document.PlaceOf(*directory, "directory " + Quoted(Text(*directory, "id")));
    if (CheckId(document, *directory, place, ids, findings_)) {
      DirectoryCheck(options_, translator, *directory, place, uses_, findings_).Check(parsers);
    }
  }
  if (ids.empty()) {
    findings_.Warning(document.PlaceOf(root, "tts-config"), "there is no directory to watch",
                      "Add a \"directory\" element");
  }
}

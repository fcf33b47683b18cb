#include "configurationcheck.h"

#include <sys/stat.h>

#include <list>
#include <string>

#include "attributes.h"
#include "configuration.h"
#include "directorycheck.h"
#include "document.h"
#include "translatorcheck.h"

namespace {

std::string Text(const XMLElement& element_, const char* name_) {
  return element_.GetAttributeString(name_, "");
}

// False, with a finding, if a required attribute is missing: each pass of the daemon then fails.
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

  // REQUIRES: parsers are checked in the order of the document, all of them before any CheckUse.
  void Check(const XMLElement& parser_) {
    const std::string id = Text(parser_, "id");
    const Place place = document.PlaceOf(parser_, "parser " + Quoted(id));
    CheckAttributes(document, parser_, place, findings);
    document.CheckContent(parser_, {"field"}, findings);
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

  // Checks that the parser exists that the "directory" element names.
  void CheckUse(const XMLElement& directory_, const Place& place_) const {
    const std::string parser = TextOf(directory_, "parser");
    const std::string encoding = TextOf(directory_, "encoding");
    if (parser.empty()) {
      if (!encoding.empty() && encoding != "utf8") {
        findings.Warning(place_,
                         "encoding " + Quoted(encoding) + " means nothing without \"parser\"",
                         "Add parser=\"text\"");
      }
    } else if (ids.count(parser + "-" + encoding) != 0) {
      return;
    } else if (IsEncoding(encoding)) {
      findings.Error(place_, "there is no parser " + Quoted(parser) + ": no file would be read",
                     "Name \"text\" or a \"parser\" element of this file");
    } else {
      findings.Error(place_,
                     "parser " + Quoted(parser) + " has no encoding " + Quoted(encoding) +
                         ": no file would be read",
                     "Set \"encoding\" to \"ascii\", \"utf8\" or \"utf16\"");
    }
  }

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
    document.CheckContent(field_, {}, findings);
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

// --- The whole configuration
// -----------------------------------------------------------------------------------

void CheckRoot(const Document& document_, Findings& findings_) {
  const XMLElement& root = *document_.Root();
  const Place place = document_.PlaceOf(root, "tts-config");
  document_.CheckContent(root, {"directory", "parser"}, findings_);
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

// True if the element has a new id, so that the daemon uses it. ids_: the earlier ids.
bool CheckId(const Document& document_, const XMLElement& directory_, const Place& place_,
             std::set<std::string>& ids_, Findings& findings_) {
  CheckAttributes(document_, directory_, place_, findings_);
  document_.CheckContent(directory_, {}, findings_);
  std::string id;
  try {
    id = directory_.GetAttributeString("id");
  } catch (const std::string& why) {
    findings_.Error(place_, why + "; the directory is skipped", "Give it an id of its own");
    return false;
  }
  if (!ids_.insert(id).second) {
    findings_.Error(place_, "an earlier directory has this id; this one is ignored",
                    "Choose another id");
    return false;
  }
  if (id.empty()) {
    findings_.Warning(place_, "empty id: log and status file do not name the directory",
                      "Give it an id of its own");
  }
  return true;
}

// Adds a finding at the first password if others may read the file.
void CheckPasswords(const Document& document_, const std::string& path_, Findings& findings_) {
  struct stat status = {};
  if (stat(path_.c_str(), &status) != 0 || (status.st_mode & S_IROTH) == 0) {
    return;
  }
  for (const XMLElement* directory : document_.Root()->GetChildren("directory")) {
    if (!TextOf(*directory, "password").empty()) {
      findings_.Warning(
          document_.PlaceOf(*directory, "directory " + Quoted(Text(*directory, "id"))),
          "a password in a file that everyone may read",
          "Let only the daemon's user read it: \"chgrp vocastra FILE; chmod 0640 FILE\"");
      return;
    }
  }
}

}  // namespace

std::set<int> CheckConfiguration(const CheckOptions& options_, PathUses& uses_,
                                 Findings& findings_) {
  std::set<int> priorities;
  const Document document(options_.config_path, "tts-config", findings_);
  if (document.Root() == nullptr) {
    return priorities;
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
      parsers.CheckUse(*directory, place);
      CheckDirectory(options_, translator, *directory, place, uses_, findings_);
      priorities.insert(NumberOf(*directory, "priority"));
    }
  }
  CheckPasswords(document, options_.config_path, findings_);
  if (ids.empty()) {
    findings_.Warning(document.PlaceOf(root, "tts-config"), "there is no directory to watch",
                      "Add a \"directory\" element");
  }
  return priorities;
}

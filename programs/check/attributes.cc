#include "attributes.h"

#include <string.h>

#include <algorithm>
#include <iterator>

#include "names.h"

namespace {

constexpr char kRemote[] = "cifs ftp";

constexpr Attribute kAttributes[] = {
    {"tts-config", "state", "\"run\" | \"stop\"", nullptr, nullptr, true},

    {"directory", "id", "word", nullptr, nullptr, false},
    {"directory", "display-id", "word", "", nullptr, false},  // Default: the id.
    {"directory", "parser", "name", "", nullptr, false},
    {"directory", "encoding", "\"ascii\" | \"utf8\" | \"utf16\"", "", nullptr, false},
    {"directory", "priority", kInteger, "0", nullptr, true},
    {"directory", "loops", kInteger, "1", nullptr, true},
    {"directory", "preview", kInteger, "0", nullptr, true},
    {"directory", "conv-opts", "words", "", nullptr, true},
    {"directory", "bumper-path", "path", "", nullptr, false},
    {"directory", "spacer-path", "path", "", nullptr, false},
    {"directory", "silence-path", "path", "", nullptr, true},
    {"directory", "last-played-path", "path", "", nullptr, true},
    {"directory", "auto-delete", kInteger, "0", nullptr, true},
    {"directory", "dir-mode", "\"cache\" | \"\"", "", nullptr, true},
    {"directory", "subdir", "path | \"\"", "", nullptr, true},
    {"directory", "type", "\"local\" | \"cifs\" | \"ftp\"", "", nullptr, false},
    {"directory", "path", "path", "", nullptr, false},
    {"directory", "username", "text", "", kRemote, true},
    {"directory", "password", "text", "", kRemote, true},
    {"directory", "mount-opts", "text", "", "cifs", true},
    {"directory", "ftp-poll-rate", kInteger, "5", "ftp", true},
    {"directory", "ftp-mode", "ftp-mode", "passive", "ftp", true},

    {"parser", "id", "parser-id", nullptr, nullptr, true},
    {"parser", "type", "\"xml\"", nullptr, nullptr, true},
    {"parser", "attr-mode", kInteger, "0", nullptr, false},

    {"field", "parent", "text", "", nullptr, true},
    {"field", "tag", "name", nullptr, nullptr, true},
    {"field", "attr", "text", nullptr, nullptr, false},
    {"field", "attr_value", "text", nullptr, nullptr, true},

    {"word", "text", "text", nullptr, nullptr, true},
    {"word", "speech", "text", nullptr, nullptr, true},
};

// REQUIRES: the table has it.
const Attribute& Find(const std::string& element_, const std::string& name_) {
  return *std::find_if(std::begin(kAttributes), std::end(kAttributes), [&](const Attribute& row_) {
    return row_.element == element_ && row_.name == name_;
  });
}

}  // namespace

bool Attribute::HasMeaningFor(const std::string& directory_type_) const {
  return directories == nullptr || strstr(directories, directory_type_.c_str()) != nullptr;
}

std::vector<Attribute> AttributesOf(const std::string& element_) {
  std::vector<Attribute> found;
  std::copy_if(std::begin(kAttributes), std::end(kAttributes), std::back_inserter(found),
               [&](const Attribute& row_) { return row_.element == element_; });
  return found;
}

int NumberOf(const XMLElement& element_, const std::string& name_) {
  const int default_value = std::stoi(Find(element_.GetName(), name_).default_value);
  try {
    return element_.GetAttributeInteger(name_, default_value);
  } catch (const std::string&) {
    return default_value;
  }
}

std::string TextOf(const XMLElement& element_, const std::string& name_) {
  return element_.GetAttributeString(name_, Find(element_.GetName(), name_).default_value);
}

void CheckAttributes(const Document& document_, const XMLElement& element_, const Place& place_,
                     Findings& findings_) {
  std::vector<std::string> known;
  for (const Attribute& attribute : AttributesOf(element_.GetName())) {
    known.emplace_back(attribute.name);
  }
  for (const std::string& name : document_.TagOf(element_).attributes) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      const std::string meant = NearestName(name, known);
      findings_.Warning(place_, "unknown attribute " + Quoted(name) + " is ignored",
                        meant.empty() ? "Remove it" : DidYouMean(meant));
    }
  }
}

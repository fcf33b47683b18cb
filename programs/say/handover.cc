#include "handover.h"

#include <vector>

#include "charencoding.h"
#include "format.h"
#include "health.h"
#include "hiddenfile.h"
#include "message.h"
#include "xmlfileparser.h"

const char kDefaultDirectory[] = "announcements";

namespace {

std::string TypeOf(const XMLElement& directory_) {
  return directory_.GetAttributeString("type", "");
}

// The only local directory, or the one called "announcements".
const XMLElement& ChooseDirectory(const XMLElement& root_) {
  std::vector<const XMLElement*> locals;
  std::string ids;
  for (const XMLElement* directory : root_.GetChildren("directory")) {
    const std::string id = directory->GetAttributeString("id", "");
    if (TypeOf(*directory) == "local" && FindById(root_, "directory", id) == directory) {
      locals.push_back(directory);
      ids += " " + id;
    }
  }
  if (locals.empty()) {
    throw std::string("the configuration has no local directory");
  }
  if (locals.size() == 1) {
    return *locals.front();
  }
  for (const XMLElement* directory : locals) {
    if (directory->GetAttributeString("id", "") == kDefaultDirectory) {
      return *directory;
    }
  }
  throw "name a directory with -d; there are" + ids;
}

// The element of the directory's XML parser.
const XMLElement* FindParser(const XMLElement& root_, const LocalDirectory& directory_) {
  const XMLElement* parser = FindById(root_, "parser", directory_.parser);
  if (parser == nullptr || parser->GetAttributeString("type", "") != "xml") {
    throw Format("directory \"%s\" uses parser \"%s\", which the configuration does not have",
                 directory_.id.c_str(), directory_.parser.c_str());
  }
  return parser;
}

}  // namespace

const XMLElement& FindLocalDirectory(const XMLElement& root_, const std::optional<std::string>& id_,
                                     const std::string& source_) {
  if (!id_) {
    return ChooseDirectory(root_);
  }
  const XMLElement* directory = FindById(root_, "directory", *id_);
  if (directory == nullptr) {
    throw Format("no directory \"%s\" in %s", id_->c_str(), source_.c_str());
  }
  const std::string type = TypeOf(*directory);
  if (type != "local") {
    // The published configuration has no such path.
    const std::string path = directory->GetAttributeString("path", "");
    throw Format("directory \"%s\" is of type \"%s\": messages for it belong on its server%s",
                 id_->c_str(), type.c_str(), path.empty() ? "" : (", \"" + path + "\"").c_str());
  }
  return *directory;
}

Destination::Destination(const XMLElement& root_, const XMLElement& directory_,
                         const std::optional<std::string>& encoding_, bool is_raw_)
    : directory(directory_),
      encoding(encoding_.value_or(directory.encoding)),
      is_raw(is_raw_),
      parser(nullptr) {
  if (!IsEncoding(encoding)) {
    throw Format("directory \"%s\" has no usable encoding: \"%s\"", directory.id.c_str(),
                 encoding.c_str());
  }
  if (directory.IsXml() && !is_raw) {
    throw Format("directory \"%s\" expects XML documents for parser \"%s\": give one with --raw",
                 directory.id.c_str(), directory.parser.c_str());
  }
  parser = directory.IsXml() ? FindParser(root_, directory) : nullptr;
}

std::string HandOver(const Destination& destination_, const std::string& text_,
                     const std::string& source_) {
  HiddenFile file(destination_.directory.path);
  file.Write(destination_.is_raw ? text_ : Encode(text_, destination_.encoding));
  if (destination_.parser != nullptr) {
    TextOfDocument(destination_, file.path());
  }
  std::string name = MessageName(source_);
  file.Publish(name);
  return name;
}

std::string TextOfDocument(const Destination& destination_, const std::string& path_) {
  const XMLFileParser parser(destination_.parser, destination_.encoding);
  std::string text = Utf8ReplaceInvalid(parser.ParseFile(path_));
  if (!HasWords(text)) {
    throw Format("parser \"%s\" finds nothing to say in the document",
                 destination_.directory.parser.c_str());
  }
  return text;
}

bool IsServiceRunning(const std::string& health_path_) {
  try {
    return IsStationRunning(ReadHealth(health_path_));
  } catch (const std::string&) {
    return false;  // There is no station.
  }
}

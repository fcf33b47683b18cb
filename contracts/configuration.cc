#include "configuration.h"

#include <set>

#include "format.h"

bool IsEncoding(const std::string& name_) {
  return name_ == "ascii" || name_ == "utf8" || name_ == "utf16";
}

const XMLElement* FindById(const XMLElement& root_, const char* name_, const std::string& id_) {
  for (const XMLElement* element : root_.GetChildren(name_)) {
    // The default differs from the id, so an element without an id never matches.
    if (element->GetAttributeString("id", id_ + "-") == id_) {
      return element;
    }
  }
  return nullptr;
}

std::string ScannedPath(const XMLElement& directory_) {
  return AddTrailingSlash(directory_.GetAttributeString("path", "")) +
         AddTrailingSlash(directory_.GetAttributeString("subdir", ""));
}

LocalDirectory::LocalDirectory(const XMLElement& directory_)
    : id(directory_.GetAttributeString("id")),
      path(ScannedPath(directory_)),
      removes_taken(directory_.GetAttributeString("last-played-path", "").empty() ||
                    directory_.GetAttributeInteger("auto-delete", 0) != 0),
      parser(directory_.GetAttributeString("parser", "")),
      encoding(parser.empty() ? "utf8" : directory_.GetAttributeString("encoding", "")),
      is_cache(directory_.GetAttributeString("dir-mode", "") == "cache") {
  element = directory_;
}

std::map<std::string, ConfiguredDirectory> ConfiguredDirectories(const XMLElement& root_) {
  std::map<std::string, ConfiguredDirectory> result;
  std::set<std::string> seen;
  for (const XMLElement* element : root_.GetChildren("directory")) {
    try {
      const std::string id = element->GetAttributeString("id");
      if (seen.insert(id).second) {
        const std::string display_id = element->GetAttributeString("display-id", id);
        result[id] = {display_id, element->GetAttributeInteger("priority", 0)};
      }
    } catch (const std::string&) {
      continue;  // The accessor has logged it.
    }
  }
  return result;
}

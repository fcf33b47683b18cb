#include "configuration.h"

#include "format.h"

bool IsEncoding(const std::string& name_) {
  return name_ == "ascii" || name_ == "utf8" || name_ == "utf16";
}

const XMLElement* FindById(const XMLElement& root_, const char* name_, const std::string& id_) {
  for (const XMLElement* element : root_.GetChildren(name_)) {
    // The default differs from the id, so that an element without id never matches.
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

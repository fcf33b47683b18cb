#include "view.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <utility>

#include "charencoding.h"
#include "directories.h"
#include "document.h"
#include "format.h"
#include "messagecopy.h"
#include "outputname.h"
#include "statusfile.h"
#include "textfileparser.h"

namespace {

constexpr double kPatience = 0.1;  // Seconds to wait for a complete status.
// Seconds; a message that was made so long ago counts as played.
constexpr long long kUnplayed = 600;

// The path of a message's file, or of the station's copy of it; empty if there is none.
std::string FindFile(const std::string& directory_, const std::string& name_) {
  if (access((directory_ + name_).c_str(), R_OK) == 0) {
    return directory_ + name_;
  }
  std::string found;
  DIR* const listing = opendir(directory_.c_str());
  while (const dirent* entry = listing == nullptr ? nullptr : readdir(listing)) {
    CopyName copy;
    if (ParseCopyName(entry->d_name, copy) && copy.name == name_) {
      found = directory_ + entry->d_name;
    }
  }
  if (listing != nullptr) {
    closedir(listing);
  }
  return found;
}

int IntegerOr(const XMLElement& element_, const char* name_, int default_) {
  try {
    return element_.GetAttributeInteger(name_, default_);
  } catch (const std::string&) {
    return default_;
  }
}

}  // namespace

View::View(const std::string& run_, History& history_) : run(run_), history(history_) {}

void View::Refresh(long long now_) {
  ReadDirectories();
  try {
    health = ReadHealth(run + "/health");
    is_running = IsStationRunning(health);
  } catch (const std::string&) {
    health = Health();
    is_running = false;
  }
  player.reset();
  try {
    PlayerState found = ReadPlayerState(run + "/player");
    if (IsPlayerRunning(found)) {
      player = std::move(found);
    }
  } catch (const std::string&) {  // There is none.
  }
  history.Update(health, is_running, now_, [this](Entry& entry_) { ReadTextOf(entry_); });
  ReadStatusFile();
  FindPlaying(now_);
}

void View::ReadDirectories() {
  directories.clear();
  try {
    configuration = LoadXMLTree(run + "/" + kDirectoriesFile, "tts-config");
  } catch (const std::string&) {
    configuration.reset();
    return;
  }
  state = configuration->GetAttributeString("state", "");
  for (const XMLElement* element : configuration->GetChildren("directory")) {
    const std::string id = element->GetAttributeString("id", "");
    if (FindById(*configuration, "directory", id) == element) {
      directories.push_back(ReadDirectory(*element));
    }
  }
  std::stable_sort(
      directories.begin(), directories.end(),
      [](const auto& one_, const auto& other_) { return one_.priority < other_.priority; });
}

DirectoryView View::ReadDirectory(const XMLElement& element_) const {
  DirectoryView view;
  view.id = element_.GetAttributeString("id", "");
  view.type = element_.GetAttributeString("type", "");
  view.display_id = element_.GetAttributeString("display-id", view.id);
  view.priority = IntegerOr(element_, "priority", 0);
  view.loops = std::max(1, IntegerOr(element_, "loops", 1));
  view.conv_opts = element_.GetAttributeString("conv-opts", "");
  try {
    const Destination destination = DestinationOf(view.id);
    view.parser = destination.parser;
    if (view.parser != nullptr) {
      view.labels = FieldLabels(*view.parser);
    }
    view.can_say = true;
  } catch (const std::string&) {  // The page offers no form for it.
  }
  return view;
}

const DirectoryView* View::Find(const std::string& id_) const {
  const auto found =
      std::find_if(directories.begin(), directories.end(),
                   [&](const DirectoryView& directory_) { return directory_.id == id_; });
  return found == directories.end() ? nullptr : &*found;
}

Destination View::DestinationOf(const std::string& id_) const {
  if (!configuration) {
    throw std::string("The device has no configuration.");
  }
  const XMLElement& element = FindLocalDirectory(*configuration, id_, "the configuration");
  const LocalDirectory directory(element);
  if (directory.is_cache) {
    throw Format("directory \"%s\" is in cache mode: nothing in it is spoken", id_.c_str());
  }
  return Destination(*configuration, element, std::nullopt, directory.IsXml());
}

void View::ReadStatusFile() {
  std::unique_ptr<XMLElement> status;
  try {
    status = ReadStatus(run + "/status.xml", kPatience);
  } catch (const std::string&) {  // There is none.
  }
  if (!status) {
    return;
  }
  for (DirectoryView& directory : directories) {
    const XMLElement* element = FindById(*status, "directory", directory.id);
    if (element == nullptr) {
      continue;
    }
    directory.waiting =
        directory.IsRemote() ? element->GetAttributeInteger("updated-file-count") : 0;
    const auto messages = element->GetChildren("message");
    directory.taken = messages.empty() ? "" : messages.front()->GetAttributeString("filename", "");
  }
}

// Finds the message that plays. The player plays what the daemon has made some time ago: the oldest
// message of the directory that is not heard yet.
void View::FindPlaying(long long now_) {
  std::set<std::string> candidates;
  std::string source;
  OutputName name;
  if (player && ParseOutputName(player->playing, name)) {
    source = name.id;
    for (const DirectoryView& directory : directories) {
      if (directory.display_id == name.id) {
        candidates.insert(directory.id);
        source = directory.id;
      }
    }
  } else if (!player && !health.saying.empty() && is_running) {
    source = health.saying.substr(0, health.saying.find('/'));
    candidates.insert(source);
  }
  const Entry* found = nullptr;
  for (const Entry& entry : history.Entries()) {
    if (candidates.count(entry.directory) != 0 && entry.state != MessageRecord::kWaiting &&
        found == nullptr && IsComing(entry, now_)) {
      found = &entry;
    }
  }
  const long long id = found == nullptr ? 0 : found->id;
  source = found == nullptr ? source : found->directory;
  if (source != playing || id != playing_id) {
    since = player ? player->since : now_;
  }
  playing = source;
  playing_id = id;
}

bool View::IsComing(const Entry& entry_, long long now_) const {
  return entry_.fate == Entry::kOpen &&
         (entry_.state == MessageRecord::kSpeaking ||
          (entry_.state == MessageRecord::kSaid && player && now_ - entry_.ended < kUnplayed));
}

void View::ReadTextOf(Entry& entry_) const {
  try {
    const Destination destination = DestinationOf(entry_.directory);
    const std::string path = FindFile(destination.directory.path, entry_.file);
    if (path.empty()) {
      return;
    }
    if (destination.parser == nullptr) {
      entry_.text = TextFileParser(destination.encoding).ParseFile(path);
      return;
    }
    entry_.text = TextOfDocument(destination, path);
    // The history keeps UTF-8 only.
    entry_.document = destination.encoding == "utf8" ? ReadWhole(path) : "";
    entry_.is_whole = !entry_.document.empty() && Utf8IsValid(entry_.document);
  } catch (const std::string&) {  // The file is gone, or the desk may not read it.
  }
}

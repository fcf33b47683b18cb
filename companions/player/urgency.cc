#include "urgency.h"

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

#include "configuration.h"
#include "statusfile.h"
#include "xml.h"

namespace {

// A value that changes whenever the file changes.
using Stamp = std::tuple<ino_t, off_t, int64_t, int64_t>;

Stamp StampOf(const std::string& path_) {
  struct stat status = {};
  if (stat(path_.c_str(), &status) != 0) {
    return {};
  }
  return {status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

// The parts of a status that matter here. The defaults are those without a running daemon.
struct Status {
  int timestamp = -1;
  bool is_output_bound = false;
  bool is_stopped = false;
  std::vector<std::string> active;  // Ids of directories with an active message.
};

Status StatusOf(const XMLElement& root_) {
  Status status;
  status.timestamp = root_.GetAttributeInteger("timestamp");
  status.is_output_bound = root_.GetAttributeInteger("output-bound") != 0;
  status.is_stopped = root_.GetAttributeString("state") == "stop";
  for (const XMLElement* directory : root_.GetChildren("directory")) {
    if (!directory->GetChildren("message").empty()) {
      status.active.push_back(directory->GetAttributeString("id"));
    }
  }
  return status;
}

}  // namespace

struct Urgency::Impl {
  const std::string config_path;
  const std::string status_path;
  bool was_read = false;
  Stamp config_stamp;
  std::map<std::string, ConfiguredDirectory> directories;  // By the id of the directory.
  Status status;
};

Urgency::Urgency(const std::string& config_path_, const std::string& status_path_)
    : impl(new Impl{config_path_, status_path_, false, {}, {}, {}}) {}

Urgency::~Urgency() = default;

void Urgency::ReadConfiguration() {
  if (impl->config_path.empty()) {
    return;
  }
  const Stamp stamp = StampOf(impl->config_path);
  if (impl->was_read && stamp == impl->config_stamp) {
    return;
  }
  impl->was_read = true;
  impl->config_stamp = stamp;
  impl->directories = ConfiguredDirectories(*LoadXMLTree(impl->config_path, "tts-config"));
}

void Urgency::ReadStatus() {
  if (impl->status_path.empty()) {
    return;
  }
  try {
    const std::unique_ptr<XMLElement> root = TryReadStatus(impl->status_path);
    if (root) {
      impl->status = StatusOf(*root);
    }
  } catch (const std::string&) {
    impl->status = {};
  }
}

int Urgency::Of(const std::string& id_) const {
  int result = kLeastUrgent;
  for (const auto& [id, directory] : impl->directories) {
    if (directory.display_id == id_) {
      result = std::min(result, directory.priority);
    }
  }
  return result;
}

int Urgency::MostUrgentActive() const {
  int result = kLeastUrgent;
  for (const std::string& id : impl->status.active) {
    const auto directory = impl->directories.find(id);
    if (directory != impl->directories.end()) {
      result = std::min(result, directory->second.priority);
    }
  }
  return result;
}

bool Urgency::IsActive(const std::string& id_) const {
  return std::any_of(
      impl->status.active.begin(), impl->status.active.end(), [&](const std::string& active_) {
        const auto directory = impl->directories.find(active_);
        return (directory == impl->directories.end() ? active_ : directory->second.display_id) ==
               id_;
      });
}

bool Urgency::IsOutputBound() const { return impl->status.is_output_bound; }

bool Urgency::IsStopped() const { return impl->status.is_stopped; }

int Urgency::Timestamp() const { return impl->status.timestamp; }

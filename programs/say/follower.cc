#include "follower.h"

#include <unistd.h>

#include <memory>

#include "clock.h"
#include "crc.h"
#include "format.h"
#include "statusfile.h"

namespace {

constexpr int kPollPause = 30;  // Milliseconds.

const XMLElement* FindMessage(const XMLElement& directory_, const std::string& filename_) {
  for (const XMLElement* message : directory_.GetChildren("message")) {
    if (message->GetAttributeString("filename") == filename_) {
      return message;
    }
  }
  return nullptr;
}

// True if the message whose snippet was made last is still active in some directory, or if there is
// no such message. A message stays "now-playing" for a while after its last words.
bool IsSettled(const XMLElement& status_) {
  const int playing = status_.GetAttributeInteger("now-playing");
  if (playing == 0) {
    return true;
  }
  for (const XMLElement* directory : status_.GetChildren("directory")) {
    for (const XMLElement* message : directory->GetChildren("message")) {
      if (message->GetAttributeInteger("id") == playing) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace

Follower::Follower(const std::string& config_path_, const std::string& status_path_,
                   const LocalDirectory& target_)
    : config_path(config_path_),
      status_path(status_path_),
      target(target_),
      config_crc(FileCRC(config_path_)) {
  if (FindById(*ReadStatus(status_path), "directory", target.id) == nullptr) {
    throw Format("the daemon that writes %s does not have directory \"%s\"", status_path.c_str(),
                 target.id.c_str());
  }
}

Follower::End Follower::Follow(const std::string& name_, int timeout_) {
  name = name_;
  const double deadline = Now() + timeout_;
  while (timeout_ == 0 || Now() < deadline) {
    if (IsDirectoryReplaced()) {
      return End::kDropped;
    }
    try {
      const bool was_present = IsPresent();
      const std::unique_ptr<XMLElement> status = ReadStatus(status_path);
      const std::optional<End> end = Look(*status, was_present);
      if (end) {
        return *end;
      }
    } catch (const std::string&) {
      // The service removes the file when it stops, and empties the directory when it starts.
      if (access(status_path.c_str(), F_OK) != 0) {
        return End::kDropped;
      }
    }
    Nap(kPollPause);
  }
  return End::kTimedOut;
}

// True if the daemon will delete the directory, or create it again, which empties it.
bool Follower::IsDirectoryReplaced() {
  const uint16_t crc = FileCRC(config_path);
  if (is_over || crc == config_crc) {
    return false;
  }
  try {
    const std::unique_ptr<XMLElement> root = LoadXMLTree(config_path, "tts-config");
    config_crc = crc;
    const XMLElement* element = FindById(*root, "directory", target.id);
    return element == nullptr || !(*element == target.element);
  } catch (const std::string&) {
    return false;  // The daemon, too, goes on with the configuration that it has.
  }
}

bool Follower::IsPresent() const { return access((target.path + name).c_str(), F_OK) == 0; }

// The message's end if the status shows it. was_present_: its file was there before the status was
// read.
std::optional<Follower::End> Follower::Look(const XMLElement& status_, bool was_present_) {
  const int timestamp = status_.GetAttributeInteger("timestamp");
  const XMLElement* directory = FindById(status_, "directory", target.id);
  if (directory == nullptr || timestamp < last_timestamp) {
    return End::kDropped;  // A lower counter is that of a new process, which empties the directory.
  }
  last_timestamp = timestamp;
  if (seen_from == kNever) {
    seen_from = timestamp + 2;  // The scan for the next one may be under way.
  }
  if (!was_present_ && gone_from == kNever) {
    gone_from = timestamp + 1;
  }
  if (IsActive(*directory)) {
    return std::nullopt;
  }
  is_over = is_over || IsOver(*directory, timestamp);
  if (!is_over) {
    return std::nullopt;
  }
  // A file that cannot be read is not queued; one that cannot be removed is not spoken.
  const bool is_refused = message_id == 0 && target.removes_taken && IsPresent();
  if (is_refused || status_.GetAttributeString("state") == "stop") {
    return End::kDropped;
  }
  return IsSettled(status_) ? std::optional<End>(End::kSaid) : std::nullopt;
}

// True if the message was active, was taken or is not queued. REQUIRES: it is not active now.
bool Follower::IsOver(const XMLElement& directory_, int timestamp_) const {
  const bool is_out_of_queue =
      timestamp_ >= seen_from && directory_.GetAttributeInteger("updated-file-count") == 0;
  return message_id != 0 || timestamp_ >= gone_from || is_out_of_queue;
}

// In a preview directory the same file may come back as another message.
bool Follower::IsActive(const XMLElement& directory_) {
  const XMLElement* message = FindMessage(directory_, name);
  if (message == nullptr) {
    return false;
  }
  const int id = message->GetAttributeInteger("id");
  message_id = message_id == 0 ? id : message_id;
  return id == message_id;
}

#include "outcome.h"

#include <dirent.h>
#include <unistd.h>

#include "affix.h"
#include "clock.h"
#include "configuration.h"
#include "listinglock.h"
#include "messagecopy.h"
#include "statusfile.h"

namespace {

constexpr int kPollPause = 50;        // Milliseconds.
constexpr double kStatusLimit = 0.1;  // Seconds to wait for a complete status.

std::optional<MessageRecord> FindRecord(const std::string& health_path_,
                                        const HandedOver& message_) {
  try {
    for (const MessageRecord& record : ReadHealth(health_path_).messages) {
      if (record.directory == message_.directory && record.file == message_.file) {
        return record;
      }
    }
  } catch (const std::string&) {
    return std::nullopt;  // The next station writes the record again.
  }
  return std::nullopt;
}

// True if the daemon's status names the message. While it waits for a more urgent one, the
// station's copy is still there, but the daemon has already read the text.
bool IsTaken(const HandedOver& message_, const std::string& status_path_) {
  try {
    const std::unique_ptr<XMLElement> status = ReadStatus(status_path_, kStatusLimit);
    const XMLElement* directory = FindById(*status, "directory", message_.directory);
    if (directory == nullptr) {
      return false;
    }
    const auto active = directory->GetChildren("message");
    return !active.empty() && active.front()->GetAttributeString("filename", "") == message_.file;
  } catch (const std::string&) {  // There is no status, so no daemon runs.
    return false;
  }
}

}  // namespace

std::optional<MessageRecord> WaitForEnd(const std::string& health_path_, const HandedOver& message_,
                                        bool is_heard_, int timeout_) {
  const double deadline = Now() + timeout_;
  while (timeout_ == 0 || Now() < deadline) {
    std::optional<MessageRecord> record = FindRecord(health_path_, message_);
    if (record && record->state >= MessageRecord::kSaid &&
        (record->state != MessageRecord::kSaid || !is_heard_)) {
      return record;
    }
    Nap(kPollPause);
  }
  return std::nullopt;
}

std::string ReasonOf(const std::string& health_path_, const HandedOver& message_) {
  try {
    for (const Problem& problem : ReadHealth(health_path_).problems) {
      if (EndsWith(problem.id, ":" + message_.directory + "/" + message_.file)) {
        return problem.sentence + " " + problem.remedy;
      }
    }
  } catch (const std::string&) {
    return "";
  }
  return "";
}

bool Withdraw(const HandedOver& message_, const std::string& status_path_) {
  if (IsTaken(message_, status_path_)) {
    return false;
  }
  const ListingLock lock(message_.path);
  bool is_removed = unlink((message_.path + message_.file).c_str()) == 0;
  DIR* const listing = opendir(message_.path.c_str());
  while (const dirent* entry = listing == nullptr ? nullptr : readdir(listing)) {
    CopyName copy;
    if (ParseCopyName(entry->d_name, copy) && copy.name == message_.file && !copy.is_speaking) {
      is_removed = unlink((message_.path + entry->d_name).c_str()) == 0 || is_removed;
    }
  }
  if (listing != nullptr) {
    closedir(listing);
  }
  return is_removed;
}

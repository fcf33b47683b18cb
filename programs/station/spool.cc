#include "spool.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <map>
#include <set>
#include <vector>

#include "affix.h"
#include "configuration.h"
#include "createdirectories.h"
#include "format.h"
#include "listinglock.h"
#include "messagecopy.h"
#include "outputname.h"
#include "playerstate.h"

namespace {

constexpr int64_t kSecond = 1000000000;
constexpr int kNever = INT_MAX;
constexpr int kMaxEnded = 200;

// Statuses, of which there are ten a second. The third one after a directory was created shows it
// as scanned: the first may be older, and the scan for the second may have begun before.
constexpr int kSureStatuses = 3;
constexpr int kLateLog = 5;     // The log may be that far after the status.
constexpr int kNotQueued = 30;  // A file that is not queued by then will not be.

// A file may come just before the health file is written, and be seen by nobody after that.
constexpr int64_t kUnseen = 2 * kSecond;

constexpr int kMaxNames = 1000;    // Tries to find a name that is not taken.
constexpr size_t kMaxSuffix = 5;   // Bytes that such a name is longer.
constexpr size_t kMaxPrefix = 30;  // Bytes that a player puts in front of a name.

constexpr char kUnreadable[] = "unreadable:";
constexpr char kTemporary[] = ".station-new";
constexpr char kCreated[] = "Created new input directory ";
constexpr char kNoOutput[] = " > /dev/null 2>&1";

int64_t Nanoseconds(const timespec& time_) {
  return int64_t{time_.tv_sec} * kSecond + time_.tv_nsec;
}

int64_t ClockTime() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return Nanoseconds(now);
}

bool Exists(const std::string& path_) {
  struct stat status = {};
  return lstat(path_.c_str(), &status) == 0;
}

int64_t WriteTime(const std::string& path_) {
  struct stat status = {};
  return stat(path_.c_str(), &status) == 0 ? Nanoseconds(status.st_mtim) : 0;
}

std::vector<std::string> EntriesOf(const std::string& path_) {
  std::vector<std::string> entries;
  if (DIR* const listing = opendir(path_.c_str())) {
    while (const dirent* entry = readdir(listing)) {
      entries.emplace_back(entry->d_name);
    }
    closedir(listing);
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

// A local directory in which messages are spoken.
struct Folder {
  enum Phase {
    kOld,      // The daemon has still to create it.
    kEmptied,  // It has just done that.
    kScanned   // Every file that comes is new to it.
  };

  std::string path;
  std::string last_played;  // Empty: none.
  bool removes_taken = true;
  ConfiguredDirectory configured;
  int watch = -1;
  Phase phase = kOld;
  int statuses = 0;        // Different ones since it was emptied.
  int timestamp = 0;       // Of the last of them.
  std::string last_given;  // The last name that was given back.
};

// How far the daemon is with a message.
struct Course {
  bool is_given = false;  // It was given back.
  bool is_indexed = false;
  bool is_gone = false;     // The file is.
  bool is_over = false;     // It is neither waiting nor active any more.
  bool is_refused = false;  // The file could not be removed.
  uint64_t turn = 0;        // Messages are taken in this order; 0: not known.
  int id = 0;               // 0: not seen as the active message.
  int seen_from = kNever;   // From this status on, the daemon has seen the file.
  int gone_from = kNever;   // From this status on, it has taken the file.
  int over_from = kNever;   // The first status that shows its end.
};

struct Message {
  enum Place {
    kThere,     // The daemon sees it.
    kMaybeOld,  // It came before the first scan was surely over.
    kAway       // It is to be given back.
  };

  bool IsSpoken() const { return record.pieces + record.failed > 0; }
  bool IsTaken() const {
    return course.id != 0 || IsSpoken() || (course.turn != 0 && course.is_indexed);
  }
  bool HasEnded() const { return record.ended != 0; }

  MessageRecord record;
  std::string name;  // The present one in the directory.
  std::string copy;  // The path; empty: there is none.
  int64_t arrival = 0;
  bool was_speaking = false;
  Place place = kThere;
  int forgotten_from = 0;     // From this status on, the daemon does not know its name.
  bool may_be_taken = false;  // It was put away, but the daemon may know it.
  Course course;
  std::set<std::string> files;  // Its files in the output directory that were not seen to leave it.
};

struct FileProblem {
  Problem problem;
  std::string path;
};

// True if the file at path_ is that of the message, and not a later one of the same name.
bool IsFileOf(const Message& message_, const std::string& path_) {
  struct stat file = {};
  struct stat copy = {};
  if (lstat(path_.c_str(), &file) != 0 || !S_ISREG(file.st_mode)) {
    return false;
  }
  const bool is_link = lstat(message_.copy.c_str(), &copy) == 0 && copy.st_ino == file.st_ino &&
                       copy.st_dev == file.st_dev;
  return is_link ||
         (EndsWith(path_, "/" + message_.name) && Nanoseconds(file.st_ctim) <= message_.arrival);
}

}  // namespace

struct Spool::Impl {
  Impl(const std::string& run_, const std::string& output_, int age_limit_);
  ~Impl() { close(inotify); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void Prepare(const XMLElement& configuration_);
  void PrepareFolder(const std::string& id_, const LocalDirectory& local_);
  void RemoveFolder(const std::string& id_);
  void Watch(Folder& folder_) const;
  void FindCopies(const std::string& id_, const Folder& folder_);
  void FindFiles(const std::string& id_, const Folder& folder_, int64_t since_);
  void PutAway(Message& message_, const Folder& folder_);
  void Hold(Message& message_, const Folder& folder_);
  void FindTaken();

  void Read();
  void OnFile(const std::string& id_, Folder& folder_, const std::string& name_, uint32_t event_);
  void Arrive(const std::string& id_, const Folder& folder_, const std::string& name_,
              int64_t arrival_);

  void OnLog(const LogEvent& event_);
  void OnCopying(const std::string& name_);
  void OnCommandFailed(std::string command_);
  void OnNotRemoved(const std::string& path_);
  void OnIndexed(const std::string& name_);
  void OnCreated(const std::string& id_);

  void OnStatus(const XMLElement& status_);
  void OnDirectory(const std::string& id_, Folder& folder_, const XMLElement& directory_);
  void GiveBack(const std::string& id_, Folder& folder_);
  bool Show(Message& message_, const Folder& folder_, bool is_known_);
  void Look(Message& message_, const Folder& folder_, bool is_queue_empty_);
  void FindHeard();

  template <typename Condition>
  Message* Find(const std::string& id_, Condition condition_);
  std::vector<std::string> IdsOf(const std::string& display_id_) const;
  Message* FirstOf(const std::string& display_id_);
  Message* NextOf(const std::string& display_id_);
  void Begin(Message& message_);
  static void Restart(Message& message_, bool is_gone_);
  static void Fail(Message& message_);
  void End(Message& message_, MessageRecord::State state_);
  void EndSpoken(Message& message_);
  void EndFollowed();
  void Forget();
  void Explain(const Message& message_, const Folder& folder_);
  void SetProblem(const char* kind_, const Message& message_, const Folder& folder_,
                  const char* why_, const char* remedy_);

  const std::string run;
  const std::string output;
  const int64_t age_limit;
  int64_t last_life;  // The end of the last station; 0: not known.
  int64_t last_read = 0;
  const int inotify;
  bool is_running = false;  // The daemon is, or is about to.
  int timestamp = 0;
  std::string state;
  uint64_t next_turn = 1;
  std::map<std::string, Folder> folders;
  std::list<Message> messages;  // In the order of their arrival.
  Message* speaking = nullptr;  // The message that was spoken last.
  std::string last_file;        // The last output file.
  Message* last_owner = nullptr;
  std::set<std::string> clips;  // Output files that belong to the message that begins next.
  std::map<std::string, FileProblem> problems;
  std::map<std::string, long long> counters = {
      {"messages", 0}, {"pieces", 0}, {"failed", 0}, {"lost", 0}};
};

Spool::Impl::Impl(const std::string& run_, const std::string& output_, int age_limit_)
    : run(AddTrailingSlash(run_)),
      output(AddTrailingSlash(output_)),
      age_limit(age_limit_ * kSecond),
      last_life(WriteTime(run + "health")),
      inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (inotify < 0) {
    throw Format("cannot watch directories: %s", strerror(errno));
  }
  // The health file changes with each message; the status may be that of a daemon that was left
  // alone.
  last_life = last_life == 0 ? WriteTime(run + "status.xml") : last_life;
}

void Spool::Impl::Prepare(const XMLElement& configuration_) {
  Read();
  if (!is_running) {  // Files that are left in the output directory may be removed now.
    FindHeard();
    for (Message& message : messages) {
      message.files.clear();
    }
  }
  std::set<std::string> kept;
  const auto configured = ConfiguredDirectories(configuration_);
  for (const auto& [id, directory] : configured) {
    const XMLElement* element = FindById(configuration_, "directory", id);
    try {
      const LocalDirectory local(*element);
      if (element->GetAttributeString("type", "") != "local" || local.path.empty()) {
        continue;
      }
      CreateDirectories(local.path);
      if (!local.is_cache) {
        kept.insert(id);
        PrepareFolder(id, local);
        folders[id].configured = directory;
      }
    } catch (const std::string&) {
      continue;  // The daemon skips it.
    }
  }
  for (auto next = folders.begin(); next != folders.end();) {
    const std::string id = (next++)->first;
    if (kept.count(id) == 0) {
      RemoveFolder(id);
    }
  }
  messages.sort([](const Message& a_, const Message& b_) { return a_.arrival < b_.arrival; });
  for (Message& message : messages) {
    if (!is_running && !message.HasEnded()) {
      message.forgotten_from = 0;
      PutAway(message, folders[message.record.directory]);
    }
  }
  Forget();
  is_running = true;
}

void Spool::Impl::PrepareFolder(const std::string& id_, const LocalDirectory& local_) {
  const auto old = folders.find(id_);
  if (old != folders.end() && old->second.path != local_.path) {
    RemoveFolder(id_);
  }
  const bool is_new = folders.count(id_) == 0;
  Folder& folder = folders[id_];
  folder.path = local_.path;
  folder.removes_taken = local_.removes_taken;
  folder.last_played = AddTrailingSlash(local_.element.GetAttributeString("last-played-path", ""));
  Watch(folder);
  if (is_new) {
    FindCopies(id_, folder);
    // Where files stay, nothing but the last life tells which ones were said.
    if (folder.removes_taken || last_life != 0) {
      const int64_t since = folder.removes_taken ? last_life - kUnseen : last_life;
      FindFiles(id_, folder, std::max(since, ClockTime() - age_limit));
    }
  }
}

void Spool::Impl::RemoveFolder(const std::string& id_) {
  for (Message& message : messages) {
    if (message.record.directory == id_ && !message.HasEnded()) {
      End(message, MessageRecord::kDropped);
    }
  }
  inotify_rm_watch(inotify, folders[id_].watch);
  folders.erase(id_);
}

void Spool::Impl::Watch(Folder& folder_) const {
  if (folder_.watch < 0) {
    folder_.watch =
        inotify_add_watch(inotify, folder_.path.c_str(),
                          IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR);
  }
}

// Finds what an earlier station has kept.
void Spool::Impl::FindCopies(const std::string& id_, const Folder& folder_) {
  for (const std::string& entry : EntriesOf(folder_.path)) {
    CopyName parts;
    struct stat status = {};
    if (!ParseCopyName(entry, parts) || lstat((folder_.path + entry).c_str(), &status) != 0 ||
        !S_ISREG(status.st_mode)) {
      continue;
    }
    Message& message = messages.emplace_back();
    message.record.directory = id_;
    message.record.file = message.name = parts.name;
    message.record.arrived = parts.arrival / kSecond;
    message.arrival = parts.arrival;
    message.copy = folder_.path + entry;
    message.was_speaking = parts.is_speaking;
    message.place = Message::kAway;
    ++counters["messages"];
  }
}

// Finds files that have come after since_ and are not known.
void Spool::Impl::FindFiles(const std::string& id_, const Folder& folder_, int64_t since_) {
  for (const std::string& entry : EntriesOf(folder_.path)) {
    const std::string path = folder_.path + entry;
    struct stat status = {};
    if (entry[0] == '.' || lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
      continue;
    }
    const int64_t arrival = Nanoseconds(status.st_ctim);
    if (Message* const known =
            Find(id_, [&](const Message& message_) { return IsFileOf(message_, path); })) {
      known->name = entry;
    } else if (arrival > since_) {
      Arrive(id_, folder_, entry, arrival);
    }
  }
}

// Removes the message from the daemon's eyes.
void Spool::Impl::PutAway(Message& message_, const Folder& folder_) {
  const std::string path = folder_.path + message_.name;
  const ListingLock lock(folder_.path);
  if (message_.copy.empty()) {
    message_.copy = folder_.path +
                    FormatCopyName({message_.was_speaking, message_.arrival, message_.record.file});
    if (message_.course.is_gone || rename(path.c_str(), message_.copy.c_str()) != 0) {
      End(message_, MessageRecord::kDropped);
      return;
    }
  } else if (!message_.course.is_gone && IsFileOf(message_, path)) {
    unlink(path.c_str());
  }
  message_.place = Message::kAway;
  message_.may_be_taken = false;
  message_.record.state = MessageRecord::kWaiting;
}

// Puts the message away while the daemon has not yet seen all older ones, so that it does not
// overtake them. It may have been given back just now: by a rename, if its file belongs to another
// user or the file system has no links. If the daemon has taken it by now, it stays as it is. Where
// files stay, that shows later, see FindTaken().
void Spool::Impl::Hold(Message& message_, const Folder& folder_) {
  const auto self = std::find_if(messages.begin(), messages.end(),
                                 [&](const Message& other_) { return &other_ == &message_; });
  const auto waits = [&](const Message& other_) {
    const bool is_unseen = other_.course.is_given && !other_.course.is_indexed;
    return (other_.place == Message::kAway || is_unseen) && !other_.HasEnded() &&
           other_.record.directory == message_.record.directory;
  };
  const bool is_early =
      folder_.phase != Folder::kScanned || std::any_of(messages.begin(), self, waits);
  if (!is_running || message_.copy.empty() || !is_early) {
    return;
  }
  const ListingLock lock(folder_.path);
  if (rename((folder_.path + message_.name).c_str(), message_.copy.c_str()) == 0) {
    message_.place = Message::kAway;
    message_.forgotten_from = kNever;
    message_.may_be_taken = !folder_.removes_taken;
  }
}

// Finds messages that the daemon had taken when they were put away: it has put a copy of them into
// the last-played directory, where no older message of that name is as young.
void Spool::Impl::FindTaken() {
  for (Message& message : messages) {
    if (!message.may_be_taken || message.HasEnded()) {
      continue;
    }
    const std::string& last_played = folders[message.record.directory].last_played;
    const int64_t time = WriteTime(last_played + message.name);
    if (time != 0 && time >= WriteTime(message.copy)) {
      message.may_be_taken = false;
      message.place = Message::kThere;
      Restart(message, false);
      message.course.is_indexed = true;
      message.course.turn = next_turn++;
    }
  }
}

void Spool::Impl::Read() {
  const int64_t since = last_read - kSecond;
  last_read = ClockTime();
  bool is_incomplete = false;
  alignas(inotify_event) char buffer[4096];
  ssize_t length = 0;
  while ((length = read(inotify, buffer, sizeof(buffer))) > 0) {
    for (ssize_t at = 0; at < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      is_incomplete = is_incomplete || (event->mask & IN_Q_OVERFLOW) != 0;
      for (auto& [id, folder] : folders) {
        if (folder.watch == event->wd && (event->mask & IN_IGNORED) != 0) {
          folder.watch = -1;  // The directory is gone; another one may come.
        } else if (folder.watch == event->wd && event->len > 0 && event->name[0] != '.') {
          OnFile(id, folder, event->name, event->mask);
        }
      }
    }
  }
  for (auto& [id, folder] : folders) {
    if (is_incomplete) {
      FindFiles(id, folder, since);
      for (Message& message : messages) {
        const bool is_there = Exists(folder.path + message.name);
        if (message.record.directory == id && message.place != Message::kAway && !is_there) {
          OnFile(id, folder, message.name, IN_DELETE);
        }
      }
    }
  }
}

void Spool::Impl::OnFile(const std::string& id_, Folder& folder_, const std::string& name_,
                         uint32_t event_) {
  if ((event_ & (IN_MOVED_TO | IN_CLOSE_WRITE)) != 0) {
    struct stat status = {};
    const bool is_there = lstat((folder_.path + name_).c_str(), &status) == 0;
    if (!is_there || S_ISREG(status.st_mode)) {  // The daemon may have taken it already.
      Arrive(id_, folder_, name_, ClockTime());
    }
    return;
  }
  Message* const message = Find(id_, [&](const Message& message_) {
    return message_.name == name_ && message_.place != Message::kAway && !message_.course.is_gone;
  });
  if (message == nullptr) {
    return;
  }
  message->course.is_gone = true;
  if (folder_.removes_taken && message->course.turn == 0) {
    message->course.turn = next_turn++;
  }
  if (!is_running) {  // Not the daemon has removed it.
    End(*message, MessageRecord::kDropped);
  }
}

void Spool::Impl::Arrive(const std::string& id_, const Folder& folder_, const std::string& name_,
                         int64_t arrival_) {
  Message* message = Find(id_, [&](const Message& message_) {
    return message_.name == name_ && message_.place != Message::kAway && !message_.course.is_gone;
  });
  if (message == nullptr) {
    message = &messages.emplace_back();
    message->record.directory = id_;
    message->record.file = message->name = name_;
    message->record.arrived = arrival_ / kSecond;
    message->place = folder_.phase == Folder::kScanned ? Message::kThere : Message::kMaybeOld;
    ++counters["messages"];
  }
  // Else it was written again.
  const std::string old_copy = message->copy;
  message->arrival = arrival_;
  message->course.seen_from = message->course.over_from = kNever;
  message->copy =
      folder_.path + FormatCopyName({message->was_speaking, arrival_, message->record.file});
  if (!CopyMessage(folder_.path + name_, message->copy, folder_.path + kTemporary)) {
    message->copy.clear();
  }
  if (!old_copy.empty() && old_copy != message->copy) {
    unlink(old_copy.c_str());
  }
  Hold(*message, folder_);
}

void Spool::Impl::OnLog(const LogEvent& event_) {
  switch (event_.kind) {
    case LogEvent::kIndexed:
      Read();
      return OnIndexed(event_.subject);
    case LogEvent::kCopying:
      Read();
      return OnCopying(event_.subject);
    case LogEvent::kCommandFailed:
      Read();
      return OnCommandFailed(event_.subject);
    case LogEvent::kNotRemoved:
      Read();
      return OnNotRemoved(event_.subject);
    default:
      if (event_.line.compare(0, strlen(kCreated), kCreated) == 0) {
        Read();
        OnCreated(event_.line.substr(strlen(kCreated)));
      }
  }
}

void Spool::Impl::OnCopying(const std::string& name_) {
  OutputName parts;
  if (!ParseOutputName(name_, parts)) {
    return;
  }
  last_file = name_;
  last_owner = nullptr;
  if (parts.is_clip) {
    clips.insert(name_);
    return;
  }
  ++counters["pieces"];
  FindTaken();
  Message* const message = parts.is_first ? FirstOf(parts.id) : NextOf(parts.id);
  if (message != nullptr) {
    Begin(*message);
    ++message->record.pieces;
    message->files.insert(name_);
    message->files.merge(clips);
    last_owner = message;
  }
  clips.clear();
}

// The command was to copy the last output file, or it was the translator, whose last argument is
// the file name.
void Spool::Impl::OnCommandFailed(std::string command_) {
  if (!last_file.empty() && command_.find(last_file) != std::string::npos) {
    if (clips.erase(last_file) == 0) {
      --counters["pieces"];
      ++counters["failed"];
    }
    if (last_owner != nullptr) {
      --last_owner->record.pieces;
      last_owner->files.erase(last_file);
      Fail(*last_owner);
    }
    last_file.clear();
    return;
  }
  if (EndsWith(command_, kNoOutput)) {
    command_.resize(command_.size() - strlen(kNoOutput));
  }
  if (!EndsWith(command_, "\"")) {
    return;
  }
  ++counters["failed"];
  const auto is_its = [&](const Message& message_) {
    return message_.IsTaken() && EndsWith(command_, " \"" + message_.name + "\"");
  };
  for (const auto& [id, folder] : folders) {
    if (Message* const message = Find(id, is_its)) {
      Begin(*message);
      return Fail(*message);
    }
  }
  if (speaking != nullptr && is_its(*speaking)) {
    Fail(*speaking);
  }
}

void Spool::Impl::OnNotRemoved(const std::string& path_) {
  for (const auto& [id, folder] : folders) {
    Message* const message = Find(id, [&, &path = folder.path](const Message& message_) {
      return message_.place != Message::kAway && path + message_.name == path_;
    });
    if (message != nullptr) {
      message->course.is_refused = true;
      if (Exists(path_)) {
        SetProblem(
            "not-removed:", *message, folder, "cannot be removed, so it is not spoken",
            "Let the daemon's user write to the directory; then remove the file or rename it.");
      }
    }
  }
}

void Spool::Impl::OnIndexed(const std::string& name_) {
  for (const auto& [id, folder] : folders) {
    const auto unreadable =
        problems.find(Format("%s%s/%s", kUnreadable, id.c_str(), name_.c_str()));
    if (unreadable != problems.end() && access(unreadable->second.path.c_str(), R_OK) == 0) {
      Arrive(id, folder, name_, ClockTime());
    }
    Message* const message = Find(id, [&](const Message& message_) {
      return message_.name == name_ && message_.place != Message::kAway &&
             !message_.course.is_indexed;
    });
    if (message != nullptr) {
      message->course.is_indexed = true;
      if (!folder.removes_taken) {
        message->course.turn = next_turn++;
      }
      return;
    }
  }
}

// The files of that time are gone, or the daemon will not speak them. A file that has come since
// then may be new: the line is read some time after it was written.
void Spool::Impl::OnCreated(const std::string& id_) {
  const auto found = folders.find(id_);
  if (found == folders.end()) {
    return;
  }
  found->second.phase = Folder::kEmptied;
  found->second.statuses = 0;
  for (Message& message : messages) {
    if (message.record.directory == id_ && !message.HasEnded() && message.place != Message::kAway) {
      message.place = Message::kMaybeOld;
      Restart(message, message.course.is_gone);
    }
  }
}

void Spool::Impl::OnStatus(const XMLElement& status_) {
  timestamp = status_.GetAttributeInteger("timestamp");
  state = status_.GetAttributeString("state");
  const int playing = status_.GetAttributeInteger("now-playing");
  FindTaken();
  for (auto& [id, folder] : folders) {
    Watch(folder);
    if (const XMLElement* directory = FindById(status_, "directory", id)) {
      OnDirectory(id, folder, *directory);
    }
  }
  for (Message& message : messages) {
    if (playing != 0 && message.course.id == playing && !message.HasEnded()) {
      speaking = &message;
    }
  }
  FindHeard();
  for (auto next = problems.begin(); next != problems.end();) {
    const char* const path = next->second.path.c_str();
    const bool is_unreadable = next->first.compare(0, strlen(kUnreadable), kUnreadable) == 0;
    const bool is_over = !Exists(path) || (is_unreadable && access(path, R_OK) == 0);
    next = is_over ? problems.erase(next) : std::next(next);
  }
  Forget();
}

void Spool::Impl::OnDirectory(const std::string& id_, Folder& folder_,
                              const XMLElement& directory_) {
  if (folder_.phase == Folder::kEmptied &&
      (folder_.statuses == 0 || folder_.timestamp != timestamp)) {
    folder_.timestamp = timestamp;
    const bool is_scanned = directory_.GetAttributeString("status") == "1";
    if (++folder_.statuses >= kSureStatuses && is_scanned) {
      folder_.phase = Folder::kScanned;
      folder_.last_given.clear();
    }
  }
  if (folder_.phase != Folder::kScanned) {
    return;
  }
  GiveBack(id_, folder_);
  int active = 0;
  for (const XMLElement* element : directory_.GetChildren("message")) {
    active = element->GetAttributeInteger("id");
    const std::string name = element->GetAttributeString("filename");
    Message* const message = Find(id_, [&](const Message& message_) {
      const bool is_new = message_.course.id == 0 && message_.name == name;
      return message_.place == Message::kThere && (message_.course.id == active || is_new);
    });
    if (message != nullptr) {
      message->course.id = active;
      Begin(*message);
    }
  }
  const bool is_queue_empty = directory_.GetAttributeInteger("updated-file-count") == 0;
  for (Message& message : messages) {
    if (message.record.directory == id_ && !message.HasEnded() &&
        message.place == Message::kThere && (active == 0 || message.course.id != active)) {
      Look(message, folder_, is_queue_empty);
    }
  }
}

// The daemon takes files that it finds together in the order of their names, so a file whose name
// comes first waits until it has found those before.
void Spool::Impl::GiveBack(const std::string& id_, Folder& folder_) {
  bool is_pending = false;
  for (Message& message : messages) {
    if (message.record.directory != id_ || message.HasEnded()) {
      continue;
    }
    bool is_known = false;
    if (message.place == Message::kMaybeOld) {
      const bool is_taken = message.course.is_gone && message.course.is_indexed;
      is_known = !message.course.is_gone;
      message.place = Message::kThere;
      if (!is_taken && !message.IsSpoken() && age_limit > 0) {
        PutAway(message, folder_);
      }
    }
    if (message.place == Message::kThere || message.HasEnded()) {
      is_pending = is_pending || (message.course.is_given && !message.course.is_indexed);
      continue;
    }
    if (message.forgotten_from == kNever) {
      message.forgotten_from = timestamp + kSureStatuses;
    }
    const bool is_old = !message.was_speaking && ClockTime() - message.arrival > age_limit;
    if (timestamp < message.forgotten_from || (is_pending && message.name <= folder_.last_given)) {
      return;
    }
    if (is_old || age_limit == 0 || !Show(message, folder_, is_known || message.may_be_taken)) {
      End(message, MessageRecord::kDropped);
      continue;
    }
    folder_.last_given = message.name;
    is_pending = true;
  }
}

// Gives a message back; under another name if is_known_.
bool Spool::Impl::Show(Message& message_, const Folder& folder_, bool is_known_) {
  const std::string name = message_.record.file.substr(0, NAME_MAX - kMaxSuffix);
  for (int number = is_known_ ? 1 : 0; number < kMaxNames; ++number) {
    const std::string next = number == 0 ? message_.record.file : name + Format("_%d", number);
    bool is_kept = false;
    const ListingLock lock(folder_.path);
    if (ShowCopy(message_.copy, folder_.path + next, is_kept)) {
      message_.name = next;
      message_.copy = is_kept ? message_.copy : "";
      message_.place = Message::kThere;
      message_.may_be_taken = false;
      Restart(message_, false);
      message_.course.is_given = true;
      return true;
    }
    if (errno != EEXIST) {
      break;
    }
  }
  return false;
}

// Ends the message if the status shows that. REQUIRES: it is not active now.
void Spool::Impl::Look(Message& message_, const Folder& folder_, bool is_queue_empty_) {
  Course& course = message_.course;
  if (course.seen_from == kNever) {
    course.seen_from = timestamp + 2;  // The scan for the next one may be under way.
  }
  if (course.is_gone && course.gone_from == kNever) {
    course.gone_from = timestamp + 1;
  }
  const bool is_out_of_queue = timestamp >= course.seen_from && is_queue_empty_;
  course.is_over =
      course.is_over || course.id != 0 || timestamp >= course.gone_from || is_out_of_queue;
  const bool is_unqueued =
      !course.is_indexed && !course.is_gone && course.seen_from <= timestamp - kNotQueued;
  if (!course.is_over && !is_unqueued) {
    return;
  }
  if (course.over_from == kNever) {
    course.over_from = timestamp;
  }
  if (state == "stop") {
    End(message_, MessageRecord::kDropped);
  } else if (message_.IsSpoken()) {
    EndSpoken(message_);
  } else if (course.is_refused || timestamp - kLateLog >= course.over_from) {
    Explain(message_, folder_);
    End(message_, MessageRecord::kDropped);
  }
}

// The player hides what it plays; its state shows what it still plays after that.
void Spool::Impl::FindHeard() {
  const auto waits = [](const Message& message_) {
    return message_.record.state == MessageRecord::kSaid && !message_.files.empty();
  };
  if (std::none_of(messages.begin(), messages.end(), waits) ||
      access(output.c_str(), R_OK | X_OK) != 0) {
    return;
  }
  std::string playing;
  try {
    playing = ReadPlayerState(run + "player").playing;
  } catch (const std::string&) {
    playing.clear();  // There is none.
  }
  const std::vector<std::string> entries = EntriesOf(output);
  const auto has_left = [&](const std::string& file_) {
    const std::string hidden = "." + file_.substr(0, NAME_MAX - kMaxPrefix);
    return file_ != playing &&
           std::none_of(entries.begin(), entries.end(), [&](const std::string& entry_) {
             return entry_ == file_ ||
                    (entry_[0] == '.' && entry_.find(hidden) != std::string::npos);
           });
  };
  for (Message& message : messages) {
    if (!waits(message)) {
      continue;
    }
    if (state == "stop") {
      message.files.clear();  // The daemon has emptied the directory.
    } else if (std::all_of(message.files.begin(), message.files.end(), has_left)) {
      message.files.clear();
      message.record.state = MessageRecord::kHeard;
    }
  }
}

// The first message of the directory that has not ended and fulfils the condition.
template <typename Condition>
Message* Spool::Impl::Find(const std::string& id_, Condition condition_) {
  for (Message& message : messages) {
    if (message.record.directory == id_ && !message.HasEnded() && condition_(message)) {
      return &message;
    }
  }
  return nullptr;
}

// The local directories with that display id, the most urgent first.
std::vector<std::string> Spool::Impl::IdsOf(const std::string& display_id_) const {
  std::vector<std::string> ids;
  for (const auto& [id, folder] : folders) {
    if (folder.configured.display_id == display_id_) {
      ids.push_back(id);
    }
  }
  std::stable_sort(ids.begin(), ids.end(), [&](const std::string& a_, const std::string& b_) {
    return folders.at(a_).configured.priority < folders.at(b_).configured.priority;
  });
  return ids;
}

// The message whose first piece has been made.
Message* Spool::Impl::FirstOf(const std::string& display_id_) {
  Message* first = nullptr;
  for (const std::string& id : IdsOf(display_id_)) {
    for (Message& message : messages) {
      if (message.record.directory == id && !message.HasEnded() && message.IsTaken() &&
          !message.IsSpoken() && message.place != Message::kAway &&
          (first == nullptr || message.course.turn < first->course.turn)) {
        first = &message;
      }
    }
    if (first != nullptr) {
      break;
    }
  }
  return first;
}

// The message of which a further piece has been made.
Message* Spool::Impl::NextOf(const std::string& display_id_) {
  const std::vector<std::string> ids = IdsOf(display_id_);
  for (const std::string& id : ids) {
    Message* const message = Find(id, [](const Message& message_) {
      return message_.record.state == MessageRecord::kSpeaking && !message_.course.is_over;
    });
    if (message != nullptr) {
      return message;
    }
  }
  const bool is_late =
      speaking != nullptr && std::count(ids.begin(), ids.end(), speaking->record.directory) != 0;
  return is_late ? speaking : nullptr;
}

// The message is being spoken. So those of its directory that were before are over.
void Spool::Impl::Begin(Message& message_) {
  speaking = &message_;
  if (message_.HasEnded() || message_.record.state == MessageRecord::kSpeaking) {
    return;
  }
  message_.record.state = MessageRecord::kSpeaking;
  for (Message& other : messages) {
    if (&other != &message_ && other.record.directory == message_.record.directory &&
        other.record.state == MessageRecord::kSpeaking) {
      other.course.is_over = true;
    }
  }
  if (!message_.was_speaking && !message_.copy.empty()) {
    const std::string directory = message_.copy.substr(0, message_.copy.rfind('/') + 1);
    const std::string copy =
        directory + FormatCopyName({true, message_.arrival, message_.record.file});
    if (rename(message_.copy.c_str(), copy.c_str()) == 0) {
      message_.copy = copy;
    }
  }
  message_.was_speaking = true;
}

void Spool::Impl::Restart(Message& message_, bool is_gone_) {
  const uint64_t turn = message_.course.turn;
  message_.course = {};
  message_.course.is_gone = is_gone_;
  message_.course.turn = is_gone_ ? turn : 0;
  message_.record.state = MessageRecord::kWaiting;
  message_.record.pieces = message_.record.failed = 0;
  message_.files.clear();
}

void Spool::Impl::Fail(Message& message_) {
  ++message_.record.failed;
  if (message_.HasEnded() && message_.record.state == MessageRecord::kSaid) {
    message_.record.state = MessageRecord::kFailed;
  }
}

void Spool::Impl::End(Message& message_, MessageRecord::State state_) {
  message_.record.state = state_;
  message_.record.ended = time(nullptr);
  message_.place = Message::kThere;
  if (!message_.copy.empty()) {
    unlink(message_.copy.c_str());
    message_.copy.clear();
  }
  counters["lost"] += state_ == MessageRecord::kDropped ? 1 : 0;
}

void Spool::Impl::EndSpoken(Message& message_) {
  End(message_, message_.record.failed > 0 ? MessageRecord::kFailed : MessageRecord::kSaid);
}

// Ends the messages that were said before the last one, so that they are not said again.
void Spool::Impl::EndFollowed() {
  for (Message& message : messages) {
    if (!message.HasEnded() && message.course.is_over && message.IsSpoken()) {
      EndSpoken(message);
    }
  }
}

// Forgets the oldest of too many messages that have ended.
void Spool::Impl::Forget() {
  const auto has_ended = [](const Message& message_) { return message_.HasEnded(); };
  auto surplus = std::count_if(messages.begin(), messages.end(), has_ended) - kMaxEnded;
  for (; surplus > 0; --surplus) {
    const auto oldest = std::find_if(messages.begin(), messages.end(), has_ended);
    speaking = speaking == &*oldest ? nullptr : speaking;
    last_owner = last_owner == &*oldest ? nullptr : last_owner;
    messages.erase(oldest);
  }
}

// Why the daemon has not taken the message, if its file is still there.
void Spool::Impl::Explain(const Message& message_, const Folder& folder_) {
  const std::string path = folder_.path + message_.name;
  if (!Exists(path)) {
    return;
  }
  if (access(path.c_str(), R_OK) != 0) {
    SetProblem(kUnreadable, message_, folder_, "may not be read by the daemon",
               "Let the daemon's user read the file.");
  } else if (!message_.course.is_indexed) {
    SetProblem("not-queued:", message_, folder_,
               "is not spoken: its name and text were used before",
               "Use a new name for every message.");
  } else if (!message_.course.is_refused && folder_.removes_taken) {
    SetProblem("no-text:", message_, folder_, "is not spoken: the daemon finds no text in it",
               "Check that the file is as the directory's parser and encoding say.");
  }
}

void Spool::Impl::SetProblem(const char* kind_, const Message& message_, const Folder& folder_,
                             const char* why_, const char* remedy_) {
  const std::string id = message_.record.directory + "/" + message_.name;
  const std::string path = folder_.path + message_.name;
  const Problem problem = {kind_ + id, Format("%s %s.", path.c_str(), why_), remedy_,
                           time(nullptr)};
  problems.insert({problem.id, {problem, path}});
}

Spool::Spool(const std::string& run_, const std::string& output_, int age_limit_)
    : impl(std::make_unique<Impl>(run_, output_, age_limit_)) {}

Spool::~Spool() = default;

void Spool::Prepare(const XMLElement& configuration_) { impl->Prepare(configuration_); }

int Spool::Descriptor() const { return impl->inotify; }

void Spool::Read() { impl->Read(); }

void Spool::OnLog(const LogEvent& event_) { impl->OnLog(event_); }

void Spool::OnStatus(const XMLElement& status_) { impl->OnStatus(status_); }

void Spool::OnDaemonEnd() {
  impl->Read();
  impl->is_running = false;
  impl->EndFollowed();
  for (auto& [id, folder] : impl->folders) {
    folder.phase = Folder::kOld;
  }
}

bool Spool::IsIdle() const {
  return std::all_of(impl->messages.begin(), impl->messages.end(),
                     [](const Message& message_) { return message_.HasEnded(); });
}

void Spool::AddTo(Health& health_) const {
  for (const Message& message : impl->messages) {
    health_.messages.push_back(message.record);
  }
  const Message* const speaking = impl->speaking;
  if (speaking != nullptr && speaking->record.state == MessageRecord::kSpeaking) {
    health_.saying = speaking->record.directory + "/" + speaking->record.file;
  }
  for (const auto& [id, problem] : impl->problems) {
    health_.problems.push_back(problem.problem);
  }
  health_.counters.insert(impl->counters.begin(), impl->counters.end());
}

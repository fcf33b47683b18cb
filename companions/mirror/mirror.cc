#include "mirror.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include "clock.h"
#include "format.h"
#include "heartbeat.h"
#include "known.h"
#include "localfile.h"
#include "parts.h"
#include "report.h"
#include "supervisor.h"
#include "unsafenames.h"

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

constexpr int kListSeconds = 60;  // A listing that takes longer is ended.
// One file delays the others by the sum of these limits at most.
constexpr double kAnswerSeconds = 4;    // For an answer other than a file's content.
constexpr double kTransferSeconds = 6;  // For one turn of a transfer.
// For asking for exact times before the first file is fetched.
constexpr double kTimesSeconds = 2;
constexpr double kTurnSeconds = 10;     // After which a look fetches no further file.
constexpr double kBeatSeconds = 0.5;    // Between two beats during a transfer, at least.
constexpr double kRefusedSeconds = 30;  // Servers lock an account on which many logins fail.
constexpr double kShortPause = 0.1;     // Seconds between two looks, at least.
constexpr double kLongestRetry = 60;    // Seconds until a file that failed is tried again.
constexpr double kQuietSeconds = 60;    // A worker that is silent for longer hangs.

constexpr size_t kMaxFiles = 100'000;  // Files that a listing may have,
constexpr size_t kMaxNames = 8 << 20;  // and bytes in all of their names.
constexpr size_t kClockEntries = 256;  // Entries of a listing between two looks at the clock.
constexpr size_t kBatch = 100;         // Files that one look fetches or deletes.
constexpr uint8_t kChecks = 7;         // The last check is 127 seconds after the first was planned.
// Turns of a slow file until the first heartbeat no longer waits for it.
constexpr int kPatience = 10;

// Failures of a file that were reported: bits of KnownFile::told.
constexpr uint8_t kTooLarge = 1;
constexpr uint8_t kCannotFetch = 2;
constexpr uint8_t kChanged = 4;
constexpr uint8_t kCannotDelete = 8;

struct DirectoryCloser {
  void operator()(DIR* directory_) const { closedir(directory_); }
};

// Thrown if the server fails, rather than one file.
struct ServerTrouble {
  std::string reason;
};

// A file that is due to be fetched.
struct Due {
  RemoteFile file;
  uint16_t tries;
  std::string time;  // Its exact time; empty until the server was asked.
};

// Files that failed most often come last. Of the rest, the oldest come first.
bool ComesBefore(const Due& a_, const Due& b_) {
  return std::tie(a_.tries, a_.time, a_.file.stamp, a_.file.name) <
         std::tie(b_.tries, b_.time, b_.file.stamp, b_.file.name);
}

}  // namespace

struct Mirror::Impl {
  Impl(const MirrorSettings& settings_, const MakeRemote& make_remote_,
       std::function<double()> now_);

  double Look();
  void LookOnce();
  void KeepMemory();
  double Lost(const std::string& reason_, double seconds_);
  double Pause() const;

  void Begin(double seconds_, bool beating_);
  bool GoOn();
  void Beat();

  void List(const std::function<void(const RemoteFile&)>& take_);
  void Show();
  void Take(const RemoteFile& file_);
  void AddDue(const RemoteFile& file_, uint16_t tries_);
  void FindLocalCopies();
  void DropVanished();

  void DeleteTaken();
  void Delete(const RemoteFile& file_, KnownFile& known_file_);

  void FetchDue();
  bool Prepare(Due& due_);
  void Fetch(const Due& due_);
  bool Transfer(const Due& due_, Part& part_);
  void Deliver(const Due& due_, Part& part_);
  bool IsFirstMirrorComplete() const;

  void Fail(const std::string& name_, uint8_t trouble_, const std::string& text_);
  void Tell(KnownFile& known_file_, uint8_t trouble_, const std::string& text_);
  void Retry(KnownFile& known_file_);
  void PlanCheck(KnownFile& known_file_) const;
  KnownFile& Of(const std::string& name_) { return known.files().at(name_); }

  const MirrorSettings settings;
  const std::string directory;  // Ends in "/".
  const std::function<double()> now;
  Report report;
  Heartbeat heartbeat;
  Known known;

  // The present request to the server.
  double deadline = 0;
  bool is_late = false;     // The deadline has passed.
  bool is_beating = false;  // Heartbeats go on while the server is waited for.
  double last_beat = 0;

  // This look.
  uint32_t look = 1;
  double start = 0;
  double listing_seconds = 0;
  size_t listed = 0;  // Files with safe names.
  std::vector<Due> due;
  std::vector<RemoteFile> taken;
  double next_due = kNever;  // When the next file becomes due.
  bool has_more = false;     // There is more to do in the next look, which follows at once.
  bool has_slow = false;     // A slow file has to go on, also at once.

  // Earlier looks.
  bool in_row = false;  // The last one succeeded.
  double row_start = 0;
  bool is_mirrored;  // The first mirror was complete.

  UnsafeNames unsafe_names;
  Parts parts;

  std::unique_ptr<Remote> remote;
};

Mirror::Impl::Impl(const MirrorSettings& settings_, const MakeRemote& make_remote_,
                   std::function<double()> now_)
    : settings(settings_),
      directory(AddTrailingSlash(settings_.directory)),
      now(std::move(now_)),
      report(settings_.kind, settings_.source, now),
      heartbeat(directory),
      known(directory),
      is_mirrored(heartbeat.HasBegun()),
      parts(known),
      remote(make_remote_([this] { return GoOn(); })) {}

// --- One look ---

double Mirror::Impl::Look() {
  start = now();
  has_more = false;
  has_slow = false;
  next_due = kNever;
  try {
    LookOnce();
    report.Over(Report::kLocal);
    return Pause();
  } catch (const Refused& refused) {
    return Lost(refused.reason, kRefusedSeconds);
  } catch (const ServerTrouble& trouble) {
    return Lost(trouble.reason, settings.poll_seconds);
  } catch (const LocalTrouble& trouble) {
    report.Complain(Report::kLocal,
                    "cannot write to " + settings.directory + ": " + trouble.reason);
    return settings.poll_seconds;
  }
}

void Mirror::Impl::LookOnce() {
  known.Finish();
  KeepMemory();
  if (settings.auto_delete) {
    FindLocalCopies();
  }
  Show();
  if (is_mirrored) {
    Beat();
  }
  DropVanished();
  if (!in_row) {
    in_row = true;
    row_start = now();
  }
  FetchDue();
  if (!is_mirrored && IsFirstMirrorComplete()) {
    is_mirrored = true;
    Beat();
  }
  DeleteTaken();
}

// If the directory was emptied or replaced, the daemon has not taken the missing copies. Their
// remote files must not be deleted, and are delivered again.
void Mirror::Impl::KeepMemory() {
  if (!known.HasLostMemory()) {
    return;
  }
  if (settings.auto_delete) {
    for (auto& [name, known_file] : known.files()) {
      known_file.delivered = 0;
    }
  }
  known.Rewrite();
}

// Two looks are "in a row" only if nothing failed between them: an upload that broke off because
// the server was gone would look settled when it is back.
double Mirror::Impl::Lost(const std::string& reason_, double seconds_) {
  in_row = false;
  // Forgets the files that only an endless listing may have shown.
  for (auto file = known.files().begin(); file != known.files().end();) {
    const bool is_new = file->second.delivered == 0 && file->second.told == 0;
    file = is_new ? known.Forget(file) : std::next(file);
  }
  report.Complain(Report::kServer, "no updates: " + reason_);
  return seconds_;
}

// The seconds until the next look. A file is delivered at the latest one poll period and the time
// to settle after it was written.
double Mirror::Impl::Pause() const {
  const double end = now();
  if (has_more || has_slow) {
    return kShortPause;
  }
  // All files that a listing showed first are due when the listing's time has passed after the
  // first of them is due.
  const double next = std::min(start + settings.poll_seconds, next_due + listing_seconds);
  // After a long listing, the server rests as long as the listing took.
  const double rest = std::min<double>(settings.poll_seconds, listing_seconds);
  return std::max({next - end, rest, kShortPause});
}

// --- What may happen while the server is asked ---

void Mirror::Impl::Begin(double seconds_, bool beating_) {
  deadline = now() + seconds_;
  is_late = false;
  is_beating = beating_ && is_mirrored;
}

bool Mirror::Impl::GoOn() {
  const double time = now();
  if (is_beating && time - last_beat >= kBeatSeconds) {
    last_beat = time;
    try {
      heartbeat.Beat();
    } catch (const LocalTrouble&) {
      // The beat after the next listing reports the failure.
    }
  }
  is_late = is_late || time >= deadline;
  return !is_late;
}

void Mirror::Impl::Beat() {
  heartbeat.Beat();
  last_beat = now();
}

// --- Listings ---

// There is no beat during a listing, so a server that does not end its listing counts as gone.
void Mirror::Impl::List(const std::function<void(const RemoteFile&)>& take_) {
  size_t files = 0;
  size_t bytes = 0;
  Begin(kListSeconds, false);
  try {
    remote->List([&](const RemoteFile& file_) {
      ++files;
      bytes += file_.name.size();
      if (files > kMaxFiles || bytes > kMaxNames) {
        throw Format("more than %zu files, or than %zu bytes in their names", kMaxFiles, kMaxNames);
      }
      if (files % kClockEntries == 0 && !GoOn()) {
        throw std::string();
      }
      take_(file_);
    });
  } catch (const std::string& reason) {
    throw ServerTrouble{is_late ? Format("no end after %d seconds", kListSeconds) : reason};
  }
}

// Reads a listing and updates the known files.
void Mirror::Impl::Show() {
  ++look;
  listed = 0;
  due.clear();
  taken.clear();
  unsafe_names.BeginListing();
  List([this](const RemoteFile& file_) { Take(file_); });
  listing_seconds = now() - start;
  report.Over(Report::kServer);
  unsafe_names.EndListing();
}

void Mirror::Impl::Take(const RemoteFile& file_) {
  if (file_.is_bare) {
    if (unsafe_names.Take(file_.name)) {
      report.SayOfFile("refused " + file_.name + ", as the server does not tell its size and time");
    }
    return;
  }
  auto found = known.files().find(file_.name);
  if (found == known.files().end()) {
    if (!IsSafeName(file_.name)) {
      if (unsafe_names.Take(file_.name)) {
        report.SayOfFile("refused the name \"" + file_.name + "\"");
      }
      return;
    }
    found = known.files().try_emplace(file_.name).first;
  }
  KnownFile& known_file = found->second;
  if (known_file.seen == look) {
    return;  // Listed twice.
  }
  const uint64_t shown = Fingerprint(file_.size, file_.stamp);
  if (shown != known_file.shown || !in_row || known_file.seen + 1 != look) {
    known_file.due = now() + settings.settle_seconds;
    known_file.shown = shown;
  }
  if (known_file.seen == 0 && known_file.delivered == shown && file_.is_rounded) {
    known_file.checks = kChecks - 1;  // An earlier process has delivered it.
    PlanCheck(known_file);
  }
  known_file.seen = look;
  ++listed;
  const bool is_due = known_file.due <= start;
  if (shown != known_file.delivered) {
    if (is_due && file_.size > settings.size_limit) {
      known_file.due = kNever;
      Tell(known_file, kTooLarge,
           Format("%s is larger than %ju bytes", file_.name.c_str(),
                  uintmax_t{settings.size_limit}));
    } else if (is_due) {
      AddDue(file_, known_file.tries);
    } else {
      next_due = std::min(next_due, known_file.due);
    }
  } else if (settings.auto_delete && is_due && !known_file.is_local && taken.size() < kBatch) {
    taken.push_back(file_);
  } else if (known_file.next_check <= start) {
    AddDue(file_, known_file.tries);
  }
  known_file.is_local = false;
}

// Adds a due file. Keeps only the first kBatch files, in a heap, as there may be many.
void Mirror::Impl::AddDue(const RemoteFile& file_, uint16_t tries_) {
  Due added = {file_, tries_, ""};
  if (due.size() == kBatch) {
    has_more = true;
    if (!ComesBefore(added, due.front())) {
      return;
    }
    std::pop_heap(due.begin(), due.end(), ComesBefore);
    due.pop_back();
  }
  due.push_back(std::move(added));
  std::push_heap(due.begin(), due.end(), ComesBefore);
}

// Marks the files that have a local copy.
void Mirror::Impl::FindLocalCopies() {
  const std::unique_ptr<DIR, DirectoryCloser> listing(opendir(directory.c_str()));
  if (!listing) {
    throw LocalTrouble{strerror(errno)};
  }
  std::string name;  // Kept, so that it keeps its memory.
  errno = 0;
  while (const dirent* entry = readdir(listing.get())) {
    name = entry->d_name;
    const auto found = known.files().find(name);
    if (found != known.files().end()) {
      found->second.is_local = true;
    }
  }
  if (errno != 0) {
    throw LocalTrouble{strerror(errno)};
  }
}

void Mirror::Impl::DropVanished() {
  if (listed < known.files().size()) {
    for (auto file = known.files().begin(); file != known.files().end();) {
      const KnownFile& known_file = file->second;
      const bool is_gone =
          known_file.delivered == 0 ? known_file.seen < look : in_row && known_file.seen + 1 < look;
      file = is_gone ? known.Forget(file) : std::next(file);
    }
  }
  parts.DropIf([this](const Part& part_) { return known.files().count(part_.name) == 0; });
}

// --- Deleting what was taken ---

void Mirror::Impl::DeleteTaken() {
  const double end = now() + kTurnSeconds;
  for (const RemoteFile& file : taken) {
    if (now() >= end) {
      has_more = true;
      break;
    }
    KnownFile& known_file = Of(file.name);
    Begin(kAnswerSeconds, true);
    try {
      Delete(file, known_file);
    } catch (const std::string& reason) {
      Fail(file.name, kCannotDelete, "cannot delete " + file.name + ": " + reason);
    }
  }
}

void Mirror::Impl::Delete(const RemoteFile& file_, KnownFile& known_file_) {
  if (Fingerprint(file_.size, remote->Time(file_)) != known_file_.version) {
    known_file_.delivered = 0;  // A new version, which the listing does not distinguish.
    known_file_.due = now() + settings.settle_seconds;
    return;
  }
  remote->Delete(file_.name);
  if ((known_file_.told & kCannotDelete) != 0) {
    known_file_.told = 0;
    report.SayOfFile("could delete " + file_.name + " now");
  }
}

// --- Fetching what is due ---

void Mirror::Impl::FetchDue() {
  const double end = now() + kTurnSeconds;
  const double times_end = now() + kTimesSeconds;
  std::sort(due.begin(), due.end(), ComesBefore);
  std::vector<Due> ready;
  for (Due& file : due) {
    if (now() >= times_end) {
      has_more = true;
      break;
    }
    if (Prepare(file)) {
      ready.push_back(std::move(file));
    }
  }
  std::sort(ready.begin(), ready.end(), ComesBefore);
  for (const Due& file : ready) {
    if (now() >= end) {
      has_more = true;
      break;
    }
    Fetch(file);
  }
}

// Asks for the exact time. False if the file is not to be fetched now.
bool Mirror::Impl::Prepare(Due& due_) {
  const RemoteFile& file = due_.file;
  KnownFile& known_file = Of(file.name);
  if (known_file.delivered == known_file.shown) {
    PlanCheck(known_file);
  }
  Begin(kAnswerSeconds, true);
  try {
    due_.time = remote->Time(file);
  } catch (const std::string& reason) {
    Fail(file.name, kCannotFetch, "cannot fetch " + file.name + ": " + reason);
    return false;
  }
  if (known_file.delivered != 0 && Fingerprint(file.size, due_.time) == known_file.version) {
    known_file.delivered = known_file.shown;  // The delivered version with another stamp.
    return false;
  }
  return true;
}

void Mirror::Impl::Fetch(const Due& due_) {
  const std::string& name = due_.file.name;
  Part& part = parts.Get(name, Fingerprint(due_.file.size, due_.time));
  const uint64_t bytes_before = part.bytes;
  Begin(kTransferSeconds, true);
  try {
    if (Transfer(due_, part)) {
      Deliver(due_, part);
    } else {
      parts.Drop(name);
      Tell(Of(name), kChanged, name + " changed while it was fetched");
      Retry(Of(name));
    }
  } catch (const std::string& reason) {
    if (part.bytes == bytes_before && !is_late) {
      parts.Drop(name);  // The server may be unable to resume a transfer.
    }
    Fail(name, kCannotFetch, "cannot fetch " + name + ": " + reason);
  } catch (const LocalTrouble&) {
    parts.Drop(name);  // Frees its room.
    throw;
  }
}

// Fetches the file or a further part of it. False if it is not the version that was listed.
bool Mirror::Impl::Transfer(const Due& due_, Part& part_) {
  const uint64_t size = due_.file.size;
  bool is_too_long = false;
  if (part_.bytes < size || size == 0) {
    try {
      remote->Fetch(due_.file.name, part_.bytes, [&](const char* data_, size_t count_) {
        if (count_ > size - part_.bytes) {
          is_too_long = true;
          throw std::string();
        }
        part_.file->Write(data_, count_);
        part_.bytes += count_;
      });
    } catch (const std::string&) {
      if (!is_too_long) {
        throw;
      }
    }
  }
  return !is_too_long && part_.bytes == size && remote->Time(due_.file) == due_.time;
}

void Mirror::Impl::Deliver(const Due& due_, Part& part_) {
  const auto file = known.files().find(due_.file.name);
  known.Record(*file, part_.version, part_.number);
  parts.Release(due_.file.name);
  known.Finish();
  if (file->second.told != 0) {
    report.SayOfFile("fetched " + due_.file.name + " now");
  }
  file->second.told = 0;
  file->second.tries = 0;
  file->second.next_check = kNever;
  if (due_.file.is_rounded) {
    file->second.checks = is_mirrored ? 0 : kChecks - 1;
    PlanCheck(file->second);
  }
}

bool Mirror::Impl::IsFirstMirrorComplete() const {
  // The files of the first look are due by now, unless they have changed.
  const bool is_settled = next_due == kNever || start >= row_start + settings.settle_seconds;
  // A slow file that comes later would be spoken. One that never ends must not hold up all others.
  return is_settled && !has_more && !parts.HasYoungerThan(kPatience);
}

// --- Troubles with one file ---

// Handles the server's failure with one file, which is tried again later. Throws ServerTrouble if
// the server does not answer at all.
void Mirror::Impl::Fail(const std::string& name_, uint8_t trouble_, const std::string& text_) {
  KnownFile& known_file = Of(name_);
  if (is_late && trouble_ == kCannotFetch) {
    has_slow = true;
    known_file.tries = static_cast<uint16_t>(std::min(known_file.tries + 1, UINT16_MAX));
    return;
  }
  if ((known_file.told & trouble_) == 0) {
    bool is_there = false;
    List([&](const RemoteFile& file_) { is_there = is_there || file_.name == name_; });
    if (!is_there) {
      return;  // The file is gone, which explains the failure.
    }
  }
  Tell(known_file, trouble_, text_);
  Retry(known_file);
}

// Reports a failure of a file once until its next delivery.
void Mirror::Impl::Tell(KnownFile& known_file_, uint8_t trouble_, const std::string& text_) {
  if ((known_file_.told & trouble_) == 0) {
    known_file_.told = static_cast<uint8_t>(known_file_.told | trouble_);
    report.SayOfFile(text_);
  }
}

// Sets the time of the next try, later each time.
void Mirror::Impl::Retry(KnownFile& known_file_) {
  constexpr int kDoublings = 6;
  known_file_.tries = static_cast<uint16_t>(std::min(known_file_.tries + 1, UINT16_MAX));
  const int factor = 1 << std::min<int>(known_file_.tries, kDoublings);
  const double wait = std::min<double>(settings.poll_seconds * factor, kLongestRetry);
  known_file_.due = now() + std::max<double>(wait, settings.settle_seconds);
}

// A listing that rounds times does not show that a file was written again in the same minute with
// the same size. So the exact time is asked for, less and less often, until that minute is over.
void Mirror::Impl::PlanCheck(KnownFile& known_file_) const {
  known_file_.next_check =
      known_file_.checks < kChecks ? now() + (1 << known_file_.checks) : kNever;
  ++known_file_.checks;
}

// --- Outside ---

Mirror::Mirror(const MirrorSettings& settings_, const MakeRemote& make_remote_,
               std::function<double()> now_)
    : impl(std::make_unique<Impl>(settings_, make_remote_, std::move(now_))) {}

Mirror::~Mirror() = default;

double Mirror::Look() { return impl->Look(); }

int RunMirror(const MirrorSettings& settings_, const MakeRemote& make_remote_) {
  const Report report(settings_.kind, settings_.source, Now);
  return Supervise(report, [&](Pulse& pulse_) {
    const MakeRemote make_watched = [&](const std::function<bool()>& go_on_) {
      return make_remote_([&pulse_, go_on_] {
        pulse_.Promise(kQuietSeconds);
        return go_on_();
      });
    };
    try {
      Mirror mirror(settings_, make_watched, Now);
      for (;;) {
        pulse_.Promise(kQuietSeconds);
        const double pause = mirror.Look();
        pulse_.Promise(pause + kQuietSeconds);
        Nap(static_cast<int>(pause * 1000) + 1);
      }
    } catch (const LocalTrouble& trouble) {
      throw "cannot use " + settings_.directory + ": " + trouble.reason;
    } catch (const Stuck& stuck) {
      throw stuck.reason;
    }
  });
}

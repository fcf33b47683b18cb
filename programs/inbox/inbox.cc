#include "inbox.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

#include "charencoding.h"
#include "configuration.h"
#include "descriptor.h"
#include "format.h"
#include "hiddenfile.h"
#include "statusfile.h"
#include "xml.h"

namespace {

constexpr size_t kMaxBytes = 1 << 20;  // The same limit as for files that the helpers fetch.
constexpr size_t kMaxNameBytes = 100;
constexpr char kRefused[] = "refused";

// Distinguishes versions of a file.
using Version = std::tuple<ino_t, off_t, time_t, long>;

Version VersionOf(const struct stat& status_) {
  return {status_.st_ino, status_.st_size, status_.st_mtim.tv_sec, status_.st_mtim.tv_nsec};
}

// A file that earlier looks have found.
struct File {
  Version version;
  double since = 0;      // When this version was seen first.
  bool is_done = false;  // It was reported or handed over, but could not be removed.
};

// Thrown for a file that is not handed over.
struct Refusal {
  std::string why;
};

// True if the bytes are UTF-16 with the low byte first. In XML only, a byte order mark allows the
// high byte first.
bool IsUtf16(const std::string& bytes_, bool is_xml_) {
  const bool is_swapped = is_xml_ && bytes_.compare(0, 2, "\xFE\xFF") == 0;
  bool is_open = false;  // The last unit began a surrogate pair.
  for (size_t i = 0; i + 1 < bytes_.size(); i += 2) {
    const auto high = static_cast<unsigned char>(bytes_[is_swapped ? i : i + 1]);
    const bool is_second = high >= 0xDC && high <= 0xDF;
    if (is_second != is_open) {
      return false;
    }
    is_open = high >= 0xD8 && high <= 0xDB;
  }
  return bytes_.size() % 2 == 0 && !is_open;
}

bool IsExtAscii(const std::string& bytes_) {
  return std::all_of(bytes_.begin(), bytes_.end(),
                     [](char c_) { return c_ != '\0' && Utf8IsValid(ExtAsciiToUtf8Char(c_)); });
}

std::string ReadAll(int fd_) {
  std::string bytes(kMaxBytes + 1, '\0');
  size_t length = 0;
  while (length < bytes.size()) {
    const ssize_t count = read(fd_, bytes.data() + length, bytes.size() - length);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      throw Refusal{strerror(errno)};
    }
    if (count == 0) {
      break;
    }
    length += static_cast<size_t>(count);
  }
  bytes.resize(length);
  return bytes;
}

}  // namespace

std::string WhyNoMessage(const std::string& bytes_, const std::string& encoding_, bool is_xml_) {
  if (bytes_.empty()) {
    return "it is empty";
  }
  if (bytes_.size() > kMaxBytes) {
    return "it is larger than 1 MiB";
  }
  const bool is_valid = encoding_ == "utf16"   ? IsUtf16(bytes_, is_xml_)
                        : encoding_ == "ascii" ? IsExtAscii(bytes_)
                                               : Utf8IsValid(bytes_);
  return is_valid ? "" : "it is not valid in the encoding \"" + encoding_ + "\"";
}

std::string SafeCharacters(const std::string& name_) {
  const std::string safe = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._+=@-";
  std::string kept;
  std::copy_if(name_.begin(), name_.end(), std::back_inserter(kept),
               [&](char c_) { return safe.find(c_) != std::string::npos; });
  return kept.substr(0, kMaxNameBytes);
}

struct Inbox::Impl {
  void Look();
  std::vector<std::string> Settled(DIR* listing_);
  std::unique_ptr<const LocalDirectory> Target() const;
  void Handle(int inbox_, const std::string& name_, const LocalDirectory& target_);
  std::string ReadMessage(int inbox_, const std::string& name_,
                          const LocalDirectory& target_) const;
  void HandOver(int inbox_, const std::string& name_, const std::string& bytes_,
                const LocalDirectory& target_);
  void Refuse(int inbox_, const std::string& name_, const std::string& why_);

  InboxSettings settings;
  std::function<double()> now;
  std::function<void(const std::string&)> report;
  std::map<std::string, File> files;  // By name.
  std::string trouble;                // The last one that was reported; empty: there is none.
  unsigned counter = 0;
};

void Inbox::Impl::Look() {
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(settings.path.c_str()), closedir);
  if (!listing) {
    throw Format("cannot open %s: %s", settings.path.c_str(), strerror(errno));
  }
  const std::vector<std::string> names = Settled(listing.get());
  if (names.empty()) {
    return;
  }
  const std::unique_ptr<const LocalDirectory> target = Target();
  for (const std::string& name : names) {
    Handle(dirfd(listing.get()), name, *target);
  }
}

// The names of complete files, the oldest first. Forgets files that are gone.
std::vector<std::string> Inbox::Impl::Settled(DIR* listing_) {
  std::vector<std::tuple<time_t, long, std::string>> settled;
  std::map<std::string, File> found;
  while (const dirent* entry = readdir(listing_)) {
    const std::string name = entry->d_name;
    struct stat status = {};
    if (name[0] == '.' || name == kRefused ||
        fstatat(dirfd(listing_), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    const auto known = files.find(name);
    const bool is_same = known != files.end() && known->second.version == VersionOf(status);
    const File& file = found[name] = is_same ? known->second : File{VersionOf(status), now()};
    if (!file.is_done && now() - file.since >= settings.settle_seconds) {
      settled.emplace_back(status.st_mtim.tv_sec, status.st_mtim.tv_nsec, name);
    }
  }
  files = std::move(found);
  std::sort(settled.begin(), settled.end());
  std::vector<std::string> names;
  names.reserve(settled.size());
  for (const auto& [seconds, nanoseconds, name] : settled) {
    names.push_back(name);
  }
  return names;
}

// Reads the configuration each time, as it may change.
std::unique_ptr<const LocalDirectory> Inbox::Impl::Target() const {
  const std::string& id = settings.directory_id;
  const std::unique_ptr<XMLElement> root = LoadXMLTree(settings.config_path, "tts-config");
  const XMLElement* directory = FindById(*root, "directory", id);
  if (directory == nullptr || directory->GetAttributeString("type", "") != "local") {
    throw Format("no local directory \"%s\" in %s", id.c_str(), settings.config_path.c_str());
  }
  auto target = std::make_unique<const LocalDirectory>(*directory);
  if (target->path.empty() || !IsEncoding(target->encoding)) {
    throw Format("directory \"%s\" has no path or no usable encoding", id.c_str());
  }
  // A daemon that starts later would remove the message.
  if (!settings.status_path.empty() &&
      FindById(*ReadStatus(settings.status_path), "directory", id) == nullptr) {
    throw Format("the daemon that writes %s does not have directory \"%s\"",
                 settings.status_path.c_str(), id.c_str());
  }
  return target;
}

void Inbox::Impl::Handle(int inbox_, const std::string& name_, const LocalDirectory& target_) {
  std::string bytes;
  try {
    bytes = ReadMessage(inbox_, name_, target_);
  } catch (const Refusal& refusal) {
    Refuse(inbox_, name_, refusal.why);
    return;
  }
  if (!bytes.empty()) {
    HandOver(inbox_, name_, bytes, target_);
  }
}

// The content of a file; empty if it has changed. Opens only regular files, as the opening of a
// device may have an effect.
std::string Inbox::Impl::ReadMessage(int inbox_, const std::string& name_,
                                     const LocalDirectory& target_) const {
  struct stat status = {};
  if (fstatat(inbox_, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return "";
  }
  if (!S_ISREG(status.st_mode)) {
    throw Refusal{S_ISLNK(status.st_mode) ? "it is a symbolic link" : "it is not a regular file"};
  }
  const Descriptor file(
      openat(inbox_, name_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (file.fd < 0) {
    throw Refusal{strerror(errno)};
  }
  std::string bytes = ReadAll(file.fd);
  if (fstat(file.fd, &status) != 0 || VersionOf(status) != files.at(name_).version) {
    return "";
  }
  const std::string why = WhyNoMessage(bytes, target_.encoding, target_.IsXml());
  if (!why.empty()) {
    throw Refusal{why};
  }
  return bytes;
}

void Inbox::Impl::HandOver(int inbox_, const std::string& name_, const std::string& bytes_,
                           const LocalDirectory& target_) {
  HiddenFile message(target_.path);
  message.Write(bytes_);
  message.Publish(MessageName("inbox") + Format("-%u-", counter++) + SafeCharacters(name_));
  files.at(name_).is_done = true;  // If it cannot be removed, it must not be handed over again.
  if (unlinkat(inbox_, name_.c_str(), 0) != 0 && errno != ENOENT) {
    report(name_ + ": handed over, but cannot be removed: " + strerror(errno));
  }
}

void Inbox::Impl::Refuse(int inbox_, const std::string& name_, const std::string& why_) {
  files.at(name_).is_done = true;
  std::string place = std::string(kRefused) + "/" + name_;
  if (mkdirat(inbox_, kRefused, 0777) == 0 || errno == EEXIST) {
    struct stat status = {};
    if (fstatat(inbox_, place.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
      place = std::string(kRefused) + "/" + MessageName("again") + Format("-%u-", counter++) +
              SafeCharacters(name_);  // "refused" has an earlier file of that name.
    }
    if (renameat(inbox_, name_.c_str(), inbox_, place.c_str()) == 0) {
      report(name_ + ": refused: " + why_ + "; it is now " + place);
      return;
    }
  }
  report(name_ + ": refused: " + why_ + "; it cannot be moved: " + strerror(errno));
}

Inbox::Inbox(const InboxSettings& settings_, std::function<double()> now_,
             std::function<void(const std::string&)> report_)
    : impl(std::make_unique<Impl>()) {
  impl->settings = settings_;
  impl->now = std::move(now_);
  impl->report = std::move(report_);
}

Inbox::~Inbox() = default;

void Inbox::Look() {
  std::string trouble;
  try {
    impl->Look();
  } catch (const std::string& why) {
    trouble = why;
  }
  if (trouble != impl->trouble) {
    impl->report(trouble.empty() ? "it works again" : "files wait: " + trouble);
    impl->trouble = trouble;
  }
}

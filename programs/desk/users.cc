#include "users.h"

#include <crypt.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include "debug.h"
#include "format.h"
#include "forms.h"
#include "sessions.h"
#include "statusfile.h"

namespace {

constexpr Role kRoles[] = {Role::kLook, Role::kSay, Role::kOperate};
constexpr const char* kRoleNames[] = {"look", "say", "operate"};

constexpr char kMethod[] = "$y$";
constexpr unsigned long kCost = 3;  // 4 MB for each hash.

// The hash of no password; it is checked for unknown users while the file has no users.
constexpr char kNobody[] = "$y$j7T$......................$";

struct Line {
  std::string name;
  User user;
};

bool IsUserName(const std::string& name_) {
  return !name_.empty() && name_.size() <= kMaxUserName && IsCleanText(name_, false) &&
         name_.find(':') == std::string::npos && name_.front() != ' ' && name_.back() != ' ' &&
         name_.front() != '#';
}

// Nothing if the line is empty or a comment. Throws a string if it is wrong.
std::optional<Line> ParseLine(const std::string& line_) {
  if (line_.empty() || line_[0] == '#') {
    return std::nullopt;
  }
  const size_t role = line_.find(':');
  const size_t hash = role == std::string::npos ? role : line_.find(':', role + 1);
  if (hash == std::string::npos) {
    throw std::string("not of the form NAME:ROLE:HASH");
  }
  Line line;
  line.name = line_.substr(0, role);
  line.user.role = RoleOf(line_.substr(role + 1, hash - role - 1));
  line.user.hash = line_.substr(hash + 1);
  if (!IsUserName(line.name)) {
    throw std::string("no usable name");
  }
  if (crypt_checksalt(line.user.hash.c_str()) != CRYPT_SALT_OK) {
    throw std::string("no usable hash");
  }
  return line;
}

std::vector<std::string> SplitLines(const std::string& text_) {
  std::vector<std::string> lines;
  std::istringstream stream(text_);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

// The hash of a password; empty if it cannot be computed.
std::string Hashed(const std::string& password_, const std::string& setting_) {
  // On the heap: its 32 KB are too much for some stacks.
  const auto data = std::make_unique<crypt_data>();
  const char* hash = crypt_rn(password_.c_str(), setting_.c_str(), data.get(), sizeof(crypt_data));
  std::string text = hash == nullptr ? "" : hash;
  explicit_bzero(data.get(), sizeof(crypt_data));
  return text;
}

std::string NewHash(const std::string& password_) {
  char setting[CRYPT_GENSALT_OUTPUT_SIZE];
  if (crypt_gensalt_rn(kMethod, kCost, nullptr, 0, setting, sizeof(setting)) == nullptr) {
    throw Format("cannot hash the password: %s", strerror(errno));
  }
  std::string hash = Hashed(password_, setting);
  if (hash.empty()) {
    throw Format("cannot hash the password: %s", strerror(errno));
  }
  return hash;
}

void CheckPassword(const std::string& password_) {
  if (password_.size() < kMinPassword || password_.size() > kMaxPassword) {
    throw Format("a password must have %zu to %zu bytes", kMinPassword, kMaxPassword);
  }
  if (!IsCleanText(password_, false)) {
    throw std::string("a password must be UTF-8 without control characters");
  }
}

// A new file that is to replace another. The destructor removes it unless it has replaced it.
class Replacement {
 public:
  explicit Replacement(const std::string& path_) : path(path_), temporary(path_ + ".XXXXXX") {
    fd = mkostemp(temporary.data(), O_CLOEXEC);
    Require(fd >= 0);
  }
  ~Replacement() {
    if (fd >= 0) {
      close(fd);
      unlink(temporary.c_str());
    }
  }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

  void TakeModeOfOld(const struct stat& old_) {
    Require(fchown(fd, old_.st_uid, old_.st_gid) == 0 && fchmod(fd, old_.st_mode & 07777) == 0);
  }

  void LetGroupRead(gid_t group_) {
    Require(fchown(fd, static_cast<uid_t>(-1), group_) == 0 && fchmod(fd, 0640) == 0);
  }

  void Finish(const std::string& text_) {
    Require(WriteWhole(fd, text_.data(), text_.size()) && fsync(fd) == 0);
    Require(rename(temporary.c_str(), path.c_str()) == 0);
    close(std::exchange(fd, -1));
  }

 private:
  void Require(bool is_ok_) const {
    if (!is_ok_) {
      throw Format("%s: %s", path.c_str(), strerror(errno));
    }
  }

  std::string path;
  std::string temporary;
  int fd = -1;
};

void WriteUsers(const std::string& path_, const std::string& text_, const char* group_) {
  Replacement file(path_);
  struct stat old {};
  if (stat(path_.c_str(), &old) == 0) {
    file.TakeModeOfOld(old);
  } else if (const group* const found = geteuid() == 0 ? getgrnam(group_) : nullptr) {
    file.LetGroupRead(found->gr_gid);
  }
  file.Finish(text_);
}

}  // namespace

const char* NameOf(Role role_) { return kRoleNames[static_cast<int>(role_)]; }

Role RoleOf(const std::string& name_) {
  for (const Role role : kRoles) {
    if (name_ == NameOf(role)) {
      return role;
    }
  }
  throw "no role \"" + name_ + "\"; there are look, say and operate";
}

Users::Users(const std::string& path_) : path(path_) {}

const User* Users::Find(const std::string& name_) {
  Refresh();
  const auto found = users.find(name_);
  return found == users.end() ? nullptr : &found->second;
}

bool Users::IsPassword(const std::string& name_, const std::string& password_) {
  const User* const user = Find(name_);
  const std::string other = users.empty() ? kNobody : users.begin()->second.hash;
  const std::string& hash = user == nullptr ? other : user->hash;
  const bool is_same = IsSameSecret(Hashed(password_.substr(0, kMaxPassword), hash), hash);
  return is_same && user != nullptr && password_.size() <= kMaxPassword;
}

// Reads the file if it was replaced or changed since the last look.
void Users::Refresh() {
  struct stat now {};
  if (stat(path.c_str(), &now) != 0) {
    now = {};
  }
  const bool is_same = now.st_ino == seen.st_ino && now.st_dev == seen.st_dev &&
                       now.st_size == seen.st_size && now.st_mtim.tv_sec == seen.st_mtim.tv_sec &&
                       now.st_mtim.tv_nsec == seen.st_mtim.tv_nsec;
  if (!is_same || (now.st_ino == 0 && !is_missing)) {
    seen = now;
    users.clear();
    is_missing = now.st_ino == 0;
    Read();
  }
}

void Users::Read() {
  std::string text;
  try {
    text = ReadWhole(path);
  } catch (const std::string& why) {
    Debug(kDebugNormal, "Nobody can log in: %s", why.c_str());
    return;
  }
  int number = 0;
  for (const std::string& text_of_line : SplitLines(text)) {
    ++number;
    try {
      if (std::optional<Line> line = ParseLine(text_of_line)) {
        users[line->name] = line->user;
      }
    } catch (const std::string& why) {
      Debug(kDebugNormal, "%s, line %d: %s", path.c_str(), number, why.c_str());
    }
  }
}

void AddUser(const std::string& path_, const std::string& name_, const std::string& password_,
             const Role* role_, const char* group_) {
  if (!IsUserName(name_)) {
    throw "\"" + name_ + "\" cannot be the name of a user";
  }
  CheckPassword(password_);
  Role role = role_ == nullptr ? Role::kSay : *role_;
  std::string text;
  if (access(path_.c_str(), F_OK) == 0) {
    for (const std::string& line : SplitLines(ReadWhole(path_))) {
      if (line.compare(0, name_.size() + 1, name_ + ":") != 0) {
        text += line + "\n";
      } else if (role_ == nullptr) {
        role = ParseLine(line)->user.role;
      }
    }
  }
  text += name_ + ":" + NameOf(role) + ":" + NewHash(password_) + "\n";
  WriteUsers(path_, text, group_);
}

#include "paths.h"

#include <errno.h>
#include <limits.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace {

// The path without links, "." and ".."; all names but the last must exist.
std::string RealPath(const std::string& path_) {
  char resolved[PATH_MAX];
  if (realpath(path_.c_str(), resolved) != nullptr) {
    return resolved;
  }
  std::string plain = path_.substr(0, path_.find_last_not_of('/') + 1);
  const size_t slash = plain.rfind('/');
  if (slash != std::string::npos && slash > 0 &&
      realpath(plain.substr(0, slash).c_str(), resolved) != nullptr) {
    return resolved + plain.substr(slash);
  }
  return plain;
}

bool IsBelow(const std::string& path_, const std::string& directory_) {
  return path_.size() > directory_.size() && path_.compare(0, directory_.size(), directory_) == 0 &&
         path_[directory_.size()] == '/';
}

// The users by their home directories.
std::map<std::string, std::string> UsersAtHome() {
  std::map<std::string, std::string> users;
  setpwent();
  while (const passwd* user = getpwent()) {
    users.emplace(RealPath(user->pw_dir), user->pw_name);
  }
  endpwent();
  return users;
}

// Why the files in that directory must not be removed; empty if no reason is known.
std::string WhyPrecious(const std::string& real_,
                        const std::map<std::string, std::string>& users_at_home_) {
  static const char* const kSystemTrees[] = {"/bin",     "/boot",     "/etc",       "/lib",
                                             "/proc",    "/sbin",     "/sys",       "/usr/bin",
                                             "/usr/lib", "/usr/sbin", "/usr/share", "/usr/include"};
  static const char* const kSharedPlaces[] = {
      "/",     "/dev",     "/dev/shm",  "/home",      "/media",   "/mnt",      "/opt",
      "/root", "/run",     "/run/lock", "/srv",       "/tmp",     "/usr",      "/usr/local",
      "/var",  "/var/lib", "/var/log",  "/var/spool", "/var/tmp", "/var/cache"};
  for (const char* tree : kSystemTrees) {
    if (real_ == tree || IsBelow(real_, tree)) {
      return "it belongs to the system";
    }
  }
  for (const char* place : kSharedPlaces) {
    if (real_ == place) {
      return "other programs keep files there";
    }
  }
  const auto user = users_at_home_.find(real_);
  return user == users_at_home_.end() ? "" : "it is the home directory of " + user->second;
}

bool IsInput(const std::string& role_) {
  return role_ == kPath || role_ == kSubdir || role_ == kAboveSubdir;
}

// True if the one directory must not be in the other. The daemon ignores inner directories, but
// people may mix up the files of both.
bool MustBeApart(const std::string& outer_role_, const std::string& inner_role_) {
  const bool are_inputs =
      IsInput(outer_role_) && IsInput(inner_role_) && outer_role_ != kAboveSubdir;
  return are_inputs || (outer_role_ == kOutput) != (inner_role_ == kOutput);
}

}  // namespace

std::string ParentOf(const std::string& path_) {
  const size_t slash = path_.rfind('/');
  return slash == std::string::npos ? "." : path_.substr(0, std::max<size_t>(slash, 1));
}

std::string WhyUnusable(const std::string& path_) {
  struct stat status = {};
  if (stat(path_.c_str(), &status) != 0) {
    return strerror(errno);
  }
  if (!S_ISDIR(status.st_mode)) {
    return "not a directory";
  }
  if (access(path_.c_str(), R_OK | W_OK | X_OK) != 0) {
    return "not readable and writable";
  }
  return "";
}

std::string RemedyForDirectory(const std::string& path_) {
  const std::string real = RealPath(path_);
  const auto is_in = [&](const char* place_) { return real == place_ || IsBelow(real, place_); };
  const bool is_service = getenv("INVOCATION_ID") != nullptr;  // systemd sets it.
  if (!is_service || is_in("/run/vocastra") || is_in("/var/spool/vocastra")) {
    return "Create the directory for the daemon's user";
  }
  return "Use a directory below /var/spool/vocastra; or create it for the daemon's user, and let "
         "the "
         "service write there, by \"systemctl edit vocastra\" with the lines [Service] and "
         "ReadWritePaths=" +
         path_;
}

std::string WhyNotExecutable(const std::string& path_) {
  struct stat status = {};
  if (stat(path_.c_str(), &status) != 0) {
    return strerror(errno);
  }
  return S_ISREG(status.st_mode) && access(path_.c_str(), X_OK) == 0 ? "" : "not executable";
}

std::string ShellCharacters(const std::string& value_, bool may_be_words_) {
  std::string found;
  for (const char c : value_) {
    const bool is_read = strchr("\"'$;&|<>()`*?[]#~!\\\r\n", c) != nullptr;
    const bool is_blank = c == ' ' || c == '\t';
    if (c != '\0' && (is_read || (is_blank && !may_be_words_)) &&
        found.find(c) == std::string::npos) {
      found += c;
    }
  }
  return found;
}

std::string Described(const std::string& characters_) {
  std::string text;
  for (const char c : characters_) {
    text += text.empty() ? "" : " ";
    text += c == ' '                 ? "blank"
            : c == '\t'              ? "tab"
            : c == '\n' || c == '\r' ? "line end"
                                     : std::string(1, c);
  }
  return text;
}

std::string ThroughShell(const std::string& name_, const std::string& characters_) {
  return name_ + " goes through the shell, which reads " + Described(characters_);
}

void PathUses::AddDirectory(const Place& place_, const std::string& role_,
                            const std::string& path_) {
  directories.push_back({directories.size(), place_, role_, path_, RealPath(path_)});
}

void PathUses::AddFile(const Place& place_, const std::string& role_, const std::string& path_) {
  files.push_back({files.size(), place_, role_, path_, RealPath(path_)});
}

void PathUses::Check(Findings& findings_) const {
  const std::map<std::string, std::string> users_at_home = UsersAtHome();
  Groups files_in;
  for (const Use& file : files) {
    files_in[ParentOf(file.real)].push_back(&file);
  }
  Groups groups;
  for (const Use& directory : directories) {
    const std::string why = WhyPrecious(directory.real, users_at_home);
    if (!why.empty()) {
      findings_.Error(directory.place,
                      directory.role + " " + Quoted(directory.path) + " is emptied, but " + why,
                      "Use a directory of its own");
    }
    std::vector<const Use*>& group = groups[directory.real];
    for (const Use* first : group) {
      CheckSame(*first, directory, findings_);
    }
    for (const Use* file : group.empty() ? files_in[directory.real] : std::vector<const Use*>()) {
      findings_.Error(file->place,
                      file->role + " " + Quoted(file->path) + " is in the " + directory.role +
                          " of " + directory.place.item + ", where files are taken or removed",
                      "Move it elsewhere");
    }
    if (!HasRole(group, directory.role)) {
      group.push_back(&directory);
    }
  }
  for (const Use& directory : directories) {
    CheckAbove(directory, groups, findings_);
  }
}

bool PathUses::HasRole(const std::vector<const Use*>& uses_, const std::string& role_) {
  return std::any_of(uses_.begin(), uses_.end(),
                     [&](const Use* use_) { return use_->role == role_; });
}

// Finds the nearest directory that must not contain inner_.
void PathUses::CheckAbove(const Use& inner_, const Groups& groups_, Findings& findings_) {
  for (std::string path = inner_.real; path.find('/') != std::string::npos && path != "/";) {
    path = ParentOf(path);
    const auto group = groups_.find(path);
    if (group == groups_.end()) {
      continue;
    }
    const std::vector<const Use*>& outers = group->second;
    if (inner_.role == kSubdir && HasRole(outers, kAboveSubdir)) {
      return;  // Directories around this one are found for it, too.
    }
    const auto outer = std::find_if(outers.begin(), outers.end(), [&](const Use* use_) {
      return MustBeApart(use_->role, inner_.role);
    });
    if (outer != outers.end()) {
      const Use& first = (*outer)->number < inner_.number ? **outer : inner_;
      const Use& second = (*outer)->number < inner_.number ? inner_ : **outer;
      findings_.Warning(second.place,
                        second.role + " " + Quoted(second.path) + " and the " + first.role + " " +
                            Quoted(first.path) + " of " + first.place.item +
                            " are one inside the other",
                        "Use separate directories");
      return;
    }
  }
}

void PathUses::CheckSame(const Use& first_, const Use& second_, Findings& findings_) {
  const bool is_same_role = first_.role == second_.role;
  const std::string name = second_.role + " " + Quoted(second_.path);
  if (is_same_role && first_.role == kAboveSubdir) {
    return;
  }
  if (is_same_role && first_.role == kLastPlayed) {
    findings_.Warning(
        second_.place,
        name + " is also that of " + first_.place.item + ": each removes the other's copies",
        "Make sure that this is meant");
    return;
  }
  findings_.Error(second_.place,
                  name + " is also the " + first_.role + " of " + first_.place.item +
                      ": each takes or removes the other's files",
                  "Use a directory of its own");
}

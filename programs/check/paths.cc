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

// Without links, "." and "..", if the path exists up to its last name.
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

// The user whose home directory that is; empty if there is none.
std::string UserAtHomeIn(const std::string& real_) {
  std::string name;
  setpwent();
  while (const passwd* user = getpwent()) {
    if (RealPath(user->pw_dir) == real_) {
      name = user->pw_name;
      break;
    }
  }
  endpwent();
  return name;
}

// Why the files in that directory must not be removed; empty if nothing is known against it.
std::string WhyPrecious(const std::string& real_) {
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
  const std::string user = UserAtHomeIn(real_);
  return user.empty() ? "" : "it is the home directory of " + user;
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
  directories.push_back({place_, role_, path_, RealPath(path_)});
}

void PathUses::AddFile(const Place& place_, const std::string& role_, const std::string& path_) {
  files.push_back({place_, role_, path_, RealPath(path_)});
}

void PathUses::Check(Findings& findings_) const {
  for (size_t i = 0; i < directories.size(); ++i) {
    const Use& directory = directories[i];
    const std::string why = WhyPrecious(directory.real);
    if (!why.empty()) {
      findings_.Error(directory.place,
                      directory.role + " " + Quoted(directory.path) + " is emptied, but " + why,
                      "Use a directory of its own");
    }
    for (size_t j = 0; j < i; ++j) {
      CheckPair(directories[j], directory, findings_);
    }
    for (const Use& file : files) {
      if (ParentOf(file.real) == directory.real) {
        findings_.Error(file.place,
                        file.role + " " + Quoted(file.path) + " lies in the " + directory.role +
                            " of " + directory.place.item + ", where files are taken or removed",
                        "Move it elsewhere");
      }
    }
  }
}

// The daemon ignores subdirectories and never removes them, so one directory inside another needs a
// warning only if one of them is the output directory.
void PathUses::CheckPair(const Use& first_, const Use& second_, Findings& findings_) {
  if (first_.real == second_.real) {
    CheckSame(first_, second_, findings_);
  } else if ((first_.role == kOutput) != (second_.role == kOutput) &&
             (IsBelow(first_.real, second_.real) || IsBelow(second_.real, first_.real))) {
    findings_.Warning(second_.place,
                      second_.role + " " + Quoted(second_.path) + " and the " + first_.role + " " +
                          Quoted(first_.path) + " of " + first_.place.item +
                          " lie one inside the other",
                      "Keep them apart");
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

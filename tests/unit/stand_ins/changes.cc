#include "stand_ins/changes.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <unistd.h>

#include <map>

#include "descriptor.h"
#include "stand_ins/real.h"

using stand_ins::Real;

namespace {

std::map<std::string, std::vector<std::string>> unlocked;  // By directory, without trailing slash.

bool IsLocked(const std::string& directory_) {
  const Descriptor directory(open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return flock(directory.fd, LOCK_EX | LOCK_NB) != 0;
}

void Note(const std::string& path_) {
  const size_t slash = path_.rfind('/');
  const std::string directory = path_.substr(0, slash);
  const std::string name = path_.substr(slash + 1);
  if (name[0] != '.' && !IsLocked(directory)) {
    unlocked[directory].push_back(name);
  }
}

}  // namespace

std::vector<std::string> stand_ins::UnlockedChanges(const std::string& directory_) {
  const size_t end = directory_.find_last_not_of('/');
  return unlocked[directory_.substr(0, end + 1)];
}

int rename(const char* from_, const char* to_) noexcept {
  Note(from_);
  Note(to_);
  return Real<int(const char*, const char*)>("rename")(from_, to_);
}

int link(const char* from_, const char* to_) noexcept {
  Note(to_);
  return Real<int(const char*, const char*)>("link")(from_, to_);
}

int unlink(const char* path_) noexcept {
  Note(path_);
  return Real<int(const char*)>("unlink")(path_);
}

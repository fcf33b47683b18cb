#include "localfile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "format.h"

namespace {

constexpr mode_t kMode = 0644;

}  // namespace

LocalFile::LocalFile(const std::string& path_, int flags_)
    : path(path_), fd(open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags_, kMode)) {
  if (fd < 0) {
    throw LocalTrouble{strerror(errno)};
  }
  struct stat status {};
  if (fstat(fd, &status) != 0 || (status.st_mode & ALLPERMS) != kMode) {
    fchmod(fd, kMode);
  }
}

LocalFile::~LocalFile() { close(fd); }

void LocalFile::Write(const char* data_, size_t size_) {
  if (!WriteWhole(fd, data_, size_)) {
    throw LocalTrouble{strerror(errno)};
  }
}

void LocalFile::Rename(const std::string& path_) {
  if (rename(path.c_str(), path_.c_str()) != 0) {
    throw LocalTrouble{strerror(errno)};
  }
  path = path_;
}

bool LocalFile::Exchange(const std::string& path_) {
  if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, path_.c_str(), RENAME_EXCHANGE) != 0) {
    return false;
  }
  path = path_;
  return true;
}

bool LocalFile::IsInPlace() const {
  struct stat mine {};
  struct stat there {};
  if (stat(path.c_str(), &there) != 0) {
    return errno != ENOENT && errno != ENOTDIR;
  }
  return fstat(fd, &mine) != 0 || (mine.st_dev == there.st_dev && mine.st_ino == there.st_ino);
}

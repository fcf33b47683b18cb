#include "hiddenfile.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "format.h"
#include "listinglock.h"

namespace {

constexpr mode_t kMessageMode = 0644;  // Independent of the umask: the daemon must read it.

// Who may write to the directory, as advice in an error text; empty if that does not help.
std::string Advice(const std::string& directory_) {
  struct stat status = {};
  if (stat(directory_.c_str(), &status) != 0 || (status.st_mode & S_IWGRP) == 0) {
    return "";
  }
  const group* const owner = getgrgid(status.st_gid);
  return owner == nullptr ? "" : Format("; members of the group \"%s\" may", owner->gr_name);
}

}  // namespace

HiddenFile::HiddenFile(const std::string& directory_)
    : directory(directory_), file_path(directory_ + ".message-XXXXXX") {
  fd = mkostemp(file_path.data(), O_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    throw Format("cannot write to %s: %s%s", directory_.c_str(), strerror(error),
                 error == EACCES ? Advice(directory_).c_str() : "");
  }
}

HiddenFile::~HiddenFile() {
  Close();
  if (!is_published) {
    unlink(file_path.c_str());
  }
}

void HiddenFile::Write(const std::string& bytes_) {
  size_t written = 0;
  while (written < bytes_.size()) {
    const ssize_t count = write(fd, bytes_.data() + written, bytes_.size() - written);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    Require(count > 0);
    written += static_cast<size_t>(count);
  }
  Require(fchmod(fd, kMessageMode) == 0);
  Require(Close() == 0);
}

void HiddenFile::Publish(const std::string& name_) {
  const ListingLock lock(directory);
  Require(rename(file_path.c_str(), (directory + name_).c_str()) == 0);
  is_published = true;
}

int HiddenFile::Close() {
  const int result = fd < 0 ? 0 : close(fd);
  fd = -1;
  return result;
}

void HiddenFile::Require(bool is_ok_) const {
  if (!is_ok_) {
    throw Format("cannot write %s: %s", file_path.c_str(), strerror(errno));
  }
}

std::string MessageName(const std::string& source_) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc = {};
  gmtime_r(&now.tv_sec, &utc);
  return Format("%s-%04d%02d%02d-%02d%02d%02d-%09ld-%d", source_.c_str(), utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                static_cast<long>(now.tv_nsec), static_cast<int>(getpid()));
}

// A directory on a server as the mirror sees it. One implementation for each library that speaks
// the server's protocols.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>

// A regular file of a listing.
struct RemoteFile {
  std::string name;
  uint64_t size = 0;  // Bytes.
  // The time of its last change, as in this listing. Equal texts mean an unchanged file; some
  // listings round to minutes and change their format with the file's age, so that different texts
  // can still mean the same time.
  std::string stamp;
  bool is_rounded = false;  // The stamp does not distinguish times within the same minute.
  bool is_bare = false;     // The listing has no size and time.
};

// The server refuses the login, or the client refuses the server's certificate or host key: trying
// again at once makes no sense, and could lock the account.
struct Refused {
  std::string reason;
};

// The library does not return from a call, or cannot go on: the process must end.
struct Stuck {
  std::string reason;
};

// The first call that needs a session opens it, and it is kept. A call after a failure opens a new
// one. Every call throws a string with the reason when it fails, in one line without the name of
// the server or the file, or Refused or Stuck.
//
// An implementation calls its go_on function at least once a second while it waits for the server,
// and throws soon after that function has returned false.
class Remote {
 public:
  virtual ~Remote() = default;

  // Calls take_ for each regular file, whatever its name. take_ may throw, which ends the listing.
  virtual void List(const std::function<void(const RemoteFile&)>& take_) = 0;

  // The exact time of a listed file's last change. Equal texts, in any two sessions, mean the same
  // time.
  virtual std::string Time(const RemoteFile& file_) = 0;

  // Passes the bytes of a file from offset_ on to take_, piece by piece. take_ may throw.
  virtual void Fetch(const std::string& name_, uint64_t offset_,
                     const std::function<void(const char*, size_t)>& take_) = 0;

  virtual void Delete(const std::string& name_) = 0;
};

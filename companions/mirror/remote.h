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
  // When it was changed last, as this listing tells it. Equal texts mean an unchanged file; some
  // listings round to minutes and change their format with the file's age, so that different texts
  // can still mean the same time.
  std::string stamp;
  bool is_rounded = false;  // The stamp does not tell times within the same minute apart.
  bool is_bare = false;     // The listing does not tell size and time.
};

// The server refuses the login, or the client refuses the server's certificate or host key: trying
// again at once makes no sense, and could lock the account.
struct Refused {
  std::string reason;
};

// The library does not come back from a call, or must not go on: the process has to end.
struct Stuck {
  std::string reason;
};

// The session is opened by the first call that needs it and kept; a call after a failure opens a
// new one. Every call throws a string with the reason when it fails, in one line without the name
// of the server or the file, or Refused or Stuck.
//
// An implementation calls its go_on function at least once a second while it waits for the server,
// and ends the call with a throw soon after that returned false.
class Remote {
 public:
  virtual ~Remote() = default;

  // Calls take_ for each regular file, whatever its name. take_ may throw, which ends the listing.
  virtual void List(const std::function<void(const RemoteFile&)>& take_) = 0;

  // The exact time of a listed file's last change. Equal texts, in any two sessions, mean the same
  // time.
  virtual std::string Time(const RemoteFile& file_) = 0;

  // Hands the bytes of a file from offset_ on to take_, piece by piece. take_ may throw.
  virtual void Fetch(const std::string& name_, uint64_t offset_,
                     const std::function<void(const char*, size_t)>& take_) = 0;

  virtual void Delete(const std::string& name_) = 0;
};

// SMB by libsmbclient.
#pragma once

#include <stddef.h>

#include <functional>
#include <memory>
#include <string>

#include "clock.h"
#include "place.h"
#include "remote.h"

// Keeps one session. The server has 5 seconds for each answer.
//
// The library blocks, so it runs in a thread of its own, while the caller's thread calls go_on. If
// a call is ended early, that thread finishes its request. The next call waits for that, and throws
// Stuck if the request takes longer than 90 seconds in all.
//
// Does not read the machine's smb.conf or the user's, and does not use Kerberos.
class SmbRemote : public Remote {
 public:
  // now_: seconds from an arbitrary start.
  SmbRemote(const SmbPlace& place_, std::function<bool()> go_on_,
            std::function<double()> now_ = Now);
  // Does not wait for the server. If the thread still has a request, it goes on, and the process
  // should end by _exit.
  ~SmbRemote() override;

  SmbRemote(const SmbRemote&) = delete;
  SmbRemote& operator=(const SmbRemote&) = delete;

  void List(const std::function<void(const RemoteFile&)>& take_) override;
  std::string Time(const RemoteFile& file_) override;
  void Fetch(const std::string& name_, uint64_t offset_,
             const std::function<void(const char*, size_t)>& take_) override;
  void Delete(const std::string& name_) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

// Limits the memory of this process to its present memory and bytes_ more. The library keeps a
// whole listing in memory. With the limit, an endless listing fails before the machine's memory is
// used up.
void LimitMemory(size_t bytes_);

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
// The library blocks, so it runs in a thread of its own while the caller's calls go_on. A call that
// is ended early leaves that thread with its request; the next call waits until it is through, and
// throws Stuck if that takes longer than 90 seconds in all.
//
// Neither the machine's smb.conf nor one of the user is read, and Kerberos is not used.
class SmbRemote : public Remote {
 public:
  // now_: seconds from an arbitrary start.
  SmbRemote(const SmbPlace& place_, std::function<bool()> go_on_,
            std::function<double()> now_ = Now);
  // Does not wait for the server. If the thread still has a request it is left alone: the process
  // should end by _exit then.
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

// Limits what this process may take to what it has and so many bytes more. The library reads a
// listing whole, and one without end shall fail before the machine's memory is used up.
void LimitMemory(size_t bytes_);

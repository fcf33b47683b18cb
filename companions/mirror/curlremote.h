// FTP, FTP with TLS, and SFTP by libcurl.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "place.h"
#include "remote.h"

// Keeps one session while it is used at least every two minutes. Limits: 5 seconds to open a
// session and for each answer of an FTP server, 10 seconds without any byte, 60 seconds for a call.
//
// Does not use ~/.netrc, ~/.ssh, an SSH agent or the environment's proxies. Always checks
// certificates and host keys.
class CurlRemote : public Remote {
 public:
  CurlRemote(const FtpPlace& place_, std::function<bool()> go_on_);
  // Does not wait for the server.
  ~CurlRemote() override;

  CurlRemote(const CurlRemote&) = delete;
  CurlRemote& operator=(const CurlRemote&) = delete;

  void List(const std::function<void(const RemoteFile&)>& take_) override;
  std::string Time(const RemoteFile& file_) override;
  void Fetch(const std::string& name_, uint64_t offset_,
             const std::function<void(const char*, size_t)>& take_) override;
  void Delete(const std::string& name_) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

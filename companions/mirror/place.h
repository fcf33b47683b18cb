// A directory on a server, as the helpers' arguments name it.
#pragma once

#include <string>

// What libcurl speaks.
enum class FtpKind {
  kFtp,
  kFtps,   // TLS from the start.
  kFtpes,  // TLS by the command AUTH.
  kSftp,
};

struct FtpPlace {
  FtpKind kind = FtpKind::kFtp;
  std::string host;       // A name or an address; one of IPv6 is in brackets.
  int port = 0;           // 0: that of the protocol.
  std::string directory;  // Relative to that of the login unless it begins with "/"; may be empty.
  std::string user;       // Empty: anonymous.
  std::string password;   // With a key file: that of the key.
  bool is_active = false;
  std::string ca_file;      // Empty: the certificates of the system.
  std::string known_hosts;  // SFTP only.
  std::string key_file;     // SFTP only; empty: log in with the password.
};

struct SmbPlace {
  std::string host;
  int port = 0;  // 0: that of the protocol.
  std::string share;
  std::string directory;  // Below the share; may be empty.
  std::string user;       // Empty: a guest.
  std::string password;
  std::string domain;  // May be empty.
  // Names of protocol versions as the library knows them.
  std::string oldest = "SMB2_02";
  std::string newest = "SMB3";
};

// A path as it is written in a URL: slashes and bytes that need no escape stay.
std::string EscapedPath(const std::string& path_);

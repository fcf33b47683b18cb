// A directory on a server, as the attributes of a remote input directory name it and the helpers
// understand it: see vocastra-helpers(1).
#pragma once

#include <optional>
#include <string>

// The attributes of the element "directory".
struct RemoteAttributes {
  std::string path;
  std::string subdir;
  std::string username;
  std::string password;
  std::string options;  // "ftp-mode" or "mount-opts".
};

// The protocols of libcurl.
enum class FtpKind {
  kFtp,
  kFtps,   // TLS from the start.
  kFtpes,  // TLS by the command AUTH.
  kSftp,
};

struct FtpPlace {
  FtpKind kind = FtpKind::kFtp;
  std::string host;  // A name or an address; one of IPv6 is in brackets.
  int port = 0;      // 0: that of the protocol.
  // Relative to the login's directory unless it begins with "/"; may be empty.
  std::string directory;
  std::string user;      // Empty: anonymous.
  std::string password;  // With a key file: the key's password.
  bool is_active = false;
  std::string ca_file;      // Empty: the certificates of the system.
  std::string known_hosts;  // SFTP only.
  std::string key_file;     // SFTP only; empty: log in with the password.
  std::optional<int> settle_seconds;
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
  std::optional<int> settle_seconds;
};

// A path as it is written in a URL: slashes and bytes that need no escape stay.
std::string EscapedPath(const std::string& path_);

// The text without the user and the password before the host, for messages.
std::string WithoutLogin(const std::string& path_);

// A directory's path and one below it, joined; either may be empty.
std::string Joined(const std::string& directory_, const std::string& below_);

// The host and the path of a remote directory, as its helper writes them in messages.
std::string RemoteSource(const std::string& path_, const std::string& subdir_);

// Both throw a string if the attributes cannot work. It never holds a value that could be a
// password. It names the attributes as the helpers' usage texts do: PATH, MODE, MOUNT-OPTS.
FtpPlace ReadFtpPlace(const RemoteAttributes& attributes_);
SmbPlace ReadSmbPlace(const RemoteAttributes& attributes_);

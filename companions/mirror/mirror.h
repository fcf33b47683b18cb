// The mirror of a remote input directory: a process that keeps a local directory like a directory
// on a server and proves to the daemon that it is alive.
#pragma once

#include <stdint.h>

#include <functional>
#include <memory>
#include <string>

#include "remote.h"

struct MirrorSettings {
  std::string kind;          // "ftp" or "cifs"; for messages.
  std::string source;        // Host and path, without a password; for messages.
  std::string directory;     // The local directory, which exists.
  bool auto_delete = false;  // Delete remotely what the daemon has taken.
  int poll_seconds = 1;      // From one look at the server to the next.
  // A file is fetched only after two equal looks that are at least that far apart.
  int settle_seconds = 3;
  uint64_t size_limit = 1 << 20;  // Bytes; larger files are not fetched.
};

// Makes the Remote. It is called in the process that works with it.
using MakeRemote = std::function<std::unique_ptr<Remote>(std::function<bool()> go_on_)>;

// Runs the mirror until SIGTERM, SIGHUP or the end of the parent process; SIGINT is ignored.
// Returns the exit status. To be called by the only thread of the process.
int RunMirror(const MirrorSettings& settings_, const MakeRemote& make_remote_);

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
  int poll_seconds = 1;      // Between two looks at the server.
  // A file is fetched if it has not changed between two looks with at least this time between them.
  int settle_seconds = 3;
  uint64_t size_limit = 1 << 20;  // Bytes; larger files are not fetched.
};

// Makes the Remote. To be called in the process that uses it.
using MakeRemote = std::function<std::unique_ptr<Remote>(std::function<bool()> go_on_)>;

// The mirror's work, for one thread and without pauses.
//
// Rules for the files:
//   - The mirror accepts names of the form [A-Za-z0-9_][A-Za-z0-9._+=@-]* of at most 255 bytes, as
//     the daemon passes names to the shell. A refused name is reported once, after two looks have
//     shown it.
//   - A file is delivered when it is settled and was not delivered with that size and time before.
//     It is fetched under a hidden name, and renamed if the size is right and the remote file is
//     still the same. The oldest file comes first. After its turn, a slow file keeps its fetched
//     part and lets the others go first.
//   - The mirror remembers what it delivered (see Known).
//   - A local file is removed and forgotten when two looks in a row do not show it remotely.
//   - With auto_delete, a remote file is deleted when the daemon has taken its local copy, unless
//     it has changed meanwhile.
//   - The heartbeat follows each listing, and continues during transfers. It begins when the first
//     mirror is complete: the daemon treats files that exist by then as old.
//   - A failure is reported once, and the mirror tries again forever.
class Mirror {
 public:
  // now_: seconds from an arbitrary start. Throws LocalTrouble if the local directory cannot be
  // used, and what make_remote_ throws.
  Mirror(const MirrorSettings& settings_, const MakeRemote& make_remote_,
         std::function<double()> now_);
  ~Mirror();

  Mirror(const Mirror&) = delete;
  Mirror& operator=(const Mirror&) = delete;

  // Looks at the server once and does what follows from it. Returns the seconds until the next
  // look.
  double Look();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

// Runs the mirror until SIGTERM, SIGHUP or the end of the parent process; SIGINT is ignored.
// Returns the exit status. To be called by the only thread of the process.
int RunMirror(const MirrorSettings& settings_, const MakeRemote& make_remote_);

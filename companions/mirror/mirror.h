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

// The mirror's work, for one thread and without pauses.
//
// What it does with the files:
//   - Names of the form [A-Za-z0-9_][A-Za-z0-9._+=@-]* are passed on, of at most 255 bytes: the
//     daemon hands names to the shell. Another name that two looks show is reported once.
//   - A file is delivered when it is settled and was not delivered with that size and time before;
//     under a hidden name first, which is renamed if the size is right and the remote file is still
//     the same. The oldest file comes first. A file that takes long waits for its next turn, with
//     what has come of it, and the others come first.
//   - It remembers what it delivered (see Known).
//   - A local file is removed and forgotten when two looks in a row do not show it remotely.
//   - With auto_delete, a remote file is deleted when its local copy is gone, as the daemon took
//   it,
//     unless it has changed meanwhile.
//   - The heartbeat follows each listing, and continues during transfers, but does not begin before
//     the first mirror is complete: what that delivers counts as old in the daemon.
//   - A trouble is reported once and tried again forever.
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

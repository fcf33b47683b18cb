// A directory for producers that cannot rename: its files are handed over to an input directory of
// the daemon once they are complete.
#pragma once

#include <functional>
#include <memory>
#include <string>

struct InboxSettings {
  std::string path;          // The inbox.
  std::string config_path;   // The daemon's configuration.
  std::string directory_id;  // An input directory of type "local".
  std::string
      status_path;         // The daemon's status file; empty: whether the daemon runs is not asked.
  int settle_seconds = 3;  // A file is complete if looks so far apart show the same size and time.
};

// What it does with the files:
//   - Hidden files and the directory "refused" are left alone.
//   - A complete file is copied to the input directory and removed. Those that are found complete
//   by
//     one look are handed over in the order of their times.
//   - What is no message is reported and moved to "refused". If that fails, it is reported once,
//   and
//     left alone until it changes.
//   - If the input directory cannot be used, files wait. Such a trouble is reported once, and its
//     end too.
class Inbox {
 public:
  // now_: seconds from an arbitrary start. report_ gets lines without line end, with names as they
  // are.
  Inbox(const InboxSettings& settings_, std::function<double()> now_,
        std::function<void(const std::string& line_)> report_);
  ~Inbox();

  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // Looks at the inbox once, and does what follows from it.
  void Look();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

// Why those bytes are no message in that encoding of the daemon, a text or an XML document; empty
// if they may be one.
std::string WhyNoMessage(const std::string& bytes_, const std::string& encoding_, bool is_xml_);

// The characters of name_ that are safe in a shell, not too many of them.
std::string SafeCharacters(const std::string& name_);

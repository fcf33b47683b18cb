// A directory for producers that cannot rename. Its files are handed over to an input directory of
// the daemon when they are complete.
#pragma once

#include <functional>
#include <memory>
#include <string>

struct InboxSettings {
  std::string path;          // The inbox.
  std::string config_path;   // The daemon's configuration.
  std::string directory_id;  // An input directory of type "local".
  // The daemon's status file; empty: hand over without a check that the daemon runs.
  std::string status_path;
  // A file is complete if its size and time have not changed for that long.
  int settle_seconds = 3;
};

// Rules for the files:
//   - Hidden files and the directory "refused" are ignored.
//   - A complete file is copied to the input directory and removed. Files that one look finds
//     complete are handed over in the order of their times.
//   - A file that is no message is reported and moved to "refused". If that fails, the failure is
//     reported once, and the file is ignored until it changes.
//   - If the input directory cannot be used, files wait. Such a failure and its end are reported
//     once.
class Inbox {
 public:
  // now_: seconds from an arbitrary start. report_ gets lines without a line end, with unchanged
  // names.
  Inbox(const InboxSettings& settings_, std::function<double()> now_,
        std::function<void(const std::string& line_)> report_);
  ~Inbox();

  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // Looks at the inbox once and handles its files.
  void Look();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

// Why the bytes are no message in that encoding of the daemon, as text or as an XML document; empty
// if they may be one.
std::string WhyNoMessage(const std::string& bytes_, const std::string& encoding_, bool is_xml_);

// The characters of name_ that are safe in a shell, not too many of them.
std::string SafeCharacters(const std::string& name_);

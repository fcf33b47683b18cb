// Checked copies of the configuration and the glossary. The daemon reads the copies, so that a
// mistake in an edited file does not end the service. Beside them is the part of the configuration
// in force that everybody may know, see contracts/directories.h.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "logevent.h"
#include "options.h"
#include "process.h"
#include "xml.h"

// How the copies tell of problems, as class Problems takes them.
struct ProblemSink {
  std::function<void(const std::string& id_, const std::string& sentence_,
                     const std::string& remedy_)>
      set;
  std::function<void(const std::string& id_)> clear;
};

constexpr double kCheckLimit = 30;  // Seconds; it may run the translator for each directory.

// The words of the command that checks a configuration, which is to be added as the last one.
// arguments_: of the daemon, without its name.
std::vector<std::string> CheckCommand(const std::vector<std::string>& arguments_);

// True if that end of the command, as waitpid gives it, allows the daemon to use the file.
bool IsUsable(int status_);

// Seconds until a refused file is checked again, although it did not change: the cause may lie
// elsewhere, such as a translator or a clip that was missing. refusals_: since the last change, at
// least 1. took_: seconds that the last check ran.
double RetryPause(int refusals_, double took_);

class Copies {
 public:
  // keep_: a directory that outlives a boot; empty: none. options_: the daemon's, with the edited
  // files. check_: CheckCommand. prepare_ is called with a new configuration before it is in place.
  Copies(const std::string& run_, const std::string& keep_, const Options& options_,
         std::vector<std::string> check_, ProblemSink problems_,
         std::function<void(const XMLElement&)> prepare_);

  // The arguments by which the daemon uses the copies.
  std::vector<std::string> Arguments() const;

  // Looks at the edited files; to be called once a second, and when a child has ended.
  void Tick();

  void CheckNow();  // At the next Tick, even what has not changed.

  void OnLog(const LogEvent& event_);

  // The configuration to start the daemon with; null: there is none, or the first check goes on.
  const XMLElement* Configuration() const { return has_looked ? configuration.get() : nullptr; }

  // True if an edited file is being checked, or its copy has not been applied yet.
  bool IsBusy() const;
  // Of the last checks: whether all files are in force, and a text for people.
  bool IsFine() const;
  std::string Report() const;

 private:
  struct File {
    std::string name;    // "configuration" or "glossary".
    std::string edited;  // Empty: the daemon uses none.
    std::string copy;
    std::string kept;         // Empty: not kept.
    mode_t most_mode = 0777;  // Of the copies: bits that they take from the edited file.
    struct stat seen = {};    // Of the edited file; zero: it is missing.
    bool is_due = true;       // To be checked.
    bool is_refused = false;
    int refusals = 0;     // Since it changed, or a check was asked for.
    double retry_at = 0;  // While it is refused.
    std::string told;     // Why it was refused.
    std::string result;
  };

  bool HasChanged(File& file_) const;
  void StartCheck(File& file_);
  void Finish(File& file_);
  void Accept(File& file_, const std::string& text_);
  void Refuse(File& file_, const char* why_, const std::string& sentence_,
              const std::string& remedy_);
  void UseKept(File& file_);
  void Load();

  std::vector<File> files;  // The configuration first.
  std::string directories;  // Path of the part that everybody may know.
  std::vector<std::string> check;
  ProblemSink problems;
  std::function<void(const XMLElement&)> prepare;
  Command command;
  File* checked = nullptr;  // What the command looks at.
  double check_start = 0;   // Of the last check.
  bool has_looked = false;
  double applied_limit = 0;  // Until then the daemon is expected to apply it; 0: it has.
  std::unique_ptr<XMLElement> configuration;
};

// Checked copies of the configuration and the glossary. The daemon reads the copies, so that a
// mistake in an edited file does not end the service. The file of contracts/directories.h is
// written beside them.
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

// The functions by which the copies report problems, as class Problems takes them.
struct ProblemSink {
  std::function<void(const std::string& id_, const std::string& sentence_,
                     const std::string& remedy_)>
      set;
  std::function<void(const std::string& id_)> clear;
};

constexpr double kCheckLimit = 30;  // Seconds; it may run the translator for each directory.

// The words of the command that checks a configuration. The caller appends the path of the
// configuration. arguments_: the daemon's, without its name. run_: the run directory.
std::vector<std::string> CheckCommand(const std::vector<std::string>& arguments_,
                                      const std::string& run_);

// True if the daemon may use the file after a check that ended with status_, as waitpid gives it.
bool IsUsable(int status_);

// Seconds until a refused file is checked again without a change: the cause may be elsewhere, such
// as a missing translator or clip. refusals_: their number since the last change, at least 1.
// took_: seconds that the last check ran.
double RetryPause(int refusals_, double took_);

class Copies {
 public:
  // keep_: a directory that survives a reboot; empty: none. options_: the daemon's, with the edited
  // files. check_: see CheckCommand. prepare_ is called with a new configuration before its copy is
  // replaced.
  Copies(const std::string& run_, const std::string& keep_, const Options& options_,
         std::vector<std::string> check_, ProblemSink problems_,
         std::function<void(const XMLElement&)> prepare_);

  // The arguments by which the daemon uses the copies.
  std::vector<std::string> Arguments() const;

  // Looks at the edited files; to be called once a second, and when a child has ended.
  void Tick();

  void CheckNow();  // Lets the next Tick check the files even if they have not changed.

  void OnLog(const LogEvent& event_);

  // The configuration to start the daemon with; null if there is none, or while the first check
  // runs.
  const XMLElement* Configuration() const { return has_looked ? configuration.get() : nullptr; }

  // True if an edited file is being checked, or its copy has not been applied yet.
  bool IsBusy() const;
  // The result of the last checks: whether all files are in force, and a text for people.
  bool IsFine() const;
  std::string Report() const;

 private:
  struct File {
    std::string name;    // "configuration" or "glossary".
    std::string edited;  // Empty: the daemon uses none.
    std::string copy;
    std::string kept;         // Empty: not kept.
    mode_t most_mode = 0777;  // The bits of the edited file's mode that the copies get.
    struct stat seen = {};    // The edited file at the last look; zero: it is missing.
    bool is_due = true;       // To be checked.
    bool is_refused = false;
    int refusals = 0;     // Since the last change or request for a check.
    double retry_at = 0;  // The time of the next check while it is refused.
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
  std::string directories;  // Path of the file of contracts/directories.h.
  std::vector<std::string> check;
  ProblemSink problems;
  std::function<void(const XMLElement&)> prepare;
  Command command;
  File* checked = nullptr;  // The file that the command checks.
  double check_start = 0;   // Of the last check.
  bool has_looked = false;
  // Until then the daemon is expected to apply the copy; 0: it has done so.
  double applied_limit = 0;
  std::unique_ptr<XMLElement> configuration;
};

#include "copies.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <tuple>
#include <utility>

#include "clock.h"
#include "configuration.h"
#include "crc.h"
#include "createdirectories.h"
#include "directories.h"
#include "format.h"
#include "statusfile.h"

namespace {

constexpr double kApplyLimit = 30;  // Seconds.

constexpr double kFirstRetry = 5;     // Seconds.
constexpr double kLongestRetry = 60;  // Seconds, for a short check.

// A check may run the translator for each directory, which takes seconds on a small board. The
// pause lasts 50 times as long as the check, so checks use at most a fiftieth of a processor.
constexpr double kPausePerCheck = 50;

constexpr mode_t kPublicMode = 0644;
// The most permissive mode of a configuration's copy. The copy may hold passwords, and more
// services can read the run directory than the directory of the edited file.
constexpr mode_t kSecretMode = 0640;
constexpr char kNoGlossary[] = "<glossary/>\n";
constexpr int kMaxExitStatus = 1;  // The largest exit status of a check that found no error.

// Replaces the file by a rename. Throws a string if that fails.
void Replace(const std::string& path_, const std::string& text_, mode_t mode_) {
  const std::string temporary = path_ + ".new";
  unlink(temporary.c_str());
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode_);
  const bool is_written = fd >= 0 && WriteWhole(fd, text_.data(), text_.size()) &&
                          fchmod(fd, mode_) == 0 && fsync(fd) == 0;
  const int error = errno;
  if (fd >= 0) {
    close(fd);
  }
  if (!is_written || rename(temporary.c_str(), path_.c_str()) != 0) {
    throw Format("cannot write %s: %s", path_.c_str(), strerror(is_written ? errno : error));
  }
}

std::string Replaced(std::string text_, const std::string& from_, const std::string& to_) {
  for (size_t at = text_.find(from_); at != std::string::npos;
       at = text_.find(from_, at + to_.size())) {
    text_.replace(at, from_.size(), to_);
  }
  return text_;
}

// The first line that reports an error; the first line if none does.
std::string FirstError(const std::string& findings_) {
  const size_t error = findings_.find(": error: ");
  const size_t last_end =
      error == std::string::npos ? std::string::npos : findings_.rfind('\n', error);
  const size_t begin = last_end == std::string::npos ? 0 : last_end + 1;
  return findings_.substr(begin, findings_.find('\n', begin) - begin);
}

bool HasErrorIn(const std::string& findings_, const std::string& path_) {
  for (size_t at = findings_.find(path_ + ":"); at != std::string::npos;
       at = findings_.find(path_ + ":", at + 1)) {
    if (findings_.substr(at, findings_.find('\n', at) - at).find(": error: ") !=
        std::string::npos) {
      return true;
    }
  }
  return false;
}

// The check would fail without the local directories.
void CreateLocalDirectories(const std::string& configuration_) {
  try {
    const std::unique_ptr<XMLElement> root = LoadXMLTree(configuration_, "tts-config");
    for (const XMLElement* directory : root->GetChildren("directory")) {
      if (directory->GetAttributeString("type", "") == "local") {
        CreateDirectories(ScannedPath(*directory));
      }
    }
  } catch (const std::string&) {  // The check reports it.
  }
}

std::string CopyPath(const std::string& directory_, const char* name_) {
  return directory_.empty() ? "" : AddTrailingSlash(directory_) + name_;
}

}  // namespace

std::vector<std::string> CheckCommand(const std::vector<std::string>& arguments_,
                                      const std::string& run_) {
  std::vector<std::string> words = {BesideThis("vocastra-check")};
  words.insert(words.end(), arguments_.begin(), arguments_.end());
  words.push_back("--run=" + run_);
  words.push_back("--glossary=");
  return words;
}

double RetryPause(int refusals_, double took_) {
  const double pause = std::ldexp(kFirstRetry, std::min(refusals_, 10) - 1);
  return std::max(std::min(pause, kLongestRetry), took_ * kPausePerCheck);
}

bool IsUsable(int status_) { return WIFEXITED(status_) && WEXITSTATUS(status_) <= kMaxExitStatus; }

Copies::Copies(const std::string& run_, const std::string& keep_, const Options& options_,
               std::vector<std::string> check_, ProblemSink problems_,
               std::function<void(const XMLElement&)> prepare_)
    : directories(CopyPath(run_, kDirectoriesFile)),
      check(std::move(check_)),
      problems(std::move(problems_)),
      prepare(std::move(prepare_)) {
  files.resize(2);
  files[0].name = "configuration";
  files[0].most_mode = kSecretMode;
  files[0].edited = options_.config_file_path;
  files[0].copy = CopyPath(run_, "vocastra.conf");
  files[0].kept = CopyPath(keep_, "vocastra.conf");
  files[1].name = "glossary";
  files[1].edited = options_.glossary_file_path;
  files[1].copy = CopyPath(run_, "glossary.xml");
  files[1].kept = CopyPath(keep_, "glossary.xml");
  if (files[1].edited.empty()) {
    files.pop_back();
  }
}

std::vector<std::string> Copies::Arguments() const {
  std::vector<std::string> arguments = {"-c", files[0].copy};
  if (files.size() > 1) {
    arguments.insert(arguments.end(), {"-g", files[1].copy});
  }
  return arguments;
}

bool Copies::HasChanged(File& file_) const {
  struct stat now = {};
  if (stat(file_.edited.c_str(), &now) != 0) {
    now = {};
  }
  const auto key = [](const struct stat& stat_) {
    return std::make_tuple(stat_.st_ino, stat_.st_size, stat_.st_mtim.tv_sec, stat_.st_mtim.tv_nsec,
                           stat_.st_mode);
  };
  const bool has_changed = key(now) != key(file_.seen);
  file_.seen = now;
  return has_changed;
}

void Copies::CheckNow() {
  for (File& file : files) {
    file.is_due = true;
    file.refusals = 0;
  }
}

void Copies::Tick() {
  if (command.HasEnded()) {
    Finish(*std::exchange(checked, nullptr));
  }
  for (File& file : files) {
    if (HasChanged(file)) {
      file.is_due = true;
      file.refusals = 0;
    }
    if (file.is_refused && &file != checked && Now() >= file.retry_at) {
      file.is_due = true;
    }
    if (file.is_due && !command.IsRunning()) {
      file.is_due = false;
      StartCheck(file);
    }
  }
  if (!has_looked && !command.IsRunning()) {
    has_looked = true;
    Load();
  }
}

void Copies::StartCheck(File& file_) {
  const std::string candidate = file_.copy + ".checked";
  check_start = Now();
  try {
    Replace(candidate, ReadWhole(file_.edited), file_.seen.st_mode & file_.most_mode);
    std::vector<std::string> words = check;
    if (&file_ == &files[0]) {
      CreateLocalDirectories(candidate);
      words.push_back(candidate);
    } else {
      words.back() += candidate;
      words.push_back(files[0].copy);
    }
    command.Start(words, kCheckLimit);
    checked = &file_;
  } catch (const std::string& why) {
    Refuse(file_, "missing", "The " + file_.name + " cannot be read: " + why,
           "Restore " + file_.edited);
  }
}

void Copies::Finish(File& file_) {
  const std::string candidate = file_.copy + ".checked";
  const bool is_glossary = &file_ != &files[0];
  const std::string findings = command.Text();
  // An error in the configuration is no reason to refuse the glossary.
  const bool is_usable = IsUsable(command.Status()) ||
                         (is_glossary && !findings.empty() && !HasErrorIn(findings, candidate));
  const std::string text = Replaced(findings, candidate, file_.edited);
  try {
    if (is_usable) {
      Accept(file_, text);
    } else {
      const std::string first = text.empty() ? Described(command.Status()) : FirstError(text);
      Refuse(file_, "refused", "The edited " + file_.name + " cannot be used: " + first,
             "Fix " + file_.edited);
      file_.result = file_.name + ": refused\n" + (text.empty() ? first + "\n" : text);
    }
  } catch (const std::string& why) {
    Refuse(file_, "refused", "The " + file_.name + " cannot be copied: " + why,
           "Make room for it, and let the station write there");
  }
  unlink(candidate.c_str());
}

void Copies::Accept(File& file_, const std::string& text_) {
  std::string content = ReadWhole(file_.copy + ".checked");
  const mode_t mode = file_.seen.st_mode & file_.most_mode;
  const std::string old = ReadOrNothing(file_.copy);
  const bool is_configuration = &file_ == &files[0];
  const bool is_new = old != content && old != content + "\n";
  if (is_new) {
    const std::string original = content;
    const auto crc = [](const std::string& bytes_) {
      return CRC(0, reinterpret_cast<const uint8_t*>(bytes_.data()), bytes_.size());
    };
    // The daemon compares checksums and would not notice the change.
    if (crc(old) == crc(content)) {
      content += "\n";
    }
    if (is_configuration) {
      prepare(*LoadXMLTree(file_.copy + ".checked", "tts-config"));
      applied_limit = Now() + kApplyLimit;
    }
    Replace(file_.copy, content, mode);
    Load();
    content = original;
  }
  if (!file_.kept.empty() && ReadOrNothing(file_.kept) != content) {
    Replace(file_.kept, content, mode);
  }
  // The mode may have changed although the content has not.
  for (const std::string& path : {file_.copy, file_.kept}) {
    chmod(path.c_str(), mode);
  }
  file_.is_refused = false;
  file_.result = file_.name + ": in force\n" + text_;
  problems.clear(file_.name + "-refused");
  problems.clear(file_.name + "-missing");
}

void Copies::Refuse(File& file_, const char* why_, const std::string& sentence_,
                    const std::string& remedy_) {
  const bool is_told = file_.is_refused && file_.told == sentence_;
  file_.is_refused = true;
  file_.told = sentence_;
  const double now = Now();
  file_.retry_at = now + RetryPause(++file_.refusals, now - check_start);
  file_.result = file_.name + ": refused\n" + sentence_ + ".\n";
  UseKept(file_);
  if (is_told) {
    return;
  }
  const bool has_copy = access(file_.copy.c_str(), F_OK) == 0;
  problems.clear(file_.name + "-refused");
  problems.clear(file_.name + "-missing");
  problems.set(file_.name + "-" + why_, sentence_,
               remedy_ + (has_copy ? "; the last usable one stays in force"
                                   : "; until then nothing is spoken"));
}

// Restores the missing copy from the kept one. The copy is missing only at the first start after a
// boot.
void Copies::UseKept(File& file_) {
  if (access(file_.copy.c_str(), F_OK) == 0) {
    return;
  }
  const std::string text = file_.kept.empty() ? "" : ReadOrNothing(file_.kept);
  try {
    if (!text.empty()) {
      Replace(file_.copy, text, kSecretMode);
    } else if (&file_ != &files[0]) {
      Replace(file_.copy, kNoGlossary, 0644);  // Without it, the daemon would speak nothing.
    }
  } catch (const std::string&) {  // The problem of the edited file is reported already.
  }
}

void Copies::Load() {
  try {
    configuration = LoadXMLTree(files[0].copy, "tts-config");
  } catch (const std::string&) {
    configuration.reset();
    return;
  }
  try {
    const std::string text = PublicPart(*configuration)->DumpToString("");
    if (ReadOrNothing(directories) != text) {
      Replace(directories, text, kPublicMode);
    }
  } catch (const std::string&) {
    // No file is better than an old one. The full disk is reported elsewhere.
    unlink(directories.c_str());
  }
}

void Copies::OnLog(const LogEvent& event_) {
  if (event_.line == "Processing configuration " + files[0].copy) {
    applied_limit = 0;
  }
}

bool Copies::IsBusy() const {
  for (const File& file : files) {
    if (file.is_due) {
      return true;
    }
  }
  return command.IsRunning() || Now() < applied_limit;
}

bool Copies::IsFine() const {
  for (const File& file : files) {
    if (file.is_refused) {
      return false;
    }
  }
  return applied_limit == 0;
}

std::string Copies::Report() const {
  std::string report;
  for (const File& file : files) {
    report += file.result;
  }
  if (applied_limit != 0) {
    report += "The daemon does not use it yet.\n";
  }
  return report;
}

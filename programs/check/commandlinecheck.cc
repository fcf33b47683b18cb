#include "commandlinecheck.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>

#include "format.h"
#include "options.h"

namespace {

constexpr char kNameProgram[] = "Name a program that the daemon may execute";

Place OptionPlace(char letter_) { return {"<command-line>", 0, std::string("-") + letter_}; }

// Checks a number, as the daemon reads numbers without a check. Returns the number that the daemon
// uses, or nothing if the option was not given.
std::optional<int> CheckNumber(const CheckOptions& options_, char letter_, Findings& findings_) {
  const auto found = options_.daemon.find(letter_);
  if (found == options_.daemon.end()) {
    return std::nullopt;
  }
  const std::string& text = found->second;
  char* end = nullptr;
  const int value = static_cast<int>(strtol(text.c_str(), &end, 0));
  if (end == text.c_str() || *end != '\0') {
    findings_.Warning(OptionPlace(letter_),
                      Quoted(text) + " is no number; the daemon takes " + std::to_string(value),
                      "Write a whole number");
  } else if (value != static_cast<int>(strtol(text.c_str(), nullptr, 10)) && value != 0 &&
             strpbrk(text.c_str(), "xX") == nullptr) {
    findings_.Warning(
        OptionPlace(letter_),
        Quoted(text) + " begins with 0 and is read as octal, " + std::to_string(value),
        "Write it without the leading 0");
  }
  return value;
}

// Finds the program as the shell does: the first word, in PATH if it has no slash.
std::string WhyNoTranslator(const std::string& command_) {
  const std::string program = command_.substr(0, command_.find(' '));
  if (program.find('/') != std::string::npos) {
    return WhyNotExecutable(program);
  }
  const char* path = getenv("PATH");
  std::string rest = path == nullptr ? "/usr/bin:/bin" : path;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find(':'), rest.size());
    if (WhyNotExecutable(AddTrailingSlash(rest.substr(0, end)) + program).empty()) {
      return "";
    }
    rest.erase(0, end + 1);
  }
  return "not found";
}

void CheckTranslator(const std::string& path_, Findings& findings_) {
  const Place place = OptionPlace('t');
  if (path_.empty()) {
    findings_.Error(place, "no translator: nothing would be spoken", "Give the daemon option -t");
    return;
  }
  const std::string bad = ShellCharacters(path_, false);
  if (!bad.empty()) {
    findings_.Warning(place, ThroughShell(Quoted(path_), bad),
                      "Use a path of letters, digits and . _ + - / only");
  }
  const std::string why = WhyNoTranslator(path_);
  if (!why.empty()) {
    findings_.Error(place, Quoted(path_) + ": " + why, kNameProgram);
  }
}

void CheckOutput(const std::string& path_, PathUses& uses_, Findings& findings_) {
  const Place place = OptionPlace('o');
  if (path_.empty()) {
    findings_.Error(place, "no output directory: nothing would be delivered",
                    "Give the daemon option -o");
    return;
  }
  const std::string bad = ShellCharacters(path_, false);
  if (!bad.empty()) {
    findings_.Error(place, ThroughShell(Quoted(path_), bad), kSafeCharacters);
  }
  const std::string why = WhyUnusable(path_);
  if (!why.empty()) {
    findings_.Error(place, Quoted(path_) + ": " + why, RemedyForDirectory(path_));
  }
  uses_.AddDirectory(place, kOutput, path_);
}

void CheckStatus(const std::string& path_, PathUses& uses_, Findings& findings_) {
  if (path_.empty()) {
    return;
  }
  const bool is_there = access(path_.c_str(), F_OK) == 0;
  if (access(is_there ? path_.c_str() : ParentOf(path_).c_str(), W_OK) != 0) {
    const std::string why = strerror(errno);
    findings_.Warning(OptionPlace('s'), Quoted(path_) + " cannot be written: " + why,
                      RemedyForDirectory(ParentOf(path_)));
  }
  uses_.AddFile(OptionPlace('s'), "status file", path_);
}

void CheckHelper(char letter_, const std::string& path_, Findings& findings_) {
  const std::string why = path_.empty() ? "" : WhyNotExecutable(path_);
  if (!why.empty()) {
    findings_.Error(OptionPlace(letter_), Quoted(path_) + ": " + why, kNameProgram);
  }
}

void CheckFiles(const CheckOptions& options_, bool has_priorities_, Findings& findings_) {
  const int count = CheckNumber(options_, 'f', findings_).value_or(kDefaultFiles);
  const std::string text = Quoted(options_.Argument('f'));
  if (count < 1) {
    findings_.Error(OptionPlace('f'), text + " files: there is never room for audio",
                    "Write 1 or more");
  } else if (count > kDefaultFiles && has_priorities_) {
    findings_.Warning(OptionPlace('f'),
                      text +
                          " files, and directories of different priority: the pieces that wait "
                          "in the output are played before an alarm, unless the player knows "
                          "priorities",
                      Format("Write %d or less", kDefaultFiles));
  }
}

}  // namespace

void CheckCommandLine(const CheckOptions& options_, bool has_priorities_, PathUses& uses_,
                      Findings& findings_) {
  CheckTranslator(options_.Argument('t'), findings_);
  CheckOutput(options_.Argument('o'), uses_, findings_);
  CheckStatus(options_.Argument('s'), uses_, findings_);
  CheckHelper('i', options_.Argument('i'), findings_);
  CheckHelper('p', options_.Argument('p'), findings_);
  for (const char letter : {'t', 'i', 'p'}) {
    const std::string path = options_.Argument(letter);
    if (path.find('/') != std::string::npos) {
      uses_.AddFile(OptionPlace(letter), "program", path);
    }
  }
  CheckNumber(options_, 'd', findings_);
  if (CheckNumber(options_, 'w', findings_).value_or(1) < 1) {
    findings_.Warning(OptionPlace('w'),
                      Quoted(options_.Argument('w')) + " words: every word is spoken by itself",
                      "Write 1 or more");
  }
  CheckFiles(options_, has_priorities_, findings_);
}

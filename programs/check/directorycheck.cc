#include "directorycheck.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <utility>

#include "affix.h"
#include "attributes.h"
#include "clipcheck.h"
#include "format.h"
#include "place.h"

namespace {

// A helper's error text with the names of attributes instead of its arguments.
std::string WithAttributes(std::string text_) {
  const std::pair<const char*, const char*> names[] = {{"PATH", "path"},
                                                       {"MOUNT-OPTS", "mount-opts"},
                                                       {"MODE", "ftp-mode"},
                                                       {"USERNAME", "username"}};
  for (const auto& [argument, attribute] : names) {
    const size_t at = text_.find(argument);
    if (at != std::string::npos) {
      text_.replace(at, strlen(argument), attribute);
    }
  }
  return text_;
}

class DirectoryCheck {
 public:
  DirectoryCheck(const CheckOptions& options_, TranslatorCheck& translator_,
                 const XMLElement& element_, const Place& place_, PathUses& uses_,
                 Findings& findings_)
      : options(options_),
        translator(translator_),
        element(element_),
        place(place_),
        type(TextOf(element_, "type")),
        is_cache(TextOf(element_, "dir-mode") == "cache"),
        uses(uses_),
        findings(findings_) {}

  void Check() {
    CheckNumbers();
    const bool is_type = type == "local" || type == "cifs" || type == "ftp";
    if (is_type) {
      CheckMeaning();
    }
    CheckValues();
    CheckNames();
    CheckTranslation();
    CheckPreview();
    CheckClips();
    CheckLastPlayed();
    if (type == "local") {
      CheckLocal();
    } else if (is_type) {
      CheckRemote(type == "cifs" ? 'i' : 'p');
    } else {
      findings.Error(place,
                     "type " + Quoted(type) +
                         " is unknown: the daemon cannot scan it, and then speaks nothing at all",
                     "Write \"local\", \"cifs\" or \"ftp\"");
    }
  }

 private:
  void CheckNumbers() {
    for (const Attribute& attribute : AttributesOf("directory")) {
      if (!attribute.IsNumber()) {
        continue;
      }
      try {
        element.GetAttributeInteger(attribute.name, 0);
      } catch (const std::string& why) {
        findings.Error(place, why + "; the directory is skipped", "Write a whole number");
      }
    }
  }

  void CheckMeaning() {
    for (const Attribute& attribute : AttributesOf("directory")) {
      if (!attribute.HasMeaningFor(type) &&
          !element.GetAttributeString(attribute.name, "").empty()) {
        findings.Warning(place, Quoted(attribute.name) + " means nothing for type " + Quoted(type),
                         "Remove it");
      }
    }
  }

  // Finds valid numbers and words without the expected effect.
  void CheckValues() {
    if (NumberOf(element, "loops") < 1) {
      findings.Warning(place, "\"loops\" below 1: messages are spoken once", "Write 1 or more");
    }
    if (NumberOf(element, "ftp-poll-rate") < 1) {
      findings.Warning(place, "\"ftp-poll-rate\" is no number of seconds above 0",
                       "Write 1 or more");
    }
    const std::string mode = TextOf(element, "dir-mode");
    if (!mode.empty() && mode != "cache") {
      findings.Warning(place, "dir-mode " + Quoted(mode) + " means nothing",
                       "Write \"cache\" or remove it");
    }
  }

  // Checks texts that go through the shell.
  void CheckNames() {
    const std::string display_id =
        element.GetAttributeString("display-id", element.GetAttributeString("id"));
    std::string bad = ShellCharacters(display_id, false);
    bad += display_id.find('/') != std::string::npos ? "/" : "";
    if (!bad.empty()) {
      findings.Error(
          place,
          Quoted(display_id) + " is part of audio file names, which cannot hold " + Described(bad),
          "Set a \"display-id\" of letters, digits and \"_\"");
    }
    bad = ShellCharacters(TextOf(element, "conv-opts"), true);
    if (!bad.empty()) {
      findings.Warning(place, ThroughShell("conv-opts", bad), "Make sure that this is meant");
    }
  }

  void CheckTranslation() {
    if (is_cache) {
      return;
    }
    const std::string arguments = TextOf(element, "conv-opts");
    const std::string why = translator.WhyRefused(arguments);
    if (!why.empty()) {
      findings.Error(place,
                     "the translator refuses conv-opts " + Quoted(arguments) + ": " + why +
                         "; no message would be spoken",
                     "Try it with --check");
    } else if (IsOurs('t', "/translators/")) {
      CheckRate(arguments);
    }
  }

  // A player plays speech at its own rate. Which of several players gets a message is not known
  // here, so the rate of one of them is enough.
  void CheckRate(const std::string& arguments_) {
    const std::string name = "rate=";
    std::istringstream words(arguments_);
    std::string rate;
    for (std::string word; words >> word;) {
      rate = StartsWith(word, name) ? word.substr(name.size()) : rate;
    }
    const auto hertz = rate.empty() ? kDefaultRate : strtol(rate.c_str(), nullptr, 10);
    const bool is_default = options.player_rates.empty();
    const std::set<int> rates = is_default ? std::set<int>{kDefaultRate} : options.player_rates;
    if (rates.count(static_cast<int>(hertz)) != 0) {
      return;
    }
    const int player = *rates.begin();
    findings.Warning(
        place,
        (rate.empty() ? Format("no rate= in conv-opts, which means %d", kDefaultRate)
                      : "rate=" + rate + " in conv-opts") +
            Format(", but the player plays at %d Hz%s: speech sounds too high or too low", player,
                   is_default ? " by default" : ""),
        Format("Write rate=%d; or give the player --rate %ld", player, hertz));
  }

  void CheckPreview() {
    if (is_cache || type != "local" || NumberOf(element, "preview") == 0) {
      return;
    }
    if (TextOf(element, "last-played-path").empty()) {
      findings.Warning(
          place,
          "preview without \"last-played-path\": a message is spoken once, and the log "
          "fills with \"Could not remove\"",
          "Add \"last-played-path\", or remove \"preview\"");
    } else if (NumberOf(element, "auto-delete") == 0) {
      findings.Warning(place,
                       "preview without \"auto-delete\": a message is spoken again and again, and "
                       "less urgent directories are silent until it is removed",
                       "Remove \"preview\" after the trial");
    }
  }

  void CheckClips() {
    const bool has_bumper = !TextOf(element, "bumper-path").empty();
    const bool has_spacer = !TextOf(element, "spacer-path").empty();
    if (has_bumper && !has_spacer) {
      findings.Warning(place,
                       "bumper without spacer: the daemon tries to copy a spacer without a path",
                       "Add \"spacer-path\"");
    } else if (has_spacer && !has_bumper) {
      findings.Warning(place, "spacer without bumper is never played", "Add \"bumper-path\"");
    }
    for (const std::string name : {"bumper-path", "spacer-path", "silence-path"}) {
      const std::string path = TextOf(element, name);
      if (!path.empty()) {
        CheckClip(name, path);
      }
    }
  }

  void CheckClip(const std::string& name_, const std::string& path_) {
    CheckShellPath(name_, path_, false);
    struct stat status = {};
    if (stat(path_.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        access(path_.c_str(), R_OK) != 0) {
      findings.Warning(place, name_ + " " + Quoted(path_) + " is no readable file",
                       "Put the clip there");
    } else {
      const std::string why = WhyNoSound(path_);
      if (!why.empty()) {
        findings.Warning(
            place, name_ + " " + Quoted(path_) + " is no sound that the player can play: " + why,
            "Use WAV, or raw samples in the translator's format");
      }
    }
    uses.AddFile(place, name_, path_);
  }

  // Paths are words of shell commands. If the shell splits a path whose files are removed, it
  // removes other files.
  void CheckShellPath(const std::string& name_, const std::string& path_, bool is_emptied_) {
    const std::string bad = ShellCharacters(path_, false);
    if (!bad.empty()) {
      const std::string what = ThroughShell(name_ + " " + Quoted(path_), bad);
      if (is_emptied_) {
        findings.Error(place, what + ": other files would be removed", kSafeCharacters);
      } else {
        findings.Warning(place, what + ": the file is not found", kSafeCharacters);
      }
    }
    if (path_[0] != '/') {
      findings.Warning(place,
                       name_ + " " + Quoted(path_) + " depends on where the daemon is started",
                       "Write a path from the root");
    }
  }

  void CheckLastPlayed() {
    const std::string path = TextOf(element, "last-played-path");
    if (path.empty()) {
      if (is_cache) {
        findings.Error(place,
                       "dir-mode \"cache\" without \"last-played-path\": each file is removed, and "
                       "nothing is kept or spoken",
                       "Add \"last-played-path\"");
      }
      return;
    }
    CheckShellPath("last-played-path", path, true);
    const std::string why = WhyUnusable(path);
    const std::string what = "last-played-path " + Quoted(path) + ": " + why;
    if (!why.empty() && is_cache) {
      findings.Error(place, what + "; every pass of the daemon would fail",
                     RemedyForDirectory(path));
    } else if (!why.empty()) {
      findings.Warning(place, what + "; copies are lost", RemedyForDirectory(path));
    }
    uses.AddDirectory(place, kLastPlayed, path);
  }

  void CheckLocal() {
    const std::string path = TextOf(element, "path");
    const std::string subdir = TextOf(element, "subdir");
    if (path.empty()) {
      findings.Error(place,
                     "no \"path\": the daemon cannot scan it, and then speaks nothing at all",
                     "Add a \"path\"");
      return;
    }
    CheckShellPath("path", path, true);
    uses.AddDirectory(place, subdir.empty() ? kPath : kAboveSubdir, path);
    CheckScanned(path);
    if (!subdir.empty()) {
      const std::string scanned = AddTrailingSlash(path) + subdir;
      if (!TextOf(element, "last-played-path").empty()) {
        CheckShellPath("subdir", scanned, true);
      }
      uses.AddDirectory(place, kSubdir, scanned);
      CheckScanned(scanned);
    }
  }

  void CheckScanned(const std::string& path_) {
    const std::string why = WhyUnusable(path_);
    if (!why.empty()) {
      findings.Error(place, Quoted(path_) + ": " + why + "; the daemon cannot work with it",
                     RemedyForDirectory(path_));
      return;
    }
    struct stat status = {};
    if (stat(path_.c_str(), &status) == 0 && (status.st_mode & S_ISVTX) != 0 && geteuid() != 0 &&
        status.st_uid != geteuid()) {
      findings.Warning(
          place,
          Quoted(path_) + " is sticky: files of others cannot be removed, and are then not spoken",
          "Remove its sticky bit, or make the daemon's user its owner");
    }
  }

  // letter_: the daemon's option that names the helper.
  void CheckRemote(char letter_) {
    const RemoteAttributes attributes = {
        TextOf(element, "path"), TextOf(element, "subdir"), TextOf(element, "username"),
        TextOf(element, "password"), TextOf(element, type == "cifs" ? "mount-opts" : "ftp-mode")};
    if (attributes.path.empty()) {
      findings.Error(place, "no \"path\": the helper has nothing to mirror", "Add a \"path\"");
    } else if (WithoutLogin(attributes.path) != attributes.path) {
      findings.Error(place,
                     "a user in path " + Quoted(WithoutLogin(attributes.path)) +
                         " before the host: the helper refuses it",
                     "Write \"username\" and \"password\" as attributes");
    } else if (IsOurs(letter_, "/helpers/")) {
      CheckForHelper(attributes);
    } else if (type == "ftp") {
      CheckFtpMode(attributes.options);
    }
    if (!options.daemon.empty() && options.Argument(letter_).empty()) {
      findings.Error(place, "no helper for it: the directory is skipped",
                     std::string("Give the daemon option -") + letter_);
    }
  }

  // Checks the attributes as the daemon's own helper reads them.
  void CheckForHelper(const RemoteAttributes& attributes_) {
    try {
      if (type == "cifs") {
        ReadSmbPlace(attributes_);
      } else {
        ReadFtpPlace(attributes_);
      }
    } catch (const std::string& why) {
      findings.Error(place, "the helper refuses it: " + WithAttributes(why),
                     "vocastra-helpers(1) describes the form");
    }
  }

  // Checks the words for another helper, except options with values, which only that helper knows.
  void CheckFtpMode(const std::string& mode_) {
    size_t end = 0;
    for (size_t begin = 0; begin <= mode_.size(); begin = end + 1) {
      end = std::min(mode_.find(',', begin), mode_.size());
      const std::string word = mode_.substr(begin, end - begin);
      if (word != "passive" && word != "active" && word.find('=') == std::string::npos) {
        findings.Warning(place, "ftp-mode " + Quoted(word) + " is unknown",
                         "Write \"passive\" or \"active\", or an option of the helper");
      }
    }
  }

  // True if the program in that option of the daemon comes with it, or is not known. The paths of
  // such programs have directory_ in them.
  bool IsOurs(char letter_, const char* directory_) const {
    const std::string path = options.Argument(letter_);
    return path.empty() || path.find(directory_) != std::string::npos;
  }

  const CheckOptions& options;
  TranslatorCheck& translator;
  const XMLElement& element;
  const Place place;
  const std::string type;
  const bool is_cache;  // Nothing is spoken.
  PathUses& uses;
  Findings& findings;
};

}  // namespace

void CheckDirectory(const CheckOptions& options_, TranslatorCheck& translator_,
                    const XMLElement& element_, const Place& place_, PathUses& uses_,
                    Findings& findings_) {
  DirectoryCheck(options_, translator_, element_, place_, uses_, findings_).Check();
}

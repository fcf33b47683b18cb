// Checks of paths: errors in a path, characters that the shell reads, and directories that overlap.
#pragma once

#include <stddef.h>

#include <map>
#include <string>
#include <vector>

#include "findings.h"

// The directory that a path is in; "." for a name alone.
std::string ParentOf(const std::string& path_);

// Why the daemon cannot read, write and search in that directory; empty if it can.
std::string WhyUnusable(const std::string& path_);

// The remedy for a directory, or for the directory of a file, that is missing or unusable. In a
// service it names the confinement too, which lets the package's service write below two
// directories only.
std::string RemedyForDirectory(const std::string& path_);

// Why the file is no executable program; empty if it is one.
std::string WhyNotExecutable(const std::string& path_);

// The characters of value_ with a meaning for the shell, each once. Blanks are among them unless
// value_ may be several words.
std::string ShellCharacters(const std::string& value_, bool may_be_words_);

// Those characters as a text.
std::string Described(const std::string& characters_);

// "<name_> goes through the shell, which reads <characters_>".
std::string ThroughShell(const std::string& name_, const std::string& characters_);

// The remedy for a path with such characters.
constexpr char kSafeCharacters[] = "Use letters, digits and . _ + - / only";

// Roles of directories that have different rules, see PathUses.
constexpr char kPath[] = "path";
constexpr char kSubdir[] = "subdir";
constexpr char kAboveSubdir[] = "path above subdir";  // Emptied, but not scanned.
constexpr char kLastPlayed[] = "last-played-path";
constexpr char kOutput[] = "output";

// The directories that the daemon uses, and the files that it needs.
class PathUses {
 public:
  // A directory whose files the daemon takes or removes. role_ names it in findings.
  void AddDirectory(const Place& place_, const std::string& role_, const std::string& path_);
  void AddFile(const Place& place_, const std::string& role_, const std::string& path_);

  // Finds directories that must not be emptied, that overlap, or that hold one of the files. If
  // several uses have the same path and role, only the first is compared.
  void Check(Findings& findings_) const;

 private:
  struct Use {
    size_t number;  // In the order of the calls.
    Place place;
    std::string role;
    std::string path;
    std::string real;  // Without links, "." and "..".
  };
  // By real path: the first use of each role. All files are kept, by their directories.
  using Groups = std::map<std::string, std::vector<const Use*>>;

  static bool HasRole(const std::vector<const Use*>& uses_, const std::string& role_);
  static void CheckSame(const Use& first_, const Use& second_, Findings& findings_);
  static void CheckAbove(const Use& inner_, const Groups& groups_, Findings& findings_);

  std::vector<Use> directories;
  std::vector<Use> files;
};

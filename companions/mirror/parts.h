// Files that are being fetched, under hidden names. What has come of a slow one is kept until its
// next turn.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "known.h"
#include "localfile.h"

struct Part {
  std::string name;
  uint64_t version;  // Fingerprint of size and exact time.
  uint64_t number;
  std::unique_ptr<LocalFile> file;
  uint64_t bytes = 0;
  int turns = 0;  // How often it was asked for.
};

class Parts {
 public:
  // known_ gives numbers and paths. REQUIRES: it outlives this.
  explicit Parts(Known& known_) : known(known_) {}

  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  // The part of this version of the file, which may be a new one; one of another version is
  // removed. So is the one with the most turns if there are many. Valid until the next call of any
  // kind. Throws LocalTrouble.
  Part& Get(const std::string& name_, uint64_t version_);

  // Removes the file's part, if there is one.
  void Drop(const std::string& name_);
  void DropIf(const std::function<bool(const Part&)>& is_dropped_);

  // Forgets the file's part, which is delivered.
  void Release(const std::string& name_);

  // A file that had fewer turns than that is not complete.
  bool HasYoungerThan(int turns_) const;

 private:
  Known& known;
  std::vector<Part> parts;
};

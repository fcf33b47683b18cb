// Files that are being fetched, under hidden names. The fetched part of a slow file is kept until
// its next turn.
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
  int turns = 0;  // How often Get has returned it.
};

class Parts {
 public:
  // known_ gives numbers and paths. REQUIRES: it outlives this.
  explicit Parts(Known& known_) : known(known_) {}

  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  // The part of this version of the file; makes one if there is none. Removes the part of another
  // version and, if there are many parts, the one with the most turns. The reference is valid until
  // the next call of any function. Throws LocalTrouble.
  Part& Get(const std::string& name_, uint64_t version_);

  // Removes the file's part, if there is one.
  void Drop(const std::string& name_);
  void DropIf(const std::function<bool(const Part&)>& is_dropped_);

  // Forgets the file's part, which was delivered.
  void Release(const std::string& name_);

  // True if there is a part that had fewer turns than turns_.
  bool HasYoungerThan(int turns_) const;

 private:
  Known& known;
  std::vector<Part> parts;
};

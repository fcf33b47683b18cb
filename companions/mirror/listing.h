// Listings of directories as servers send them.
#pragma once

#include <stddef.h>

#include <functional>
#include <string>

#include "remote.h"

// Bytes that a line may have. The longest name has 255, and MLSD puts a few facts in front.
constexpr size_t kMaxListingLine = 4096;

enum class ListingForm {
  kFacts,  // "type=file;size=5;modify=20261121000733; name": FTP's MLSD.
  // "-rw-r--r-- 1 owner group 5 Nov 21 00:07 name", or "11-21-26 12:07AM 5 name". Names may be
  // anything, and owners may have blanks.
  kColumns,
};

// Takes a listing piece by piece and hands on its regular files. The time of day in a listing's
// lines is part of the files' stamps as it is.
//
// Lines that make no sense are left out, since a name with a line break makes such lines. A listing
// of which no line makes sense is an error.
class ListingReader {
 public:
  ListingReader(ListingForm form_, std::function<void(const RemoteFile&)> take_);

  // Throws a string if the listing cannot be used, and what take_ throws.
  void Feed(const char* data_, size_t size_);

  // Ends the listing. Throws a string if its last line is not complete, if no line made sense, or
  // if all files are bare.
  void Finish();

 private:
  void ReadLine(const char* begin_, const char* end_);

  ListingForm form;
  std::function<void(const RemoteFile&)> take;
  std::string rest;      // The beginning of a line.
  RemoteFile file;       // Kept, so that its strings keep their memory.
  bool is_empty = true;  // Nothing has come.
  bool makes_sense = false;
  bool has_bare = false;
  bool has_file = false;  // That is not bare.
};

// Listings of directories as servers send them.
#pragma once

#include <stddef.h>

#include <functional>
#include <string>

#include "remote.h"

// Bytes that a line may have. The longest name has 255, and in an MLSD listing a few facts precede
// it.
constexpr size_t kMaxListingLine = 4096;

enum class ListingForm {
  kFacts,  // "type=file;size=5;modify=20261121000733; name": FTP's MLSD.
  // "-rw-r--r-- 1 owner group 5 Nov 21 00:07 name", or "11-21-26 12:07AM 5 name". Names may be
  // anything, and owners may have blanks.
  kColumns,
};

// Takes a listing piece by piece and passes on its regular files. A file's stamp has the time as
// the listing gives it.
//
// Lines that make no sense are ignored, as a name with a line break causes them. It is an error if
// no line of a listing makes sense.
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
  std::string rest;      // The beginning of an incomplete line.
  RemoteFile file;       // Kept, so that its strings keep their memory.
  bool is_empty = true;  // No byte has come.
  bool makes_sense = false;
  bool has_bare = false;
  bool has_file = false;  // There was a file that is not bare.
};

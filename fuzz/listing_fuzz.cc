// Listings of servers. The first byte chooses the form and the size of the pieces.
//
// The pieces give the same result as the whole. Names and times are parts of the listing's lines.
#include <algorithm>
#include <vector>

#include "fuzz.h"
#include "listing.h"

namespace {

struct Result {
  std::vector<RemoteFile> files;
  std::string failure;
};

Result Read(ListingForm form_, const char* data_, size_t size_, size_t piece_size_) {
  Result result;
  ListingReader reader(form_,
                       [&result](const RemoteFile& file_) { result.files.push_back(file_); });
  try {
    for (size_t i = 0; i < size_; i += piece_size_) {
      // Each piece has its own memory, so that sanitizers notice a read beyond it.
      const std::vector<char> piece(data_ + i, data_ + std::min(i + piece_size_, size_));
      reader.Feed(piece.data(), piece.size());
    }
    reader.Finish();
  } catch (const std::string& failure) {
    result.failure = failure;
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  if (size_ == 0) {
    return 0;
  }
  const ListingForm form = data_[0] % 2 == 0 ? ListingForm::kFacts : ListingForm::kColumns;
  const auto* text = reinterpret_cast<const char*>(data_) + 1;
  const std::string listing(text, size_ - 1);
  const Result whole = Read(form, text, listing.size(), listing.size() + 1);
  const Result pieces = Read(form, text, listing.size(), data_[0] / 2 + 1U);
  fuzz::Require(whole.failure == pieces.failure, "pieces fail as the whole", whole.failure);
  fuzz::Require(whole.files.size() == pieces.files.size(), "pieces have all files");
  for (size_t i = 0; i < whole.files.size(); ++i) {
    const RemoteFile& file = whole.files[i];
    fuzz::Require(file.name == pieces.files[i].name && file.size == pieces.files[i].size &&
                      file.stamp == pieces.files[i].stamp,
                  "pieces have the same files", file.name);
    fuzz::Require(!file.name.empty() && listing.find(file.name) != std::string::npos,
                  "a name is in the listing", file.name);
    fuzz::Require(!file.stamp.empty() && file.name.find('\n') == std::string::npos,
                  "a file has a time, and its name no line break", file.name);
  }
  fuzz::Require(listing.empty() || listing.back() == '\n' || !whole.failure.empty(),
                "a listing that is cut is refused");
  return 0;
}

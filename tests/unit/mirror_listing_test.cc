#include "listing.h"
#include "test_util.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Files as "NAME|SIZE|STAMP".
std::vector<std::string> Files(ListingForm form_, const std::string& listing_,
                               size_t piece_size_ = std::string::npos) {
  std::vector<std::string> files;
  ListingReader reader(form_, [&files](const RemoteFile& file_) {
    files.push_back(file_.name + (file_.is_bare
                                      ? "|bare"
                                      : "|" + std::to_string(file_.size) + "|" + file_.stamp));
  });
  for (size_t i = 0; i < listing_.size(); i += std::min(piece_size_, listing_.size())) {
    const std::string piece = listing_.substr(i, piece_size_);
    reader.Feed(piece.data(), piece.size());
  }
  reader.Finish();
  return files;
}

std::string ThrownBy(ListingForm form_, const std::string& listing_) {
  return ThrownText([&] { Files(form_, listing_); });
}

constexpr char kFacts[] =
    "type=cdir;perm=el;size=4096;modify=20261121000733; .\r\n"
    "type=file;size=5;modify=20261121000733; a.txt\r\n"
    "Modify=20261121000733.25;unique=8g1;Size=18446744073709;Type=FILE; b; c=d\r\n"
    "type=dir;modify=20261121000733; e\r\n";

TEST(ListingReaderTest, ReadsFacts) {
  EXPECT_THAT(Files(ListingForm::kFacts, kFacts),
              ElementsAre("a.txt|5|20261121000733", "b; c=d|18446744073709|20261121000733.25"));
}

TEST(ListingReaderTest, ReadsPiecesLikeTheWhole) {
  const std::vector<std::string> files = Files(ListingForm::kFacts, kFacts);
  for (size_t size = 1; size < sizeof kFacts; ++size) {
    EXPECT_EQ(files, Files(ListingForm::kFacts, kFacts, size)) << size;
  }
}

TEST(ListingReaderTest, ReadsColumns) {
  const std::pair<const char*, const char*> lines[] = {
      {"-rw-r--r--    1 ftp      ftp             5 Nov 21 00:07 a.txt", "a.txt|5|Nov 21 00:07"},
      {"-rw-r--r--+ 1 WORKS\\jo lee domain users 5 Nov 21  2025 a b", "a b|5|Nov 21  2025"},
      {"-rw-r--r--  1 1000 5 Jan  1 00:07 5 Nov 21 00:07 x", "5 Nov 21 00:07 x|5|Jan  1 00:07"},
      {"-rw------- 1 a b 0 21 nov 2025  blank", " blank|0|21 nov 2025"},
      {"-rw-r--r-- 1 a b 5 2026-11-21 00:07 a.txt", "a.txt|5|2026-11-21 00:07"},
      {"11-21-26  12:07AM                    5 a b.txt", "a b.txt|5|11-21-26 12:07AM"},
  };
  for (const auto& [line, file] : lines) {
    EXPECT_THAT(Files(ListingForm::kColumns, line + std::string("\n")), ElementsAre(file)) << line;
  }
}

TEST(ListingReaderTest, LeavesOutAllButRegularFiles) {
  EXPECT_THAT(Files(ListingForm::kColumns,
                    "total 5\r\n"
                    "drwxr-xr-x 1 a b 5 Nov 21 00:07 directory\r\n"
                    "lrwxrwxrwx 1 a b 5 Nov 21 00:07 link -> a.txt\r\n"
                    "\r\n"
                    "the rest of a name\r\n"
                    "11-21-26  12:07AM  <DIR>  directory\r\n"),
              IsEmpty());
  EXPECT_THAT(Files(ListingForm::kFacts, ""), IsEmpty());
}

TEST(ListingReaderTest, MarksFilesWithoutSizeOrTime) {
  const std::string good = "type=file;size=5;modify=20261121000733; a.txt\r\n";
  for (const char* const facts : {"type=file;size=5;", "type=file;modify=2026;",
                                  "size=-5;type=file;modify=2026;", "type=file;size=5;modify=;"}) {
    EXPECT_THAT(Files(ListingForm::kFacts, facts + std::string(" b\r\n") + good),
                ElementsAre("b|bare", "a.txt|5|20261121000733"))
        << facts;
  }
}

TEST(ListingReaderTest, RefusesOtherTexts) {
  const std::string no_times = "the server does not tell sizes and times of files";
  const std::string cut = "the listing is not complete";
  const std::string unknown = "the form of the server's listing is unknown";
  const std::string good = "type=file;size=5;modify=20261121000733; a.txt\r\n";
  EXPECT_EQ(unknown, ThrownBy(ListingForm::kColumns, "a.txt\nb.txt\n"));
  EXPECT_EQ(unknown, ThrownBy(ListingForm::kFacts, "500 what?\r\n"));
  EXPECT_EQ(no_times, ThrownBy(ListingForm::kFacts, "type=file;size=5; a.txt\r\n"));
  EXPECT_EQ(no_times, ThrownBy(ListingForm::kFacts, "type=file;size=-5;modify=2026; a.txt\r\n"));
  for (size_t length = 1; length < good.size(); ++length) {
    EXPECT_EQ(cut, ThrownBy(ListingForm::kFacts, good + good.substr(0, length))) << length;
  }
}

TEST(ListingReaderTest, LimitsALine) {
  const std::string facts = "type=file;size=5;modify=20261121000733; ";
  const std::string longest(kMaxListingLine - facts.size(), 'x');
  EXPECT_THAT(Files(ListingForm::kFacts, facts + longest + "\n"),
              ElementsAre(longest + "|5|20261121000733"));
  const std::string refused = "a line of the listing is too long";
  EXPECT_EQ(refused, ThrownBy(ListingForm::kFacts, facts + longest + "x\n"));
  EXPECT_EQ(refused, ThrownBy(ListingForm::kFacts, facts + longest + "x"));
}

}  // namespace

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <set>

#include "directory_fixtures.h"
#include "stand_ins/listing.h"

// Replaces malloc() in the daemon's objects by an option of the linker. Larger requests fail.
// Emulators ignore a limit of the process.
static size_t failing_request = SIZE_MAX;
extern "C" void* __real_malloc(size_t size_);
extern "C" void* __wrap_malloc(size_t size_);
extern "C" void* __wrap_malloc(size_t size_) {
  return size_ < failing_request ? __real_malloc(size_) : nullptr;
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using stand_ins::listing;

class ListingTest : public DirectoryTest {
 protected:
  ~ListingTest() override {
    listing = {};
    failing_request = SIZE_MAX;
  }

  // Entries that are not on disk, the same for each pass.
  static void FakeListing(size_t count_, const std::string& name_, unsigned char type_ = DT_REG) {
    // Room for longer names than a dirent declares.
    const auto bytes = std::make_shared<std::vector<char>>(sizeof(dirent) + name_.size());
    dirent* const entry = reinterpret_cast<dirent*>(bytes->data());
    entry->d_type = type_;
    memcpy(bytes->data() + offsetof(dirent, d_name), name_.c_str(), name_.size() + 1);
    const auto left = std::make_shared<size_t>(count_);
    listing.next_entry = [bytes, entry, left]() -> const dirent* {
      return (*left)-- > 0 ? entry : nullptr;
    };
    listing.before_rewinddir = [left, count_] { *left = count_; };
  }
};

TEST_F(ListingTest, ListsThroughDescriptorsThatChildrenDoNotGet) {
  bool checked = false;
  listing.before_readdir = [&] {
    checked = true;
    for (const int fd : DescriptorsOf(shared_path)) {
      EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD)) << fd;
    }
  };
  shared.GetFileNames();
  EXPECT_TRUE(checked);
  listing.before_readdir = nullptr;
  // The directory's own and the other process's.
  EXPECT_EQ(2U, DescriptorsOf(shared_path).size());
}

TEST_F(ListingTest, IgnoresEntriesOfUnknownType) {
  for (const unsigned char type : {DT_UNKNOWN, DT_DIR, DT_LNK, DT_FIFO, DT_SOCK, DT_CHR, DT_BLK}) {
    FakeListing(3, "name", type);
    EXPECT_THAT(shared.GetFileNames(), IsEmpty()) << static_cast<int>(type);
    FakeListing(3, "name", type);
    EXPECT_EQ(0, shared.GetFileCountLocked()) << static_cast<int>(type);
  }
}

TEST_F(ListingTest, CutsANameAfter4095Bytes) {
  for (const size_t length : {255U, 4094U, 4095U, 4096U, 5000U}) {
    FakeListing(2, std::string(length, 'n'));
    const std::string cut(std::min<size_t>(length, 4095), 'n');
    EXPECT_THAT(shared.GetFileNames(), ElementsAre(cut, cut)) << length;
  }
}

// Network shares have such numbers; a program built for 32-bit numbers cannot list them.
TEST_F(ListingTest, ListsFilesWithInodeNumbersOf64Bits) {
  static_assert(sizeof(ino_t) == 8 && sizeof(off_t) == 8 && sizeof(dirent::d_ino) == 8);
  dirent entry = {};
  entry.d_ino = ino_t{1} << 40;
  entry.d_type = DT_REG;
  strcpy(entry.d_name, "far");
  bool is_read = false;
  listing.next_entry = [&] {
    is_read = !is_read;
    return is_read ? &entry : nullptr;
  };
  listing.before_rewinddir = [&] { is_read = false; };
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("far"));
  is_read = false;
  EXPECT_EQ(1, shared.GetFileCountLocked());
}

TEST_F(ListingTest, ListsEmptyNamesForFilesThatVanishMeanwhile) {
  WriteFiles({"a", "b", "c", "d", "e"});
  listing.before_rewinddir = [&] {
    Remove("b");
    Remove("d");
  };
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("", "", "a"));
  listing.before_rewinddir = nullptr;
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("a", "c", "e"));
}

TEST_F(ListingTest, ListsNoMoreFilesThanItCounted) {
  WriteFiles({"a", "b"});
  listing.before_rewinddir = [&] { WriteFiles({"c", "d", "e"}); };
  const std::list<std::string> names = shared.GetFileNames();
  EXPECT_EQ(2U, names.size());
  for (const std::string& name : names) {
    EXPECT_THAT((std::set<std::string>{"a", "b", "c", "d", "e"}), testing::Contains(name));
  }
  listing.before_rewinddir = nullptr;
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("a", "b", "c", "d", "e"));
}

TEST_F(ListingTest, ListsNothingIfItCountedNothing) {
  listing.before_rewinddir = [&] { WriteFiles({"a"}); };
  EXPECT_THAT(shared.GetFileNames(), IsEmpty());
}

size_t PagesOfMemory() {
  std::ifstream file("/proc/self/statm");
  size_t total = 0;
  size_t resident = 0;
  file >> total >> resident;
  return resident;
}

TEST_F(ListingTest, ListsNothingWithoutMemory) {
  FakeListing(2000, "name");
  failing_request = 8192000;
  EXPECT_EQ("Could not allocate 8192000 bytes for sorting files\n",
            LogOf([&] { EXPECT_THAT(shared.GetFileNames(), IsEmpty()); }));
  EXPECT_TRUE(other_process.CouldLock());
  EXPECT_EQ(2U, DescriptorsOf(shared_path).size());  // No listing is left open.
}

TEST_F(ListingTest, RecoversFromALackOfMemory) {
  WriteFiles({"a", "b"});
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("a", "b"));
  FakeListing(2000, "name");
  failing_request = 8192000;
  EXPECT_EQ("Could not allocate 8192000 bytes for sorting files\n",
            LogOf([&] { shared.GetFileNames(); }));
  listing.next_entry = nullptr;
  listing.before_rewinddir = nullptr;
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("a", "b"));
}

TEST_F(ListingTest, KeepsItsMemoryForTheNextListing) {
  constexpr size_t kFiles = 20000;
  const size_t slots = kFiles * 4096 / static_cast<size_t>(sysconf(_SC_PAGESIZE));  // In pages.
  FakeListing(kFiles, "name");
  EXPECT_EQ(kFiles, shared.GetFileNames().size());
  const size_t before = PagesOfMemory();
  ASSERT_GT(before, slots);
  FakeListing(1, "name");
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("name"));
  EXPECT_GT(PagesOfMemory() + slots / 2, before);
}

}  // namespace

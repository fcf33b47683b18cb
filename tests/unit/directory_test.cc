#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <random>
#include <type_traits>

#include "directory_fixtures.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_copy_constructible_v<Directory> && !std::is_copy_assignable_v<Directory>);

// As qsort sorts whole slots.
TEST_F(DirectoryTest, SortsManyNamesOfAllLengths) {
  const TemporaryDirectory directory;
  std::mt19937 random(1);
  std::vector<std::string> names;
  for (int i = 0; i < 300; ++i) {
    std::string name;
    const size_t length = i < 250 ? 1 + random() % 20 : 200 + random() % 56;
    while (name.size() < length) {
      const char byte = static_cast<char>(1 + random() % 255);
      if (byte != '/' && (byte != '.' || !name.empty())) {
        name += byte;
      }
    }
    directory.Write(name, "");
    names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  Directory listed(directory.path);
  const std::list<std::string> expected(names.begin(), names.end());
  EXPECT_EQ(expected, listed.GetFileNames());
  for (size_t i = 0; i < names.size(); i += 2) {
    unlink((directory / names[i]).c_str());
  }
  const std::list<std::string> fewer = listed.GetFileNames();
  EXPECT_EQ(names.size() / 2, fewer.size());
  EXPECT_TRUE(std::is_sorted(fewer.begin(), fewer.end()));
}

TEST_F(DirectoryTest, OpensAPathWithOrWithoutASlash) {
  WriteFiles({"a"});
  const std::string without_slash = temporary / "shared";
  for (const std::string& path : {without_slash, without_slash + "/", without_slash + "//"}) {
    EXPECT_THAT(Directory(path).GetFileNames(), ElementsAre("a")) << path;
  }
}

TEST_F(DirectoryTest, ThrowsForAMissingDirectory) {
  const std::string missing = temporary / "missing";
  for (const std::string& path : {missing, missing + "/"}) {
    EXPECT_EQ("Could not open directory " + missing + "/",
              ThrownText([&path_to_open = path] { const Directory directory(path_to_open); }));
  }
  EXPECT_EQ("Could not open directory ", ThrownText([] { const Directory directory(""); }));
  EXPECT_EQ("", WholeLogOf([&] { ThrownText([&] { const Directory directory(missing); }); }));
}

TEST_F(DirectoryTest, OpensAFileButCannotListIt) {
  const std::string file = temporary.Write("file", "");
  Directory directory(file);
  EXPECT_EQ("Could not open \"" + file + "/\" for enumeration: Not a directory",
            ThrownText([&] { directory.GetFileNames(); }));
  EXPECT_EQ("Could not open \"" + file + "/\" for counting: Not a directory\n",
            LogOf([&] { EXPECT_EQ(0, directory.GetFileCountLocked()); }));
  EXPECT_EQ("Could not open directory " + file + "/",
            ThrownText([&] { const Directory with_slash(file + "/"); }));
}

TEST_F(DirectoryTest, KeepsItsDescriptorFromChildrenAndClosesIt) {
  const std::string path = temporary.MakeDirectory("another");
  {
    const Directory directory(path);
    const std::vector<int> descriptors = DescriptorsOf(path);
    ASSERT_EQ(1U, descriptors.size());
    EXPECT_EQ(FD_CLOEXEC, fcntl(descriptors[0], F_GETFD));
  }
  EXPECT_THAT(DescriptorsOf(path), IsEmpty());
}

TEST_F(DirectoryTest, FindsNothingInAnEmptyDirectory) {
  EXPECT_EQ("", WholeLogOf([&] {
              EXPECT_EQ(0, shared.GetFileCountLocked());
              EXPECT_THAT(shared.GetFileNames(), IsEmpty());
            }));
}

TEST_F(DirectoryTest, ListsVisibleFilesInByteOrder) {
  WriteFiles(
      {"b", "A", "a", ".hidden", "10", "9", "B", "-", "a.wav", "a-", "\xC3\xA9", "\xFF", "~"});
  EXPECT_EQ(12, shared.GetFileCountLocked());
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("-", "10", "9", "A", "B", "a", "a-", "a.wav", "b",
                                                 "~", "\xC3\xA9", "\xFF"));
}

TEST_F(DirectoryTest, IgnoresEverythingButVisibleRegularFiles) {
  WriteFiles({".hidden", "..two", "...", "file"});
  temporary.MakeDirectory("shared/directory");
  temporary.Write("shared/directory/inner", "");
  EXPECT_EQ(0, symlink("file", (shared_path + "link").c_str()));
  EXPECT_EQ(0, symlink("missing", (shared_path + "dangling").c_str()));
  EXPECT_EQ(0, mkfifo((shared_path + "fifo").c_str(), 0600));
  sockaddr_un address{AF_UNIX, ""};
  snprintf(address.sun_path, sizeof(address.sun_path), "%ssocket", shared_path.c_str());
  const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(0, bind(server, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
  close(server);
  EXPECT_EQ(1, shared.GetFileCountLocked());
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("file"));
}

TEST_F(DirectoryTest, SeesChangesBetweenListings) {
  WriteFiles({"b", "c"});
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("b", "c"));
  WriteFiles({"a", "d"});
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("a", "b", "c", "d"));
  EXPECT_EQ(4, shared.GetFileCountLocked());
  Remove("a");
  Remove("c");
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("b", "d"));
  EXPECT_EQ(2, shared.GetFileCountLocked());
}

TEST_F(DirectoryTest, LogsThatItCannotCount) {
  ASSERT_EQ(0, rmdir(shared_path.c_str()));
  EXPECT_EQ("Could not open \"" + shared_path + "\" for counting: No such file or directory\n",
            LogOf([&] { EXPECT_EQ(0, shared.GetFileCountLocked()); }));
  EXPECT_TRUE(other_process.CouldLock());
}

class DirectoryCommandTest : public DirectoryTest {
 protected:
  DirectoryCommandTest() { setenv("LC_ALL", "C", 1); }  // For the texts of cp and mv.
};

TEST_F(DirectoryCommandTest, CopiesAndMovesUnderANewName) {
  const std::string source = temporary.Write("source", "text");
  EXPECT_EQ("", WholeLogOf([&] { shared.CopyIntoDirectoryLocked(source, "1_copy.raw"); }));
  EXPECT_EQ("text", ReadFile(source));
  EXPECT_EQ("", WholeLogOf([&] { shared.MoveIntoDirectoryLocked(source, "2_moved.raw"); }));
  EXPECT_FALSE(Exists(source));
  for (const char* name : {"1_copy.raw", "2_moved.raw"}) {
    EXPECT_EQ("text", ReadFile(shared_path + name)) << name;
  }
  EXPECT_THAT(shared.GetFileNames(), ElementsAre("1_copy.raw", "2_moved.raw"));
}

TEST_F(DirectoryCommandTest, LogsACommandThatFails) {
  const std::string missing = temporary / "missing";
  const std::string arguments = missing + " " + shared_path + "new";
  const std::string why = ": cannot stat '" + missing + "': No such file or directory\n";
  EXPECT_EQ("cp" + why + "Could not execute \"cp " + arguments + "\"\n",
            LogOf([&] { shared.CopyIntoDirectoryLocked(missing, "new"); }));
  EXPECT_EQ("mv" + why + "Could not execute \"mv " + arguments + "\"\n",
            LogOf([&] { shared.MoveIntoDirectoryLocked(missing, "new"); }));
  EXPECT_TRUE(other_process.CouldLock());
  EXPECT_THAT(shared.GetFileNames(), IsEmpty());
}

TEST_F(DirectoryCommandTest, DoesNotQuoteNames) {
  temporary.Write("one", "1");
  temporary.Write("two", "2");
  temporary.MakeDirectory("shared/sub");
  shared.CopyIntoDirectoryLocked(temporary / "one " + (temporary / "two"), "sub");
  EXPECT_EQ("1", ReadFile(shared_path + "sub/one"));
  EXPECT_EQ("2", ReadFile(shared_path + "sub/two"));
}

TEST_F(DirectoryTest, ClearsTheListedFilesOnly) {
  WriteFiles({"a", "b", ".hidden"});
  temporary.MakeDirectory("shared/directory");
  EXPECT_EQ(0, symlink(".hidden", (shared_path + "link").c_str()));
  EXPECT_EQ("", WholeLogOf([&] { shared.ClearDirectoryLocked(); }));
  EXPECT_FALSE(Exists(shared_path + "a"));
  EXPECT_FALSE(Exists(shared_path + "b"));
  for (const char* const name : {".hidden", "directory", "link"}) {
    EXPECT_TRUE(Exists(shared_path + name)) << name;
  }
  shared.ClearDirectoryLocked();
}

}  // namespace

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>

#include "format.h"
#include "stand_ins/files.h"
#include "test_util.h"

namespace {

TEST(WriteWholeTest, ReportsThatNotAllWasWritten) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK));
  EXPECT_TRUE(WriteWhole(ends[1], "", 0));
  EXPECT_TRUE(WriteWhole(ends[1], "a\0b", 3));
  char text[10] = "";
  EXPECT_EQ(3, read(ends[0], text, sizeof(text)));
  EXPECT_EQ(std::string("a\0b", 3), std::string(text, 3));
  const std::string large(1 << 20, 'x');
  EXPECT_FALSE(WriteWhole(ends[1], large.data(), large.size()));
  EXPECT_EQ(EAGAIN, errno);
  close(ends[0]);
  close(ends[1]);
}

TEST(WriteWholeTest, GoesOnDespiteSignals) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  stand_ins::files.write_interruptions = 2;
  EXPECT_TRUE(WriteWhole(ends[1], "abc", 3));
  EXPECT_EQ(0, stand_ins::files.write_interruptions);
  char text[10] = "";
  EXPECT_EQ(3, read(ends[0], text, sizeof(text)));
  EXPECT_STREQ("abc", text);
  close(ends[0]);
  close(ends[1]);
}

TEST(WriteWholeTest, GoesOnWhileAnythingIsTaken) {
  EXPECT_EQ("abc", LogOf([] {
              stand_ins::files.write_piece = 1;
              errno = 0;
              EXPECT_TRUE(WriteWhole(STDERR_FILENO, "abc", 3));
            }));
  stand_ins::files.write_piece = 0;
  EXPECT_FALSE(WriteWhole(STDERR_FILENO, "abc", 3));
  stand_ins::files.write_piece = SIZE_MAX;
}

std::string ReadAll(InputFile* file_, size_t block_size_) {
  std::string content;
  std::string block(block_size_, '\0');
  size_t length = 0;
  while ((length = file_->Read(block.data(), block_size_)) > 0) {
    content.append(block, 0, length);
  }
  return content;
}

TEST(InputFileTest, ReadsAFileInBlocks) {
  const TemporaryDirectory directory;
  const std::string content("line\r\n\0\xFF and more", 16);
  const std::string path = directory.Write("file", content);
  for (size_t block_size = 1; block_size <= content.size() + 1; ++block_size) {
    InputFile file(path);
    EXPECT_TRUE(file.IsOpen());
    EXPECT_EQ(content, ReadAll(&file, block_size)) << block_size;
  }
}

TEST(InputFileTest, ReadsNothingFromAMissingFile) {
  const TemporaryDirectory directory;
  InputFile missing(directory / "missing");
  EXPECT_EQ(ENOENT, errno);
  EXPECT_FALSE(missing.IsOpen());
  EXPECT_EQ("", ReadAll(&missing, 10));
}

TEST(InputFileTest, OpensRegularFilesOnly) {
  const TemporaryDirectory directory;
  const std::string fifo = directory / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  const std::string link = directory / "link";
  ASSERT_EQ(0, symlink("/dev/zero", link.c_str()));
  const int writer = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(1, write(writer, "x", 1));
  const std::pair<std::string, int> rows[] = {{directory.path, EISDIR},
                                              {fifo, EINVAL},
                                              {"/dev/null", EINVAL},
                                              {"/dev/zero", EINVAL},
                                              {link, EINVAL}};
  for (const auto& [path, error] : rows) {
    const std::vector<int> descriptors = DescriptorsOf(path);
    InputFile file(path);
    EXPECT_EQ(error, errno) << path;
    EXPECT_FALSE(file.IsOpen()) << path;
    EXPECT_EQ("", ReadAll(&file, 10)) << path;
    EXPECT_EQ(descriptors, DescriptorsOf(path)) << path;
  }
  close(writer);
}

TEST(InputFileTest, DoesNotWaitForTheWriterOfAFifo) {
  const TemporaryDirectory directory;
  const std::string path = directory / "fifo";
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  EXPECT_FALSE(InputFile(path).IsOpen());
}

TEST(InputFileTest, FillsABlockFromSmallReadsDespiteSignals) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "0123456789");
  InputFile file(path);
  stand_ins::files.read_piece = 3;
  stand_ins::files.read_interruptions = 2;
  char buffer[12] = "-----------";
  EXPECT_EQ(8U, file.Read(buffer + 1, 8));
  EXPECT_STREQ("-01234567--", buffer);
  EXPECT_EQ(2U, file.Read(buffer, 8));
  EXPECT_STREQ("891234567--", buffer);
  stand_ins::files.read_piece = SIZE_MAX;
}

TEST(InputFileTest, ReadsNothingAfterTheLastByte) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "0123456789");
  for (const size_t block_size : {5U, 10U, 11U}) {
    InputFile file(path);
    stand_ins::files.reads = 0;
    EXPECT_EQ("0123456789", ReadAll(&file, block_size));
    EXPECT_EQ(block_size == 5 ? 2 : 1, stand_ins::files.reads) << block_size;
  }
}

TEST(InputFileTest, EndsWhereTheFileEndedWhenItWasOpened) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "0123456789");
  InputFile growing(path);
  InputFile shrinking(path);
  directory.Write("file", "0123456789abc");
  EXPECT_EQ("0123456789", ReadAll(&growing, 20));
  directory.Write("file", "01234");
  EXPECT_EQ("01234", ReadAll(&shrinking, 20));
  directory.Write("file", "0");
  InputFile smallest(path);
  directory.Write("file", "01");
  EXPECT_EQ("0", ReadAll(&smallest, 20));
}

TEST(InputFileTest, ReadsAFileOfUnknownSize) {
  struct stat status {};
  ASSERT_EQ(0, stat("/proc/self/environ", &status));
  ASSERT_EQ(0, status.st_size);
  for (const size_t block_size : {7U, 100000U}) {
    InputFile file("/proc/self/environ");
    EXPECT_EQ(ReadFile("/proc/self/environ"), ReadAll(&file, block_size));
  }
}

TEST(InputFileTest, KeepsItsDescriptorFromChildrenAndClosesIt) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "text");
  {
    const InputFile file(path);
    const std::vector<int> descriptors = DescriptorsOf(path);
    ASSERT_EQ(1U, descriptors.size());
    EXPECT_EQ(FD_CLOEXEC, fcntl(descriptors[0], F_GETFD));
  }
  EXPECT_THAT(DescriptorsOf(path), testing::IsEmpty());
}

TEST(InputFileTest, ClosesTheDescriptorNumberedZeroToo) {
  const int saved = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  {
    const InputFile file("/proc/self/environ");
    EXPECT_NE(-1, fcntl(STDIN_FILENO, F_GETFD));
  }
  EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));
  if (saved >= 0) {
    EXPECT_EQ(STDIN_FILENO, dup2(saved, STDIN_FILENO));
    close(saved);
  }
}

}  // namespace

#include "format.h"
#include "test_util.h"

namespace {

class CreateTemporaryTest : public testing::Test {
 protected:
  // Both functions put "/tmp/" before the prefix. With this prefix, they write below scratch.
  std::string Prefix(const std::string& name_) const {
    return (scratch / name_).substr(std::string("/tmp/").size());
  }
  // A prefix of that many characters in an existing directory.
  std::string LongPrefix(size_t length_) const {
    std::string path = scratch.path;
    const size_t path_length = length_ + std::string("/tmp/").size();
    while (path.size() + 200 < path_length) {
      path += "/" + std::string(100, 'd');
      EXPECT_EQ(0, mkdir(path.c_str(), 0777));
    }
    path += "/";
    path.resize(path_length, 'p');
    return path.substr(std::string("/tmp/").size());
  }

  const TemporaryDirectory scratch;
};

TEST_F(CreateTemporaryTest, MakesAnEmptyPrivateFile) {
  const mode_t saved = umask(0);
  const std::string path = CreateTemporaryFile(Prefix("text").c_str());
  umask(saved);
  EXPECT_THAT(path, testing::MatchesRegex(scratch / "text[A-Za-z0-9]{6}"));
  EXPECT_EQ(S_IFREG | 0600U, ModeOf(path));
  EXPECT_EQ("", ReadFile(path));
}

TEST_F(CreateTemporaryTest, MakesAnEmptyPrivateDirectory) {
  const mode_t saved = umask(0);
  const std::string path = CreateTemporaryDirectory(Prefix("watch").c_str());
  umask(saved);
  EXPECT_THAT(path, testing::MatchesRegex(scratch / "watch[A-Za-z0-9]{6}"));
  EXPECT_EQ(S_IFDIR | 0700U, ModeOf(path));
  EXPECT_EQ(0, rmdir(path.c_str()));  // Fails unless it is empty.
}

TEST_F(CreateTemporaryTest, KeepsNoDescriptor) {
  const std::string file = CreateTemporaryFile(Prefix("x").c_str());
  const std::string directory = CreateTemporaryDirectory(Prefix("x").c_str());
  EXPECT_THAT(DescriptorsOf(file), testing::IsEmpty());
  EXPECT_THAT(DescriptorsOf(directory), testing::IsEmpty());
}

// Neither function makes anything: each throws this template.
void ExpectFailure(const std::string& prefix_, const std::string& template_) {
  const std::string text = " with template \"" + template_ + "\"";
  EXPECT_EQ("Could not create temporary directory" + text,
            ThrownText([&] { CreateTemporaryDirectory(prefix_.c_str()); }));
  EXPECT_EQ("Could not create temporary file" + text,
            ThrownText([&] { CreateTemporaryFile(prefix_.c_str()); }));
}

TEST_F(CreateTemporaryTest, ThrowsTheTemplateWithoutItsDirectory) {
  const std::string prefix = Prefix("missing/x");
  ExpectFailure(prefix, "/tmp/" + prefix + "XXXXXX");
}

// 4095 characters: 5 of "/tmp/", 4084 of the prefix, 6 of "XXXXXX".
TEST_F(CreateTemporaryTest, TakesAPrefixThatJustFits) {
  const std::string prefix = LongPrefix(4084);
  for (const auto create : {CreateTemporaryDirectory, CreateTemporaryFile}) {
    const std::string path = create(prefix.c_str());
    EXPECT_THAT(path, testing::StartsWith("/tmp/" + prefix));
    EXPECT_EQ(4095U, path.size());
  }
}

TEST_F(CreateTemporaryTest, FailsIfThePrefixCutsTheTemplate) {
  for (const size_t length : {4085U, 4089U, 4090U, 4091U, 5000U}) {
    const std::string prefix = length == 4085 ? LongPrefix(length) : std::string(length, 'p');
    ExpectFailure(prefix, ("/tmp/" + prefix + "XXXXXX").substr(0, 4095));
  }
}

}  // namespace

#include "safe_strncpycat.h"

#include <string.h>

#include "test_util.h"

namespace {

// A buffer of n bytes between two guards, all filled with '#'.
class Buffer {
 public:
  explicit Buffer(size_t n_) : n(n_), bytes(kGuard + n_ + kGuard, '#') {}
  Buffer(size_t n_, const std::string& content_) : Buffer(n_) {
    bytes.replace(kGuard, n_, content_);
  }

  char* data() { return bytes.data() + kGuard; }
  // All n bytes; the guards must be untouched.
  std::string Content() const {
    EXPECT_EQ(std::string(kGuard, '#'), bytes.substr(0, kGuard));
    EXPECT_EQ(std::string(kGuard, '#'), bytes.substr(kGuard + n));
    return bytes.substr(kGuard, n);
  }

 private:
  static constexpr size_t kGuard = 8;
  const size_t n;
  std::string bytes;
};

std::string Zeros(size_t n_) { return std::string(n_, '\0'); }

TEST(SafeStrncpyTest, CopiesWhatFitsAndZeroesTheRest) {
  struct Row {
    size_t n;
    const char* src;
    std::string content;
  };
  const Row rows[] = {
      {8, "", Zeros(8)},
      {8, "abc", "abc" + Zeros(5)},
      {4, "abc", "abc" + Zeros(1)},
      {4, "abcd", "abc" + Zeros(1)},
      {4, "abcdefgh", "abc" + Zeros(1)},
      {2, "abc", "a" + Zeros(1)},
      {2, "", Zeros(2)},
      {1, "abc", Zeros(1)},
      {1, "", Zeros(1)},
  };
  for (const Row& row : rows) {
    Buffer buffer(row.n);
    EXPECT_EQ(buffer.data(), safe_strncpy(buffer.data(), row.n, row.src));
    EXPECT_EQ(row.content, buffer.Content()) << row.n << " bytes, source " << row.src;
  }
}

TEST(SafeStrncpyTest, TreatsNullAsTheEmptyString) {
  Buffer buffer(4);
  EXPECT_EQ(buffer.data(), safe_strncpy(buffer.data(), 4, nullptr));
  EXPECT_EQ('\0', buffer.Content()[0]);
}

TEST(SafeStrncpyTest, DoesNothingWithoutABuffer) {
  EXPECT_EQ(nullptr, safe_strncpy(nullptr, 4, "abc"));
  EXPECT_EQ(nullptr, safe_strncpy(nullptr, 0, nullptr));
  Buffer buffer(4);
  EXPECT_EQ(buffer.data(), safe_strncpy(buffer.data(), 0, "abc"));
  EXPECT_EQ("####", buffer.Content());
}

TEST(SafeStrncatTest, AppendsWhatFitsAndZeroesTheRest) {
  struct Row {
    std::string before;  // The whole buffer.
    const char* src;
    std::string after;
  };
  const Row rows[] = {
      {"ab" + Zeros(2), "xyz", "abx" + Zeros(1)},
      {"ab" + Zeros(1) + "#", "", "ab" + Zeros(2)},
      {"ab" + Zeros(1) + "#####", "x", "abx" + Zeros(5)},
      {Zeros(1) + "###", "xyz", "xyz" + Zeros(1)},
      {Zeros(1) + "###", "vwxyz", "vwx" + Zeros(1)},
      {"abc" + Zeros(1), "xyz", "abc" + Zeros(1)},
      {"abcd", "xyz", "abc" + Zeros(1)},
      {Zeros(1) + "#", "xyz", "x" + Zeros(1)},
      {"ab", "xyz", "a" + Zeros(1)},
  };
  for (const Row& row : rows) {
    Buffer buffer(row.before.size(), row.before);
    EXPECT_EQ(buffer.data(), safe_strncat(buffer.data(), row.before.size(), row.src));
    EXPECT_EQ(row.after, buffer.Content()) << row.before << " + " << row.src;
  }
}

TEST(SafeStrncatTest, AppendsNothingForNullButStillTerminates) {
  Buffer terminated(4, "a" + Zeros(1) + "bc");
  EXPECT_EQ(terminated.data(), safe_strncat(terminated.data(), 4, nullptr));
  EXPECT_EQ("a" + Zeros(1) + "b" + Zeros(1), terminated.Content());
  Buffer unterminated(4, "abcd");
  EXPECT_EQ(unterminated.data(), safe_strncat(unterminated.data(), 4, nullptr));
  EXPECT_EQ("abc" + Zeros(1), unterminated.Content());
}

TEST(SafeStrncatTest, LeavesAnEmptyStringInASingleByte) {
  for (const char* const src : {"", "a", static_cast<const char*>(nullptr)}) {
    Buffer buffer(1, "z");
    EXPECT_EQ(buffer.data(), safe_strncat(buffer.data(), 1, src));
    EXPECT_EQ(Zeros(1), buffer.Content()) << (src == nullptr ? "null" : src);
  }
}

TEST(SafeStrncatTest, DoesNothingWithoutABuffer) {
  EXPECT_EQ(nullptr, safe_strncat(nullptr, 4, "abc"));
  EXPECT_EQ(nullptr, safe_strncat(nullptr, 0, nullptr));
  Buffer buffer(4, "abcd");
  EXPECT_EQ(buffer.data(), safe_strncat(buffer.data(), 0, "xyz"));
  EXPECT_EQ("abcd", buffer.Content());
}

}  // namespace

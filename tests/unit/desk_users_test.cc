#include <crypt.h>

#include "test_util.h"
#include "users.h"

namespace {

// The method and the cost of each computed hash.
std::vector<std::string> computed;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes these names.
extern "C" char* __real_crypt_rn(const char* phrase_, const char* setting_, void* data_, int size_);
extern "C" char* __wrap_crypt_rn(const char* phrase_, const char* setting_, void* data_, int size_);
extern "C" char* __wrap_crypt_rn(const char* phrase_, const char* setting_, void* data_,
                                 int size_) {
  char* const hash = __real_crypt_rn(phrase_, setting_, data_, size_);
  computed.push_back(std::string(hash == nullptr ? "" : hash).substr(0, 7));
  return hash;
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

class UsersTest : public testing::Test {
 protected:
  UsersTest() { computed.clear(); }

  void Add(const std::string& name_, const std::string& password_, const Role* role_ = nullptr) {
    AddUser(path, name_, password_, role_, "no-such-group");
  }

  const TemporaryDirectory directory;
  const std::string path = directory / "users";
  Users users{path};
};

TEST_F(UsersTest, KnowsThePasswordOfAUserThatWasAdded) {
  Add("anna", "correct horse");
  Add("Jos\xC3\xA9 B.", "another one");
  EXPECT_TRUE(users.IsPassword("anna", "correct horse"));
  EXPECT_TRUE(users.IsPassword("Jos\xC3\xA9 B.", "another one"));
  for (const std::string password : {"", "correct hors", "correct horse ", "another one"}) {
    EXPECT_FALSE(users.IsPassword("anna", password)) << password;
  }
  for (const std::string name : {"", "Anna", "anna:say", "nobody"}) {
    EXPECT_FALSE(users.IsPassword(name, "correct horse")) << name;
  }
}

TEST_F(UsersTest, UnknownUserTakesTheSameHash) {
  users.IsPassword("nobody", "correct horse");
  Add("anna", "correct horse");
  users.IsPassword("anna", "correct horse");
  users.IsPassword("anna", std::string(kMaxPassword + 1, 'a'));
  users.IsPassword("nobody", "correct horse");
  EXPECT_EQ(std::vector<std::string>(5, "$y$j7T$"), computed);
}

TEST_F(UsersTest, KeepsTheRoleUnlessAnotherIsGiven) {
  const Role look = Role::kLook;
  Add("anna", "correct horse");
  EXPECT_EQ(Role::kSay, users.Find("anna")->role);
  Add("anna", "correct horse", &look);
  EXPECT_EQ(Role::kLook, users.Find("anna")->role);
  Add("anna", "another one");
  EXPECT_EQ(Role::kLook, users.Find("anna")->role);
  EXPECT_TRUE(users.IsPassword("anna", "another one"));
}

TEST_F(UsersTest, KeepsTheOtherLinesAndTheMode) {
  directory.Write("users", "# Night shift\nben:operate:$y$j7T$a$b\n");
  ASSERT_EQ(0, chmod(path.c_str(), 0640));
  Add("anna", "correct horse");
  EXPECT_THAT(ReadFile(path),
              testing::StartsWith("# Night shift\nben:operate:$y$j7T$a$b\nanna:say:$y$"));
  EXPECT_EQ(0640u, ModeOf(path) & 0777);
  EXPECT_EQ(0, system(("test $(ls " + directory.path + " | wc -l) = 1").c_str()));
}

TEST_F(UsersTest, NewFileIsReadableByItsOwnerOnly) {
  Add("anna", "correct horse");
  EXPECT_EQ(0600u, ModeOf(path) & 0777);
}

TEST_F(UsersTest, RejectsNamesAndPasswords) {
  for (const std::string& name :
       {std::string(), std::string("a:b"), std::string("a\nb"), std::string(" a"),
        std::string("#a"), std::string("\xFF"), std::string(kMaxUserName + 1, 'a')}) {
    EXPECT_EQ("\"" + name + "\" cannot be the name of a user",
              ThrownText([&] { Add(name, "12345678"); }));
  }
  for (const std::string& password :
       {std::string(kMinPassword - 1, 'a'), std::string(kMaxPassword + 1, 'a')}) {
    EXPECT_EQ("a password must have 8 to 256 bytes", ThrownText([&] { Add("anna", password); }));
  }
  EXPECT_EQ("a password must be UTF-8 without control characters",
            ThrownText([&] { Add("anna", "1234567\x03"); }));
  EXPECT_FALSE(Exists(path));
}

TEST_F(UsersTest, LongestPasswordIsCheckedInFull) {
  const std::string longest(kMaxPassword, 'a');
  Add("anna", longest);
  EXPECT_TRUE(users.IsPassword("anna", longest));
  EXPECT_FALSE(users.IsPassword("anna", longest + "a"));
  EXPECT_FALSE(users.IsPassword("anna", longest.substr(1)));
}

TEST_F(UsersTest, LogsBadLinesOnce) {
  directory.Write("users", "\n# a\nanna\nben:king:$y$j7T$a$b\neve:say:plain\n:say:$y$j7T$a$b\n");
  EXPECT_EQ(path + ", line 3: not of the form NAME:ROLE:HASH\n" + path +
                ", line 4: no role \"king\"; there are look, say and operate\n" + path +
                ", line 5: no usable hash\n" + path + ", line 6: no usable name\n",
            LogOf([&] {
              users.Find("anna");
              users.Find("anna");
            }));
  EXPECT_FALSE(users.IsPassword("eve", "plain"));
}

TEST_F(UsersTest, LogsAMissingFileOnce) {
  EXPECT_EQ("Nobody can log in: " + path + ": No such file or directory\n", LogOf([&] {
              users.Find("anna");
              users.IsPassword("anna", "correct horse");
            }));
  Add("anna", "correct horse");
  EXPECT_NE(nullptr, users.Find("anna"));
}

TEST_F(UsersTest, ForgetsAUserWhoIsRemoved) {
  Add("anna", "correct horse");
  ASSERT_NE(nullptr, users.Find("anna"));
  directory.Write("users", "");
  EXPECT_EQ(nullptr, users.Find("anna"));
}

}  // namespace

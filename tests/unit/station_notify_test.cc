#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "notify.h"
#include "test_util.h"

namespace {

// A service manager's socket; a name that begins with "@" is abstract.
class Manager {
 public:
  explicit Manager(const std::string& name_) : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name_.data(), name_.size());
    if (name_[0] == '@') {
      address.sun_path[0] = '\0';
    }
    const size_t length = offsetof(sockaddr_un, sun_path) + name_.size();
    EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length)));
    setenv("NOTIFY_SOCKET", name_.c_str(), 1);
  }
  ~Manager() { close(fd); }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  std::string Next() const {
    char text[1000];
    const ssize_t length = recv(fd, text, sizeof(text), 0);
    return length < 0 ? "nothing" : std::string(text, static_cast<size_t>(length));
  }

 private:
  int fd;
};

TEST(NotifierTest, SendsToTheManagersSocket) {
  const TemporaryDirectory directory;
  for (const std::string& name : {directory / "socket", "@" + directory.path}) {
    SCOPED_TRACE(name);
    const Manager manager(name);
    setenv("WATCHDOG_USEC", "30000000", 1);
    const Notifier notifier;
    EXPECT_TRUE(notifier.HasWatchdog());
    notifier.Send("READY=1\nSTATUS=idle");
    EXPECT_EQ("READY=1\nSTATUS=idle", manager.Next());
    EXPECT_EQ("nothing", manager.Next());
    EXPECT_EQ(nullptr, getenv("NOTIFY_SOCKET"));
    EXPECT_EQ(nullptr, getenv("WATCHDOG_USEC"));
  }
}

TEST(NotifierTest, DoesNothingWithoutAManager) {
  const TemporaryDirectory directory;
  for (const std::string& name : {std::string(), directory / "none", std::string(200, 'x')}) {
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    const Notifier notifier;
    EXPECT_FALSE(notifier.HasWatchdog());
    notifier.Send("READY=1");
  }
}

TEST(NotifierTest, SurvivesTheEndOfTheManager) {
  const TemporaryDirectory directory;
  auto manager = std::make_unique<Manager>(directory / "socket");
  const Notifier notifier;
  manager.reset();
  notifier.Send("READY=1");
}

}  // namespace

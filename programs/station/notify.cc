#include "notify.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

Notifier::Notifier() {
  const char* const variable = getenv("NOTIFY_SOCKET");
  const std::string path = variable == nullptr ? "" : variable;
  has_watchdog = getenv("WATCHDOG_USEC") != nullptr;
  for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
    unsetenv(name);
  }
  sockaddr_un address = {};
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    return;
  }
  address.sun_family = AF_UNIX;
  std::copy(path.begin(), path.end(), address.sun_path);
  if (path[0] == '@') {  // An abstract socket: its name begins with a zero byte.
    address.sun_path[0] = '\0';
  }
  fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const size_t length = offsetof(sockaddr_un, sun_path) + path.size();
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(length)) !=
      0) {
    close(fd);
    fd = -1;
  }
}

Notifier::~Notifier() {
  if (fd >= 0) {
    close(fd);
  }
}

void Notifier::Send(const std::string& text_) const {
  if (fd >= 0) {
    send(fd, text_.data(), text_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
}

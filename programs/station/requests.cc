#include "requests.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "format.h"

namespace {

constexpr mode_t kSocketMode = 0660;
constexpr int kMaxWaiting = 8;

using SocketCall = int (*)(int, const sockaddr*, socklen_t);

// Binds or connects a new socket; throws a string if that fails. The address names the directory by
// a descriptor, as the room for a path is short.
int OpenSocket(const std::string& run_, int flags_, SocketCall call_) {
  const int directory = open(run_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags_, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string path = Format("/proc/self/fd/%d/apply", directory);
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int result = call_(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  const int error = errno;
  close(directory);
  if (result != 0) {
    close(fd);
    throw Format("%s/apply: %s", run_.c_str(), strerror(error));
  }
  return fd;
}

void SendAll(int fd_, const std::string& text_) {
  send(fd_, text_.data(), text_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace

Requests::Requests(const std::string& run_, const std::vector<std::string>& greeting_) {
  for (const std::string& word : greeting_) {
    greeting.append(word.c_str(), word.size() + 1);
  }
  greeting += '\0';
  const std::string path = run_ + "/apply";
  unlink(path.c_str());
  listener = OpenSocket(run_, SOCK_NONBLOCK, bind);
  chmod(path.c_str(), kSocketMode);
  listen(listener, kMaxWaiting);
}

Requests::~Requests() {
  Reply(false, "the station ends\n");
  close(listener);
}

bool Requests::Accept() {
  const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (client < 0) {
    return false;
  }
  SendAll(client, greeting);
  clients.push_back(client);
  return true;
}

void Requests::Reply(bool is_fine_, const std::string& text_) {
  for (const int client : clients) {
    SendAll(client, (is_fine_ ? "0" : "1") + text_);
    close(client);
  }
  clients.clear();
}

int ConnectToStation(const std::string& run_) { return OpenSocket(run_, 0, connect); }

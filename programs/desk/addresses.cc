#include "addresses.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "format.h"

namespace {

constexpr int kBacklog = 128;

in_port_t ParsePort(const std::string& text_) {
  if (text_.empty() || text_.size() > 5 ||
      text_.find_first_not_of("0123456789") != std::string::npos || ParseInteger(text_) > 65535) {
    throw "\"" + text_ + "\" is no port";
  }
  return htons(static_cast<in_port_t>(ParseInteger(text_)));
}

// Copies an address into a structure of another type, as a cast would break the aliasing rules.
template <typename To, typename From>
To Copied(const From& from_) {
  To to = {};
  memcpy(&to, &from_, std::min(sizeof(to), sizeof(from_)));
  return to;
}

std::string TextOf(int family_, const void* address_) {
  char text[INET6_ADDRSTRLEN] = "";
  return inet_ntop(family_, address_, text, sizeof(text)) == nullptr ? "" : text;
}

std::string ClientOf6(in6_addr address_) {
  if (IN6_IS_ADDR_V4MAPPED(&address_)) {
    return TextOf(AF_INET, &address_.s6_addr[12]);
  }
  if (!IN6_IS_ADDR_LOOPBACK(&address_)) {
    memset(&address_.s6_addr[8], 0, 8);
  }
  return TextOf(AF_INET6, &address_);
}

}  // namespace

ListenAddress ParseListenAddress(const std::string& text_) {
  const size_t colon = text_.rfind(':');
  if (colon == std::string::npos || colon == 0) {
    throw "\"" + text_ + "\" is not of the form ADDRESS:PORT";
  }
  const in_port_t port = ParsePort(text_.substr(colon + 1));
  std::string host = text_.substr(0, colon);
  ListenAddress address;
  sockaddr_in v4 = {};
  sockaddr_in6 v6 = {};
  if (inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1) {
    v4.sin_family = AF_INET;
    v4.sin_port = port;
    address.socket = Copied<sockaddr_storage>(v4);
    address.length = sizeof(v4);
    return address;
  }
  if (host.size() > 2 && host.front() == '[' && host.back() == ']' &&
      inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6.sin6_addr) == 1) {
    v6.sin6_family = AF_INET6;
    v6.sin6_port = port;
    address.socket = Copied<sockaddr_storage>(v6);
    address.length = sizeof(v6);
    return address;
  }
  throw "\"" + host + "\" is no IPv4 address, and no IPv6 address in brackets";
}

bool IsLoopback(const ListenAddress& address_) {
  if (address_.socket.ss_family == AF_INET) {
    return ntohl(Copied<sockaddr_in>(address_.socket).sin_addr.s_addr) >> 24 == 127;
  }
  const in6_addr address = Copied<sockaddr_in6>(address_.socket).sin6_addr;
  return IN6_IS_ADDR_LOOPBACK(&address);
}

int Listen(const ListenAddress& address_) {
  const int fd = socket(address_.socket.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      bind(fd, reinterpret_cast<const sockaddr*>(&address_.socket), address_.length) != 0 ||
      listen(fd, kBacklog) != 0) {
    const int error = errno;
    close(fd);
    throw std::string(strerror(error));
  }
  return fd;
}

std::string NameOfSocket(int fd_) {
  sockaddr_storage address = {};
  socklen_t length = sizeof(address);
  getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
  if (address.ss_family == AF_INET) {
    const auto v4 = Copied<sockaddr_in>(address);
    return Format("%s:%d", TextOf(AF_INET, &v4.sin_addr).c_str(), ntohs(v4.sin_port));
  }
  const auto v6 = Copied<sockaddr_in6>(address);
  return Format("[%s]:%d", TextOf(AF_INET6, &v6.sin6_addr).c_str(), ntohs(v6.sin6_port));
}

std::string ClientOf(const sockaddr* address_) {
  if (address_ != nullptr && address_->sa_family == AF_INET) {
    sockaddr_in v4 = {};
    memcpy(&v4, address_, sizeof(v4));
    return TextOf(AF_INET, &v4.sin_addr);
  }
  if (address_ != nullptr && address_->sa_family == AF_INET6) {
    sockaddr_in6 v6 = {};
    memcpy(&v6, address_, sizeof(v6));
    return ClientOf6(v6.sin6_addr);
  }
  return "";
}

std::string ClientForwarded(const std::string& header_) {
  const size_t comma = header_.rfind(',');
  std::string last = comma == std::string::npos ? header_ : header_.substr(comma + 1);
  last.erase(0, last.find_first_not_of(" \t"));
  last.erase(last.find_last_not_of(" \t") + 1);
  in_addr v4 = {};
  in6_addr v6 = {};
  if (inet_pton(AF_INET, last.c_str(), &v4) == 1) {
    return TextOf(AF_INET, &v4);
  }
  return inet_pton(AF_INET6, last.c_str(), &v6) == 1 ? ClientOf6(v6) : "";
}

// Addresses: where the server listens, and who is at the other end.
#pragma once

#include <sys/socket.h>

#include <string>

struct ListenAddress {
  sockaddr_storage socket = {};
  socklen_t length = 0;
};

// Parses "192.0.2.1:8080" or "[::1]:8080". Throws a string if it is no such address.
ListenAddress ParseListenAddress(const std::string& text_);

bool IsLoopback(const ListenAddress& address_);

// A socket that listens there. The caller closes it. Throws a string if there is none.
int Listen(const ListenAddress& address_);

// The address at which the socket listens, with its real port: "127.0.0.1:8080" or "[::1]:8080".
std::string NameOfSocket(int fd_);

// The network that counts as one client: an IPv4 address, or the first 64 bits of an IPv6 address,
// as one client may use all addresses below them. Empty if it is neither.
std::string ClientOf(const sockaddr* address_);

// The same for the last address in the value of a header "X-Forwarded-For", which the proxy has
// written. Empty if it is no address.
std::string ClientForwarded(const std::string& header_);

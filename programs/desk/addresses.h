// Addresses: where the server listens, and who is at the other end.
#pragma once

#include <sys/socket.h>

#include <string>

struct ListenAddress {
  sockaddr_storage socket = {};
  socklen_t length = 0;
};

// Of "192.0.2.1:8080" or "[::1]:8080". Throws a string if it is no such address.
ListenAddress ParseListenAddress(const std::string& text_);

bool IsLoopback(const ListenAddress& address_);

// A socket that listens there. The caller closes it. Throws a string.
int Listen(const ListenAddress& address_);

// "127.0.0.1:8080" or "[::1]:8080": where that socket listens, with its real port.
std::string NameOfSocket(int fd_);

// The network that counts as one client: an IPv4 address, or the first 64 bits of an IPv6 address,
// which one client has for itself. Empty if it is neither.
std::string ClientOf(const sockaddr* address_);

// The same of the last address in headers "X-Forwarded-For", joined by commas; that one is written
// by the proxy. Empty if it is none.
std::string ClientForwarded(const std::string& header_);

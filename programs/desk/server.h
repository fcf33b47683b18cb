// The server: HTTP or HTTPS by libmicrohttpd, in one thread with one loop. Without clients, it
// wakes only when a file of the run directory is replaced.
#pragma once

#include <memory>
#include <string>

#include "gate.h"
#include "pages.h"

struct ServerSettings {
  int socket = -1;               // Listens; the server closes it.
  std::string certificate;       // File in PEM; empty: no TLS.
  std::string key;               // The same.
  bool is_behind_proxy = false;  // The proxy names the clients, which reach it by HTTPS.
  std::string run;               // The station's run directory.
};

class Server {
 public:
  // REQUIRES: gate and pages outlive the server.
  // Blocks SIGCHLD, SIGTERM and SIGINT. Throws a string if it cannot start.
  Server(const ServerSettings& settings_, Gate& gate_, Pages& pages_);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Serves until SIGTERM or SIGINT.
  void Run();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

// Decides who gets to the pages: login and logout, sessions, tokens, roles. It knows no HTTP but
// what a request and a response hold.
#pragma once

#include <stddef.h>

#include <optional>
#include <string>

#include "pages.h"
#include "request.h"
#include "sessions.h"
#include "throttle.h"
#include "users.h"

// A request as it came in.
struct Visit {
  Request request;
  std::string session;  // The id that the sender knows; may be empty.
  std::string client;   // The sender's network.
};

struct Answer {
  Response response;
  std::optional<std::string> session;  // The id for the sender to keep; empty: to forget.
  int retry_after = 0;                 // Seconds; 0: not said.
  bool is_public = false;              // Holds nothing of a user's.
};

class Gate {
 public:
  // REQUIRES: both outlive the gate.
  Gate(Pages& pages_, Users& users_);

  // Bytes that the body of a POST may have. 0: its sender may send none, and the answer is that to
  // the request without a body.
  size_t BodyLimit(const Visit& visit_, double now_);

  // now_: seconds from an arbitrary start. The log says who logs in.
  Answer Handle(const Visit& visit_, double now_);

  // The viewer of a session. Nothing if it has ended, its user is gone or has another password.
  std::optional<Viewer> Find(const std::string& session_, double now_);

 private:
  Answer HandleOpen(const Visit& visit_);
  Answer LogIn(const Visit& visit_, double now_);
  Answer Admit(const Visit& visit_, const std::string& user_, double now_);
  Answer HandlePages(const Visit& visit_, const Viewer& viewer_);

  Pages& pages;
  Users& users;
  Sessions sessions;
  Throttle throttle;
};

// A plain page for a status; in JSON if the request wants it.
Response Refusal(const Request& request_, int status_, const std::string& why_);

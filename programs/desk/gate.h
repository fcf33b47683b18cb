// Decides who may see the pages: login and logout, sessions, tokens, roles. It uses no HTTP beyond
// the fields of a request and a response.
#pragma once

#include <stddef.h>

#include <optional>
#include <string>

#include "pages.h"
#include "request.h"
#include "sessions.h"
#include "throttle.h"
#include "users.h"

// A request with its sender, before the login is checked.
struct Visit {
  Request request;
  std::string session;  // The session's id in the sender's cookie; may be empty.
  std::string client;   // The sender's network.
};

struct Answer {
  Response response;
  // The id for the sender's cookie; an empty one removes the cookie.
  std::optional<std::string> session;
  int retry_after = 0;     // Seconds; 0: not said.
  bool is_public = false;  // Holds no data of a user.
};

class Gate {
 public:
  // REQUIRES: both outlive the gate.
  Gate(Pages& pages_, Users& users_);

  // The largest body of a POST, in bytes. 0: the sender may send none, and Handle answers without a
  // body.
  size_t BodyLimit(const Visit& visit_, double now_);

  // now_: seconds from an arbitrary start. The log says who logs in.
  Answer Handle(const Visit& visit_, double now_);

  // The viewer of a session. Nothing if the session has ended, or its user was removed or has a new
  // password.
  std::optional<Viewer> Find(const std::string& session_, double now_);

 private:
  Answer HandleStranger(const Visit& visit_);
  Answer LogIn(const Visit& visit_, double now_);
  Answer Admit(const Visit& visit_, const std::string& user_, double now_);
  Answer HandleUser(const Visit& visit_, const Viewer& viewer_);

  Pages& pages;
  Users& users;
  Sessions sessions;
  Throttle throttle;
};

// A plain page with a status and a reason; JSON if the request asks for it.
Response Refusal(const Request& request_, int status_, const std::string& why_);

// What passes between the server and the pages: a request, who sends it, and the answer.
#pragma once

#include <map>
#include <string>

// One request, parsed and bounded by the server; nothing in it is trusted.
struct Request {
  std::string method;  // "GET" or "POST".
  std::string path;    // Decoded, begins with "/".
  // The fields of the body, decoded: valid UTF-8 without control characters other than line ends
  // ("\n") and tabs. Of a name that comes twice, the last counts.
  std::map<std::string, std::string> form;
  bool wants_json = false;  // It has the header "Accept: application/json".
};

enum class Role { kLook, kSay, kOperate };  // Each may do what the one before may.

// A user who is logged in. The server has compared the token of each POST before.
struct Viewer {
  std::string user;
  Role role = Role::kLook;
  std::string token;  // Of the session; each form of a page sends it in the field "token".
};

struct Response {
  int status = 200;
  std::string type = "text/html; charset=utf-8";
  std::string body;
  std::string location;  // Of a redirection; empty: none.
};

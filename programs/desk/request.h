// The data that server and pages exchange: a request, its sender, and the answer.
#pragma once

#include <map>
#include <string>

// One request, parsed and limited in size by the server. It may come from an attacker.
struct Request {
  std::string method;  // "GET" or "POST".
  std::string path;    // Decoded, begins with "/".
  // The fields of the body, decoded: valid UTF-8 without control characters other than line ends
  // ("\n") and tabs. Of two fields with the same name, the last counts.
  std::map<std::string, std::string> form;
  bool wants_json = false;  // The request has the header "Accept: application/json".
};

enum class Role { kLook, kSay, kOperate };  // Each role has the rights of the one before it.

// A user who is logged in. The token of each POST has been compared before.
struct Viewer {
  std::string user;
  Role role = Role::kLook;
  // The session's secret against forged forms; each form sends it in the field "token".
  std::string token;
};

struct Response {
  int status = 200;
  std::string type = "text/html; charset=utf-8";
  std::string body;
  std::string location;  // Of a redirection; empty: none.
};

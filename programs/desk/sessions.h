// The users who are logged in. Sessions are kept in memory only: a restart ends them all.
//
// Times are seconds from an arbitrary start, as Now() gives them.
#pragma once

#include <map>
#include <string>

// 256 random bits as 64 hexadecimal digits. Throws a string if the system provides none.
std::string MakeSecret();

// Compares two texts in a time that depends on their lengths only.
bool IsSameSecret(const std::string& a_, const std::string& b_);

struct Session {
  std::string user;
  std::string hash;  // Of the user's password at login.
  std::string token;
  double end = 0;
};

class Sessions {
 public:
  static constexpr int kHours = 12;       // From the login to the session's end.
  static constexpr size_t kPerUser = 20;  // A further session ends the user's oldest one.

  // Returns the id of a new session: a secret.
  std::string Open(const std::string& user_, const std::string& hash_, double now_);

  // Null if there is no such session or it has ended. The result is valid until another function is
  // called.
  const Session* Find(const std::string& id_, double now_) const;

  void Close(const std::string& id_);

 private:
  void MakeRoom(const std::string& user_, double now_);

  std::map<std::string, Session> sessions;  // By their ids.
};

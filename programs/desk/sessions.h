// Who is logged in. Sessions live in memory only: a restart ends them all.
//
// Times are seconds from an arbitrary start, as Now() gives them.
#pragma once

#include <map>
#include <string>

// 256 random bits as 64 hexadecimal digits. Throws a string if the system has none.
std::string MakeSecret();

// Compares in a time that depends on the lengths only.
bool IsSameSecret(const std::string& a_, const std::string& b_);

struct Session {
  std::string user;
  std::string hash;  // Of the user's password at login.
  std::string token;
  double end = 0;
};

class Sessions {
 public:
  static constexpr int kHours = 12;       // From login to the end.
  static constexpr size_t kPerUser = 20;  // With one more, the user's oldest ends.

  // Returns the id of a new session: a secret.
  std::string Open(const std::string& user_, const std::string& hash_, double now_);

  // Null if there is no such session or it has ended. Valid until the next call of another
  // function.
  const Session* Find(const std::string& id_, double now_) const;

  void Close(const std::string& id_);

 private:
  void MakeRoom(const std::string& user_, double now_);

  std::map<std::string, Session> sessions;  // By their ids.
};

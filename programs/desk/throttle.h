// Slows down logins that fail: per address, per user, and all together.
//
// Times are seconds from an arbitrary start, as Now() gives them. What is kept is bounded: each
// failure adds at most two entries, there are at most kRate checks a second, and an entry is
// forgotten kMemory seconds after its last failure.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>

class Throttle {
 public:
  static constexpr int kFree = 3;           // Failures without a delay.
  static constexpr double kLongest = 60;    // Seconds between two attempts.
  static constexpr double kMemory = 300;    // Seconds.
  static constexpr double kRate = 3;        // Checks of passwords a second, of all together.
  static constexpr size_t kMaxKnown = 200;  // Pairs of an address and a user.

  // Seconds until a login may be tried; 0: now, and the attempt is counted.
  //
  // An address from which the user has logged in before waits for its own failures only: nobody
  // else can lock that user out.
  double Ask(const std::string& address_, const std::string& user_, double now_);

  void Fail(const std::string& address_, const std::string& user_, double now_);
  void Succeed(const std::string& address_, const std::string& user_);

 private:
  struct Failures {
    int count = 0;
    double last = 0;
  };
  using Table = std::map<std::string, Failures>;

  static double WaitOf(const Table& table_, const std::string& key_, double now_);
  static void Count(Table& table_, const std::string& key_, double now_);

  Table addresses;
  Table users;
  std::set<std::pair<std::string, std::string>> known;
  double allowance = kRate;  // Checks that are allowed now.
  double counted = 0;        // When the allowance was computed.
};

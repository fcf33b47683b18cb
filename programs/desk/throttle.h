// Slows down failing logins: of each address, of each user, and of all together.
//
// Times are seconds from an arbitrary start, as Now() gives them. The memory is limited: each
// failure adds at most two entries, strangers have at most kRate checks a second, and an entry is
// forgotten kMemory seconds after its last failure.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>

class Throttle {
 public:
  static constexpr int kFree = 3;         // Failures without a delay.
  static constexpr double kLongest = 60;  // Seconds between two attempts.
  static constexpr double kMemory = 300;  // Seconds.
  static constexpr double kRate = 3;  // Checks of passwords a second, of all strangers together.
  // Pairs of an address and a user who has logged in from it.
  static constexpr size_t kMaxKnown = 200;

  // Seconds until a login may be tried; 0: now, and the attempt is counted.
  //
  // A known pair, an address from which the user has logged in before, waits only after failures of
  // that address: nobody else can lock that user out. All other pairs are strangers.
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
  double allowance = kRate;  // Checks that strangers may make now.
  double counted = 0;        // When the allowance was computed.
};

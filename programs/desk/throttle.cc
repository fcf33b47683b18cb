#include "throttle.h"

#include <algorithm>
#include <cmath>

double Throttle::Ask(const std::string& address_, const std::string& user_, double now_) {
  allowance = std::min(kRate, allowance + (now_ - counted) * kRate);
  counted = now_;
  double wait = WaitOf(addresses, address_, now_);
  if (known.count({address_, user_}) == 0) {
    wait = std::max(wait, WaitOf(users, user_, now_));
    wait = std::max(wait, allowance < 1 ? (1 - allowance) / kRate : 0);
  }
  if (wait <= 0) {
    allowance -= 1;
  }
  return std::max(wait, 0.0);
}

void Throttle::Fail(const std::string& address_, const std::string& user_, double now_) {
  Count(addresses, address_, now_);
  Count(users, user_, now_);
}

void Throttle::Succeed(const std::string& address_, const std::string& user_) {
  addresses.erase(address_);
  users.erase(user_);
  if (known.size() >= kMaxKnown) {
    known.clear();
  }
  known.insert({address_, user_});
}

double Throttle::WaitOf(const Table& table_, const std::string& key_, double now_) {
  const auto found = table_.find(key_);
  if (found == table_.end() || found->second.count < kFree) {
    return 0;
  }
  const double pause = std::min(kLongest, std::exp2(found->second.count - kFree));
  return found->second.last + pause - now_;
}

void Throttle::Count(Table& table_, const std::string& key_, double now_) {
  for (auto it = table_.begin(); it != table_.end();) {
    it = now_ - it->second.last > kMemory ? table_.erase(it) : std::next(it);
  }
  Failures& failures = table_[key_];
  ++failures.count;
  failures.last = now_;
}

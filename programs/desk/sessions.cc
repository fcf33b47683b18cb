#include "sessions.h"

#include <errno.h>
#include <string.h>
#include <sys/random.h>

#include <iterator>

#include "format.h"

std::string MakeSecret() {
  unsigned char bytes[32];
  // For so few bytes, getrandom never returns only a part.
  if (getrandom(bytes, sizeof(bytes), 0) != static_cast<ssize_t>(sizeof(bytes))) {
    throw Format("no random bytes: %s", strerror(errno));
  }
  std::string secret;
  for (const unsigned char byte : bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    secret += kDigits[byte >> 4];
    secret += kDigits[byte & 0xF];
  }
  return secret;
}

bool IsSameSecret(const std::string& a_, const std::string& b_) {
  if (a_.size() != b_.size()) {
    return false;
  }
  unsigned int difference = 0;
  for (size_t i = 0; i < a_.size(); ++i) {
    difference |= static_cast<unsigned char>(a_[i]) ^ static_cast<unsigned char>(b_[i]);
  }
  return difference == 0;
}

std::string Sessions::Open(const std::string& user_, const std::string& hash_, double now_) {
  MakeRoom(user_, now_);
  std::string id = MakeSecret();
  sessions[id] = {user_, hash_, MakeSecret(), now_ + kHours * 3600.0};
  return id;
}

const Session* Sessions::Find(const std::string& id_, double now_) const {
  const auto found = sessions.find(id_);
  return found == sessions.end() || now_ >= found->second.end ? nullptr : &found->second;
}

void Sessions::Close(const std::string& id_) { sessions.erase(id_); }

// Removes the sessions that have ended, and the user's oldest if there are too many.
void Sessions::MakeRoom(const std::string& user_, double now_) {
  size_t count = 0;
  auto oldest = sessions.end();
  for (auto it = sessions.begin(); it != sessions.end();) {
    if (now_ >= it->second.end) {
      it = sessions.erase(it);
      continue;
    }
    if (it->second.user == user_) {
      ++count;
      oldest = oldest == sessions.end() || it->second.end < oldest->second.end ? it : oldest;
    }
    ++it;
  }
  if (count >= kPerUser) {
    sessions.erase(oldest);
  }
}

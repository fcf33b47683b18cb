#include "connections.h"

#include <sys/socket.h>

#include <algorithm>
#include <limits>
#include <map>
#include <utility>

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

}  // namespace

Connection& Connections::Add(int fd_, const std::string& client_, double now_) {
  if (connections.size() - watchers >= kMaxOthers) {
    CutLongestWaiting();
  }
  connections.emplace_back();
  Connection& connection = connections.back();
  connection.fd = fd_;
  connection.client = client_;
  connection.deadline = now_ + kRequestLimit;
  return connection;
}

void Connections::Remove(const Connection& connection_) {
  // Unwatch would change the connection, which is const here.
  watchers -= connection_.is_watching ? 1U : 0U;
  connections.remove_if([&](const Connection& other_) { return &other_ == &connection_; });
}

void Connections::ExpectRequest(Connection& connection_, double now_) {
  connection_.is_waiting = true;
  if (!connection_.is_cut) {
    connection_.deadline = now_ + kRequestLimit;
  }
}

void Connections::ExpectReading(Connection& connection_, double now_) {
  connection_.is_waiting = false;
  if (!connection_.is_cut) {
    connection_.deadline = now_ + kAnswerLimit;
  }
}

bool Connections::Watch(Connection& connection_) {
  if (watchers >= kMaxWatchers) {
    return false;
  }
  connection_.is_watching = true;
  ++watchers;
  return true;
}

void Connections::Unwatch(Connection& connection_) {
  watchers -= std::exchange(connection_.is_watching, false) ? 1U : 0U;
}

void Connections::ExpectEvent(Connection& connection_, double now_) {
  connection_.is_waiting = false;
  if (!connection_.is_cut) {
    connection_.deadline = now_ + kEventLimit;
  }
}

void Connections::ExpectNothing(Connection& connection_) { connection_.deadline = kNever; }

int Connections::Timeout(double now_) const {
  double next = kNever;
  for (const Connection& connection : connections) {
    next = std::min(next, connection.deadline);
  }
  return next == kNever ? -1 : static_cast<int>(std::max(0.0, (next - now_) * 1000 + 1));
}

void Connections::CutLate(double now_) {
  for (Connection& connection : connections) {
    if (now_ >= connection.deadline) {
      Cut(connection);
    }
  }
}

void Connections::CutAbandoned() {
  for (Connection& connection : connections) {
    if (connection.has_left && connection.is_waiting && !connection.is_cut) {
      Cut(connection);
    }
  }
}

// Cuts the connection that waits longest of the client that has the most. Cut connections are not
// counted, so none is chosen twice.
void Connections::CutLongestWaiting() {
  std::map<std::string, int> counts;
  for (const Connection& connection : connections) {
    counts[connection.client] += !connection.is_watching && !connection.is_cut ? 1 : 0;
  }
  Connection* chosen = nullptr;
  for (Connection& connection : connections) {
    if (connection.is_watching || connection.is_cut) {
      continue;
    }
    const int more = chosen == nullptr ? 1 : counts[connection.client] - counts[chosen->client];
    if (more > 0 || (more == 0 && connection.deadline < chosen->deadline)) {
      chosen = &connection;
    }
  }
  if (chosen != nullptr) {
    Cut(*chosen);
  }
}

// The library closes the connection when it reads the end of the data.
void Connections::Cut(Connection& connection_) {
  shutdown(connection_.fd, SHUT_RDWR);
  connection_.is_cut = true;
  connection_.deadline = kNever;
}

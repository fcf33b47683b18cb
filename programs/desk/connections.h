// The connections of the server. Each has a deadline for its client's next step. A client that is
// late is disconnected, and so is one connection if there are too many.
//
// Times are seconds from an arbitrary start, as Now() gives them.
#pragma once

#include <stddef.h>

#include <list>
#include <string>

struct Connection {
  int fd = -1;  // Not owned.
  std::string client;
  double deadline = 0;
  bool is_waiting = true;    // It waits for a request.
  bool is_watching = false;  // It is an event stream.
  bool has_left = false;     // The client has closed its side.
  bool is_cut = false;
};

class Connections {
 public:
  // Seconds from the last answer to a complete request.
  static constexpr double kRequestLimit = 10;
  static constexpr double kAnswerLimit = 60;  // Seconds until an answer has been read.
  static constexpr double kEventLimit = 20;   // Seconds until an event has been read.
  static constexpr size_t kMaxOthers = 128;   // Connections that are no event streams.
  static constexpr size_t kMaxWatchers = 200;

  // Adds a connection that waits for a request. If there are too many, cuts the one that waits
  // longest of the client that has the most. The reference is valid until Remove.
  Connection& Add(int fd_, const std::string& client_, double now_);
  void Remove(const Connection& connection_);

  static void ExpectRequest(Connection& connection_, double now_);
  static void ExpectReading(Connection& connection_, double now_);

  // Makes the connection an event stream. False if there are too many of them.
  bool Watch(Connection& connection_);
  void Unwatch(Connection& connection_);
  // For an event stream: its client has to read an event, or has read it.
  static void ExpectEvent(Connection& connection_, double now_);
  static void ExpectNothing(Connection& connection_);

  // Milliseconds until the next connection is late; -1: there is none.
  int Timeout(double now_) const;
  void CutLate(double now_);

  // Cuts the connections that wait for a request although their client has left. The library may
  // have missed its end.
  void CutAbandoned();

 private:
  void CutLongestWaiting();
  static void Cut(Connection& connection_);

  std::list<Connection> connections;  // The oldest first.
  size_t watchers = 0;
};

// The connections of the server, each with a time until which its client must have done the next
// step. Whoever is late, or one of too many, is disconnected.
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
  bool is_waiting = true;    // For a request.
  bool is_watching = false;  // It is an event stream.
  bool has_left = false;     // The client sends no more.
  bool is_cut = false;
};

class Connections {
 public:
  static constexpr double kRequestLimit = 10;  // Seconds from the last answer to a whole request.
  static constexpr double kAnswerLimit = 60;   // Seconds until an answer has been read.
  static constexpr double kEventLimit = 20;    // Seconds until an event has been read.
  static constexpr size_t kMaxOthers = 128;    // Connections that are no event streams.
  static constexpr size_t kMaxWatchers = 200;

  // The connection waits for a request. If there are too many, cuts the one that waits longest of
  // the client that has the most. The reference is valid until Remove.
  Connection& Add(int fd_, const std::string& client_, double now_);
  void Remove(const Connection& connection_);

  static void ExpectRequest(Connection& connection_, double now_);
  static void ExpectReading(Connection& connection_, double now_);

  // Makes it an event stream. False if there are too many of them.
  bool Watch(Connection& connection_);
  void Unwatch(Connection& connection_);
  // Of an event stream: an event is to be read, or has been.
  static void ExpectEvent(Connection& connection_, double now_);
  static void ExpectNothing(Connection& connection_);

  // Milliseconds until the next connection is late; -1: there is none.
  int Timeout(double now_) const;
  void CutLate(double now_);

  // Cuts those that wait for a request that will not come. The library may have missed that.
  void CutLeft();

 private:
  void CutOne();
  static void Cut(Connection& connection_);

  std::list<Connection> connections;  // The oldest first.
  size_t watchers = 0;
};

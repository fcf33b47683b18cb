// The event streams: connections on which the server sends an event whenever something that the
// page shows changes. Between two events a stream costs nothing.
#pragma once

#include <microhttpd.h>

#include <functional>
#include <list>
#include <memory>
#include <string>

#include "connections.h"

class Streams {
 public:
  // The JSON of an event for the session; empty: there is none, and the stream ends. Throws
  // nothing.
  using Source = std::function<std::string(const std::string& session_)>;

  // REQUIRES: the streams outlive the server's daemon.
  explicit Streams(Source source_);
  ~Streams();
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;

  // A response that sends events, the first at once. Null if there is no event. The caller destroys
  // it as any response; the connection keeps it.
  // REQUIRES: the connection watches (see Connections).
  MHD_Response* Open(MHD_Connection* handle_, Connection& connection_, const std::string& session_);

  // Sends each stream its event, unless that is the same as the last one.
  void Tell();

  // Ends the stream of a connection, if there is one: its client has left.
  void OnClientEnd(const Connection& connection_);

  // Ends all, for the end of the server.
  void End();

  bool IsEmpty() const { return streams.empty(); }

 private:
  struct Stream;

  static ssize_t Read(void* stream_, uint64_t position_, char* buffer_, size_t size_) noexcept;
  static void Free(void* stream_) noexcept;

  const Source source;
  std::list<std::unique_ptr<Stream>> streams;
};

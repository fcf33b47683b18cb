// The event streams: connections on which the server sends an event when a live part of the page
// changes. A stream uses no processor time between events.
#pragma once

#include <microhttpd.h>

#include <functional>
#include <list>
#include <memory>
#include <string>

#include "connections.h"

class Streams {
 public:
  // Returns the JSON of an event for the session; an empty text ends the stream. Must not throw.
  using Source = std::function<std::string(const std::string& session_)>;

  // REQUIRES: the streams outlive the server's daemon.
  explicit Streams(Source source_);
  ~Streams();
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;

  // A response that sends events, the first at once. Null if there is no event. The caller destroys
  // it like any response; the connection keeps its own reference.
  // REQUIRES: the connection watches (see Connections).
  MHD_Response* Open(MHD_Connection* handle_, Connection& connection_, const std::string& session_);

  // Sends an event on each stream, unless it equals the stream's last one.
  void Tell();

  // Ends the stream of a connection, if it has one, after its client has left.
  void OnClientEnd(const Connection& connection_);

  // Ends all streams before the server ends.
  void End();

  bool IsEmpty() const { return streams.empty(); }

 private:
  struct Stream;

  static ssize_t Read(void* stream_, uint64_t position_, char* buffer_, size_t size_) noexcept;
  static void Free(void* stream_) noexcept;

  const Source source;
  std::list<std::unique_ptr<Stream>> streams;
};

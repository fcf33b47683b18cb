#include "streams.h"

#include <algorithm>
#include <map>
#include <utility>

#include "clock.h"

namespace {

using Text = std::shared_ptr<const std::string>;

constexpr size_t kBlock = 4096;  // Bytes that the library takes at once.

// An event in the format of event streams. A browser that loses the stream asks for a new one after
// a second.
Text Framed(const std::string& json_) {
  std::string text = "retry: 1000\ndata: " + json_;
  std::replace(text.begin() + 12, text.end(), '\n', ' ');
  return std::make_shared<const std::string>(text + "\n\n");
}

}  // namespace

struct Streams::Stream {
  Streams* owner;
  MHD_Connection* handle;
  Connection* connection;  // Valid while the stream is suspended or read.
  std::string session;
  Text text;          // The event that is being sent, or was sent last.
  size_t offset = 0;  // In the text.
  Text next;          // The event to be sent after it; null: none.
  bool is_suspended = false;
  bool is_ended = false;

  void Resume() {
    if (std::exchange(is_suspended, false)) {
      Connections::ExpectEvent(*connection, Now());
      MHD_resume_connection(handle);
    }
  }

  void End() {
    is_ended = true;
    Resume();
  }

  void Send(const Text& text_) {
    if (*text_ == *text) {
      next.reset();
      return;
    }
    next = text_;
    Resume();
  }
};

Streams::Streams(Source source_) : source(std::move(source_)) {}

Streams::~Streams() = default;

MHD_Response* Streams::Open(MHD_Connection* handle_, Connection& connection_,
                            const std::string& session_) {
  const std::string json = source(session_);
  if (json.empty()) {
    return nullptr;
  }
  auto stream = std::make_unique<Stream>();
  stream->owner = this;
  stream->handle = handle_;
  stream->connection = &connection_;
  stream->session = session_;
  stream->text = Framed(json);
  MHD_Response* const response =
      MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kBlock, Read, stream.get(), Free);
  if (response != nullptr) {
    Connections::ExpectEvent(connection_, Now());
    streams.push_back(std::move(stream));
  }
  return response;
}

void Streams::Tell() {
  std::map<std::string, Text> texts;  // Streams with equal texts share one.
  for (const auto& stream : streams) {
    const std::string json = source(stream->session);
    if (json.empty()) {
      stream->End();
      continue;
    }
    Text& text = texts[json];
    if (text == nullptr) {
      text = Framed(json);
    }
    stream->Send(text);
  }
}

void Streams::OnClientEnd(const Connection& connection_) {
  for (const auto& stream : streams) {
    if (stream->connection == &connection_) {
      stream->End();
    }
  }
}

void Streams::End() {
  for (const auto& stream : streams) {
    stream->End();
  }
}

// Called by the library when it can send.
ssize_t Streams::Read(void* stream_, uint64_t position_, char* buffer_, size_t size_) noexcept {
  (void)position_;
  Stream& stream = *static_cast<Stream*>(stream_);
  if (stream.is_ended) {
    return MHD_CONTENT_READER_END_OF_STREAM;
  }
  if (stream.offset == stream.text->size()) {
    if (stream.next == nullptr) {
      Connections::ExpectNothing(*stream.connection);
      stream.is_suspended = true;
      MHD_suspend_connection(stream.handle);
      return 0;
    }
    stream.text = std::move(stream.next);
    stream.next.reset();
    stream.offset = 0;
  }
  const size_t length = std::min(size_, stream.text->size() - stream.offset);
  stream.text->copy(buffer_, length, stream.offset);
  stream.offset += length;
  return static_cast<ssize_t>(length);
}

void Streams::Free(void* stream_) noexcept {
  auto* const stream = static_cast<Stream*>(stream_);
  stream->owner->streams.remove_if([&](const auto& other_) { return other_.get() == stream; });
}

#include "server.h"

#include <errno.h>
#include <microhttpd.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include "addresses.h"
#include "clock.h"
#include "connections.h"
#include "debug.h"
#include "descriptor.h"
#include "format.h"
#include "forms.h"
#include "statefile.h"
#include "statusfile.h"
#include "streams.h"

namespace {

// Bytes of each connection, for the headers of request and response.
constexpr size_t kPool = 16 * 1024;
// The last 64 are for connections that were cut and are not closed yet.
constexpr unsigned int kMaxConnections = Connections::kMaxOthers + Connections::kMaxWatchers + 64;
constexpr size_t kMaxPath = 1024;     // Bytes.
constexpr int kWatchPause = 1000;     // Milliseconds between two tries to watch the run directory.
constexpr int kPublicSeconds = 3600;  // Time for which a browser may keep a file.

constexpr char kPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; media-src 'self'; "
    "connect-src 'self'; form-action 'self'; base-uri 'none'; frame-ancestors 'none'";

constexpr const char* kHeaders[][2] = {{"Content-Security-Policy", kPolicy},
                                       {"X-Content-Type-Options", "nosniff"},
                                       {"X-Frame-Options", "DENY"},
                                       {"Referrer-Policy", "no-referrer"},
                                       {"Cross-Origin-Opener-Policy", "same-origin"},
                                       {"Cross-Origin-Resource-Policy", "same-origin"}};

int OpenSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGCHLD}) {
    sigaddset(&signals, signal);
  }
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

std::string HeaderOf(MHD_Connection* handle_, const char* name_) {
  const char* const value = MHD_lookup_connection_value(handle_, MHD_HEADER_KIND, name_);
  return value == nullptr ? "" : value;
}

// The last header of that name: a client may have sent an earlier one.
std::string LastHeaderOf(MHD_Connection* handle_, const char* name_) {
  std::pair<const char*, std::string> wanted = {name_, ""};
  MHD_get_connection_values(
      handle_, MHD_HEADER_KIND,
      [](void* wanted_, MHD_ValueKind, const char* key_, const char* value_) {
        auto& [name, value] = *static_cast<std::pair<const char*, std::string>*>(wanted_);
        if (strcasecmp(key_, name) == 0) {
          value = value_ == nullptr ? "" : value_;
        }
        return MHD_YES;
      },
      &wanted);
  return wanted.second;
}

// The value of "Content-Length"; nothing if there is none.
std::optional<unsigned long long> AnnouncedLength(MHD_Connection* handle_) {
  const std::string text = HeaderOf(handle_, "Content-Length");
  if (text.empty()) {
    return std::nullopt;
  }
  return strtoull(text.c_str(), nullptr, 10);  // The library has checked it.
}

bool IsForm(MHD_Connection* handle_) {
  const std::string type = HeaderOf(handle_, "Content-Type");
  constexpr char kType[] = "application/x-www-form-urlencoded";
  return strncasecmp(type.c_str(), kType, strlen(kType)) == 0;
}

bool IsFromElsewhere(MHD_Connection* handle_) {
  const std::string site = HeaderOf(handle_, "Sec-Fetch-Site");
  return !site.empty() && site != "same-origin" && site != "none";
}

// A request that is being received.
struct Exchange {
  Visit visit;
  std::string body;
  size_t limit = 0;  // Of the body, in bytes.
};

void AddHeader(MHD_Response* response_, const char* name_, const std::string& value_) {
  MHD_add_response_header(response_, name_, value_.c_str());
}

// Keeps a line of the library's log, which says why the server does not start.
__attribute__((format(printf, 2, 0))) void KeepLine(void* text_, const char* format_,
                                                    va_list arguments_) {
  char text[256];
  vsnprintf(text, sizeof(text), format_, arguments_);
  *static_cast<std::string*>(text_) = text;
}

struct DestroyResponse {
  void operator()(MHD_Response* response_) const { MHD_destroy_response(response_); }
};
using OwnedResponse = std::unique_ptr<MHD_Response, DestroyResponse>;

OwnedResponse ResponseOf(std::string body_) {
  auto body = std::make_unique<std::string>(std::move(body_));
  OwnedResponse response(MHD_create_response_from_buffer_with_free_callback_cls(
      body->size(), body->data(), [](void* text_) { delete static_cast<std::string*>(text_); },
      body.get()));
  if (response != nullptr) {
    (void)body.release();  // The response deletes it.
  }
  return response;
}

Answer Refuse(const Request& request_, int status_, const std::string& why_) {
  return {Refusal(request_, status_, why_), {}, 0, false};
}

}  // namespace

struct Server::Impl {
  Impl(const ServerSettings& settings_, Gate& gate_, Pages& pages_)
      : settings(settings_),
        gate(gate_),
        pages(pages_),
        signals(OpenSignals()),
        notify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
        epoll(epoll_create1(EPOLL_CLOEXEC)),
        streams([this](const std::string& session_) { return EventsOf(session_); }),
        cookie(IsSecure() ? "__Host-desk" : "desk") {
    StartDaemon();
    Add(signals.fd);
    Add(notify.fd);
    Add(MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd);
    WatchRun();
  }

  ~Impl() {
    streams.End();
    MHD_stop_daemon(daemon);
  }

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  bool IsSecure() const { return settings.is_behind_proxy || !settings.certificate.empty(); }

  // The loop.
  void StartDaemon();
  void Add(int fd_) const;
  void WatchRun();
  int Timeout() const;
  void RunOnce();
  void ReadSignals();
  void ReadNotifications();
  std::string EventsOf(const std::string& session_) noexcept;

  // The library's callbacks, and what they call.
  static void OnConnection(void* impl_, MHD_Connection* handle_, void** context_,
                           MHD_ConnectionNotificationCode code_) noexcept;
  static MHD_Result OnRequest(void* impl_, MHD_Connection* handle_, const char* url_,
                              const char* method_, const char* version_, const char* data_,
                              size_t* size_, void** exchange_);
  static void OnCompleted(void* impl_, MHD_Connection* handle_, void** exchange_,
                          MHD_RequestTerminationCode code_) noexcept;
  MHD_Result Begin(MHD_Connection* handle_, const char* url_, const char* method_,
                   void** exchange_);
  std::optional<Answer> CheckHeaders(MHD_Connection* handle_, const char* url_,
                                     Exchange& exchange_);
  Answer Finish(Exchange& exchange_);
  MHD_Result Reply(MHD_Connection* handle_, Answer answer_);
  MHD_Result Stream(MHD_Connection* handle_, const Exchange& exchange_);
  std::string ClientOfRequest(MHD_Connection* handle_) const;
  static Connection& ConnectionOf(MHD_Connection* handle_);

  const ServerSettings settings;
  Gate& gate;
  Pages& pages;
  const Descriptor signals;
  const Descriptor notify;
  const Descriptor epoll;
  Connections connections;
  Streams streams;
  const std::string cookie;
  MHD_Daemon* daemon = nullptr;
  int watch = -1;           // Of the run directory.
  bool is_changed = false;  // Watchers are to be told.
  bool is_stopping = false;
  std::string start_failure;  // The library's log line while it starts.
};

void Server::Impl::StartDaemon() {
  const bool has_tls = !settings.certificate.empty();
  const std::string certificate = has_tls ? ReadWhole(settings.certificate) : "";
  const std::string key = has_tls ? ReadWhole(settings.key) : "";
  std::vector<MHD_OptionItem> options = {{MHD_OPTION_LISTEN_SOCKET, settings.socket, nullptr},
                                         {MHD_OPTION_CONNECTION_LIMIT, kMaxConnections, nullptr},
                                         {MHD_OPTION_CONNECTION_MEMORY_LIMIT, kPool, nullptr},
                                         {MHD_OPTION_STRICT_FOR_CLIENT, 1, nullptr}};
  if (has_tls) {
    const auto text = [](const std::string& text_) { return const_cast<char*>(text_.c_str()); };
    options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, text(certificate)});
    options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, text(key)});
    static char priorities[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";
    options.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, priorities});
  }
  options.push_back({MHD_OPTION_END, 0, nullptr});
  const auto keep_escapes = [](void*, MHD_Connection*, char* text_) { return strlen(text_); };
  using Unescape = size_t (*)(void*, MHD_Connection*, char*);
  daemon = MHD_start_daemon(
      MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG | (has_tls ? MHD_USE_TLS : 0), 0,
      nullptr, nullptr, OnRequest, this, MHD_OPTION_EXTERNAL_LOGGER, KeepLine, &start_failure,
      MHD_OPTION_NOTIFY_CONNECTION, OnConnection, this, MHD_OPTION_NOTIFY_COMPLETED, OnCompleted,
      this, MHD_OPTION_UNESCAPE_CALLBACK, static_cast<Unescape>(keep_escapes), nullptr,
      MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
  if (daemon == nullptr) {
    throw "the server does not start: " + OneLine(start_failure);
  }
}

void Server::Impl::Add(int fd_) const {
  epoll_event event = {};
  event.events = EPOLLIN;  // The data stays null, as this is no connection.
  if (epoll_ctl(epoll.fd, EPOLL_CTL_ADD, fd_, &event) != 0) {
    throw Format("the server does not start: %s", strerror(errno));
  }
}

// Watches for renamed files only: the status file is written in place, ten times a second.
void Server::Impl::WatchRun() {
  if (watch < 0) {
    watch = inotify_add_watch(notify.fd, settings.run.c_str(),
                              IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
    is_changed = is_changed || (watch >= 0 && pages.OnRunChanged());
  }
}

// The time until the loop must run again, in milliseconds; -1: no limit.
int Server::Impl::Timeout() const {
  MHD_UNSIGNED_LONG_LONG library = 0;
  const int candidates[] = {
      MHD_get_timeout(daemon, &library) == MHD_YES ? static_cast<int>(std::min(library, 60000ULL))
                                                   : -1,
      connections.Timeout(Now()), pages.NextTimeout(),
      watch < 0 && !streams.IsEmpty() ? kWatchPause : -1, is_changed ? 0 : -1};
  int timeout = -1;
  for (const int candidate : candidates) {
    timeout = candidate >= 0 && (timeout < 0 || candidate < timeout) ? candidate : timeout;
  }
  return timeout;
}

void Server::Impl::RunOnce() {
  epoll_event events[64];
  const int count = epoll_wait(epoll.fd, events, std::size(events), Timeout());
  for (int i = 0; i < count; ++i) {
    if (auto* const connection = static_cast<Connection*>(events[i].data.ptr)) {
      connection->has_left = true;
      streams.OnClientEnd(*connection);
    }
  }
  ReadSignals();
  ReadNotifications();
  if (pages.NextTimeout() == 0) {
    pages.OnTimeout();
    is_changed = true;
  }
  if (std::exchange(is_changed, false)) {
    streams.Tell();
  }
  connections.CutLate(Now());
  MHD_run(daemon);
  connections.CutAbandoned();  // MHD_run has answered all complete requests.
}

void Server::Impl::ReadSignals() {
  signalfd_siginfo info = {};
  while (read(signals.fd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
    if (info.ssi_signo == SIGCHLD) {
      pages.OnChild();
      is_changed = true;
    } else {
      is_stopping = true;
    }
  }
}

void Server::Impl::ReadNotifications() {
  alignas(inotify_event) char buffer[4096];
  bool is_replaced = false;
  ssize_t length = 0;
  while ((length = read(notify.fd, buffer, sizeof(buffer))) > 0) {
    for (const char* at = buffer; at < buffer + length;) {
      const auto* const event = reinterpret_cast<const inotify_event*>(at);
      is_replaced = is_replaced || (event->mask & IN_MOVED_TO) != 0;
      if ((event->mask & IN_MOVE_SELF) != 0) {
        inotify_rm_watch(notify.fd, watch);  // IN_IGNORED follows.
      }
      watch = (event->mask & IN_IGNORED) != 0 ? -1 : watch;
      at += sizeof(inotify_event) + event->len;
    }
  }
  is_changed = is_changed || (is_replaced && pages.OnRunChanged());
  WatchRun();
}

std::string Server::Impl::EventsOf(const std::string& session_) noexcept {
  try {
    const std::optional<Viewer> viewer = gate.Find(session_, Now());
    return viewer ? pages.Events(*viewer) : "";
  } catch (const std::string& why) {
    Debug(kDebugNormal, "Cannot make an event: %s", why.c_str());
    return "";
  }
}

void Server::Impl::OnConnection(void* impl_, MHD_Connection* handle_, void** context_,
                                MHD_ConnectionNotificationCode code_) noexcept {
  Impl& impl = *static_cast<Impl*>(impl_);
  if (code_ == MHD_CONNECTION_NOTIFY_CLOSED) {
    impl.connections.Remove(*static_cast<Connection*>(*context_));
    return;
  }
  const int fd = MHD_get_connection_info(handle_, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
  const sockaddr* const address =
      MHD_get_connection_info(handle_, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr;
  Connection& connection = impl.connections.Add(fd, ClientOf(address), Now());
  *context_ = &connection;
  epoll_event event = {};
  event.events = EPOLLRDHUP | EPOLLET;
  event.data.ptr = &connection;
  epoll_ctl(impl.epoll.fd, EPOLL_CTL_ADD, fd, &event);
}

MHD_Result Server::Impl::OnRequest(void* impl_, MHD_Connection* handle_, const char* url_,
                                   const char* method_, const char* version_, const char* data_,
                                   size_t* size_, void** exchange_) {
  (void)version_;
  Impl& impl = *static_cast<Impl*>(impl_);
  try {
    if (*exchange_ == nullptr) {
      return impl.Begin(handle_, url_, method_, exchange_);
    }
    Exchange& exchange = *static_cast<Exchange*>(*exchange_);
    if (*size_ > 0) {
      if (exchange.body.size() + *size_ > exchange.limit) {
        return MHD_NO;  // Disconnects, as an answer would have to wait for the rest of the body.
      }
      exchange.body.append(data_, std::exchange(*size_, 0));
      return MHD_YES;
    }
    if (exchange.visit.request.path == "/events" && impl.gate.Find(exchange.visit.session, Now())) {
      return impl.Stream(handle_, exchange);
    }
    return impl.Reply(handle_, impl.Finish(exchange));
  } catch (const std::string& why) {
    Debug(kDebugNormal, "A request failed: %s", why.c_str());
  } catch (const std::exception& why) {
    Debug(kDebugNormal, "A request failed: %s", why.what());
  }
  return MHD_NO;
}

void Server::Impl::OnCompleted(void* impl_, MHD_Connection* handle_, void** exchange_,
                               MHD_RequestTerminationCode code_) noexcept {
  (void)code_;
  delete static_cast<Exchange*>(std::exchange(*exchange_, nullptr));
  Connection& connection = ConnectionOf(handle_);
  static_cast<Impl*>(impl_)->connections.Unwatch(connection);
  Connections::ExpectRequest(connection, Now());
}

Connection& Server::Impl::ConnectionOf(MHD_Connection* handle_) {
  return *static_cast<Connection*>(
      MHD_get_connection_info(handle_, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
}

std::string Server::Impl::ClientOfRequest(MHD_Connection* handle_) const {
  const std::string forwarded =
      settings.is_behind_proxy ? ClientForwarded(LastHeaderOf(handle_, "X-Forwarded-For")) : "";
  return forwarded.empty() ? ConnectionOf(handle_).client : forwarded;
}

// Called after the headers. Answers at once if the body is not needed.
MHD_Result Server::Impl::Begin(MHD_Connection* handle_, const char* url_, const char* method_,
                               void** exchange_) {
  auto* const exchange = new Exchange;
  *exchange_ = exchange;  // OnCompleted deletes it.
  Visit& visit = exchange->visit;
  visit.request.method = strcmp(method_, "HEAD") == 0 ? "GET" : method_;
  visit.request.wants_json = HeaderOf(handle_, "Accept") == "application/json";
  visit.session = FindCookie(HeaderOf(handle_, "Cookie"), cookie);
  visit.client = ClientOfRequest(handle_);
  std::optional<Answer> refusal = CheckHeaders(handle_, url_, *exchange);
  return refusal ? Reply(handle_, std::move(*refusal)) : MHD_YES;
}

// Checks a request before its body is read. Returns an answer if the body is not needed.
std::optional<Answer> Server::Impl::CheckHeaders(MHD_Connection* handle_, const char* url_,
                                                 Exchange& exchange_) {
  Request& request = exchange_.visit.request;
  if (request.method != "GET" && request.method != "POST") {
    return Refuse(request, 405, "Only GET, HEAD and POST are allowed.");
  }
  if (strlen(url_) > kMaxPath) {
    return Refuse(request, 414, "The path is too long.");
  }
  try {
    request.path = DecodePath(url_);
  } catch (const std::string&) {
    return Refuse(request, 400, "The path is not valid.");
  }
  if (request.method == "POST") {
    if (IsFromElsewhere(handle_)) {
      return Refuse(request, 403, "The form comes from another site.");
    }
    exchange_.limit = gate.BodyLimit(exchange_.visit, Now());
    if (exchange_.limit == 0) {
      return gate.Handle(exchange_.visit, Now());
    }
    if (!IsForm(handle_)) {
      return Refuse(request, 415, "Only forms are accepted.");
    }
  }
  if (AnnouncedLength(handle_).value_or(0) > exchange_.limit) {
    return Refuse(request, 413, "The request is too large.");
  }
  return std::nullopt;
}

Answer Server::Impl::Finish(Exchange& exchange_) {
  Request& request = exchange_.visit.request;
  if (request.path == "/healthz") {
    Answer answer;
    answer.response.type = "text/plain";
    answer.response.body = "ok\n";
    return answer;
  }
  try {
    request.form = ParseForm(std::exchange(exchange_.body, ""));
  } catch (const std::string&) {
    return Refuse(request, 400, "The form is not valid.");
  }
  try {
    Answer answer = gate.Handle(exchange_.visit, Now());
    is_changed = is_changed || request.method == "POST";
    return answer;
  } catch (const std::string& why) {
    Debug(kDebugNormal, "%s %s failed: %s", request.method.c_str(), request.path.c_str(),
          why.c_str());
    return Refuse(request, 500, "The request failed; see the log of the desk.");
  }
}

MHD_Result Server::Impl::Reply(MHD_Connection* handle_, Answer answer_) {
  const OwnedResponse response = ResponseOf(std::move(answer_.response.body));
  if (response == nullptr) {
    return MHD_NO;
  }
  for (const auto& [name, value] : kHeaders) {
    AddHeader(response.get(), name, value);
  }
  AddHeader(response.get(), "Content-Type", answer_.response.type);
  AddHeader(response.get(), "Cache-Control",
            answer_.is_public ? Format("max-age=%d", kPublicSeconds) : "no-store");
  if (answer_.response.status == 405) {
    AddHeader(response.get(), "Allow", "GET, HEAD, POST");
  }
  if (answer_.retry_after > 0) {
    AddHeader(response.get(), "Retry-After", std::to_string(answer_.retry_after));
  }
  if (answer_.session) {
    AddHeader(
        response.get(), "Set-Cookie",
        Format("%s=%s; Path=/; HttpOnly; SameSite=Strict; Max-Age=%d%s", cookie.c_str(),
               answer_.session->c_str(), answer_.session->empty() ? 0 : Sessions::kHours * 3600,
               IsSecure() ? "; Secure" : ""));
  }
  // "Location" is the last header, as simple clients stop reading there.
  if (!answer_.response.location.empty()) {
    AddHeader(response.get(), "Location", answer_.response.location);
  }
  Connections::ExpectReading(ConnectionOf(handle_), Now());
  return MHD_queue_response(handle_, static_cast<unsigned int>(answer_.response.status),
                            response.get());
}

MHD_Result Server::Impl::Stream(MHD_Connection* handle_, const Exchange& exchange_) {
  Connection& connection = ConnectionOf(handle_);
  if (!connections.Watch(connection)) {
    return Reply(handle_, Refuse(exchange_.visit.request, 503, "Too many pages are open."));
  }
  const OwnedResponse response(streams.Open(handle_, connection, exchange_.visit.session));
  if (response == nullptr) {
    return MHD_NO;
  }
  for (const auto& [name, value] : kHeaders) {
    AddHeader(response.get(), name, value);
  }
  AddHeader(response.get(), "Content-Type", "text/event-stream");
  AddHeader(response.get(), "Connection", "close");
  AddHeader(response.get(), "Cache-Control", "no-store");
  AddHeader(response.get(), "X-Accel-Buffering", "no");  // Some proxies would hold events back.
  return MHD_queue_response(handle_, MHD_HTTP_OK, response.get());
}

Server::Server(const ServerSettings& settings_, Gate& gate_, Pages& pages_)
    : impl(std::make_unique<Impl>(settings_, gate_, pages_)) {}

Server::~Server() = default;

void Server::Run() {
  while (!impl->is_stopping) {
    impl->RunOnce();
  }
}

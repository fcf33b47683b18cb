#include "curlremote.h"

#include <curl/curl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "clock.h"
#include "format.h"
#include "listing.h"

namespace {

using Take = std::function<void(const char*, size_t)>;

constexpr long kAnswerSeconds = 5;
constexpr double kStallSeconds = 10;
constexpr long kKeepAliveSeconds = 15;
constexpr int kShortestWait = 5;  // Milliseconds.
constexpr int kLongestWait = 200;
constexpr char kNoAnswer[] = "no answer";
constexpr char kBroken[] = "the connection broke";

// The server's answers to an unknown command, or to unknown arguments.
constexpr long kUnknownCommand = 500;
constexpr long kWrongArguments = 501;
constexpr long kNotImplemented = 502;
constexpr long kNotForArguments = 504;

// Certificates named by their hashes: the library loads only those that it needs.
constexpr char kCertificates[] = "/etc/ssl/certs";

const char* SchemeOf(FtpKind kind_) {
  switch (kind_) {
    case FtpKind::kFtps:
      return "ftps";
    case FtpKind::kSftp:
      return "sftp";
    default:
      return "ftp";
  }
}

// The directory's URL, with a slash at its end.
std::string UrlOf(const FtpPlace& place_) {
  std::string url = std::string(SchemeOf(place_.kind)) + "://" + place_.host;
  if (place_.port != 0) {
    url += Format(":%d", place_.port);
  }
  url += '/';
  // The library treats a path as absolute for SFTP, and as relative for FTP.
  if (place_.kind == FtpKind::kSftp) {
    const bool is_absolute = !place_.directory.empty() && place_.directory[0] == '/';
    url += is_absolute ? EscapedPath(place_.directory.substr(1))
                       : "~/" + EscapedPath(place_.directory);
  } else {
    url += EscapedPath(place_.directory);
  }
  return url.back() == '/' ? url : url + '/';
}

// A path for the library's own commands on SFTP.
std::string Quoted(const std::string& path_) {
  std::string quoted = "\"";
  for (const char c : path_) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted + '"';
}

// A list of commands for the server, freed at the end.
class Commands {
 public:
  explicit Commands(const std::string& command_)
      : list(curl_slist_append(nullptr, command_.c_str())) {
    if (list == nullptr) {
      throw std::string("out of memory");
    }
  }
  ~Commands() { curl_slist_free_all(list); }

  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;

  curl_slist* Get() const { return list; }

 private:
  curl_slist* list;
};

// Adds a request to the library's set while it lives.
class Running {
 public:
  Running(CURLM* sessions_, CURL* handle_) : sessions(sessions_), handle(handle_) {
    curl_multi_add_handle(sessions, handle);
  }
  ~Running() { curl_multi_remove_handle(sessions, handle); }

  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

 private:
  CURLM* sessions;
  CURL* handle;
};

// Initializes the library, once in a process.
void StartLibrary() {
  static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (result != CURLE_OK) {
    throw std::string(curl_easy_strerror(result));
  }
}

}  // namespace

struct CurlRemote::Impl {
  Impl(const FtpPlace& place_, std::function<bool()> go_on_)
      : place(place_), url(UrlOf(place_)), go_on(std::move(go_on_)) {}

  template <typename Value>
  void Set(CURLoption option_, Value value_) {
    const CURLcode result = curl_easy_setopt(handle, option_, value_);
    if (result != CURLE_OK) {
      throw Format("libcurl: %s", curl_easy_strerror(result));
    }
  }

  void SetCommon();
  void SetTls();
  void SetSsh();
  void SetRequest(const std::string& url_);
  void Perform(const Take& take_);
  CURLcode Wait();
  void CutOff();
  long ResponseCode() const;
  [[noreturn]] void Fail(CURLcode result_);
  void List(const char* command_, ListingForm form_,
            const std::function<void(const RemoteFile&)>& take_);

  static size_t TakeData(char* data_, size_t one_, size_t size_, void* self_);
  static curl_socket_t OpenSocket(void* self_, curlsocktype purpose_, curl_sockaddr* address_);
  static int CloseSocket(void* self_, curl_socket_t socket_);
  static size_t TakeReply(char* data_, size_t one_, size_t size_, void* self_);

  const FtpPlace place;
  const std::string url;
  const std::function<bool()> go_on;
  CURLM* sessions = nullptr;
  CURL* handle = nullptr;
  std::vector<curl_socket_t> sockets;  // The open ones.
  bool has_mlsd = true;
  bool is_set_to_list = false;  // The last request was a listing; most often the next one is too.

  // Of the running request.
  const Take* take = nullptr;
  std::exception_ptr thrown;  // The exception of a function that the library has called.
  std::string reply;          // The server's last line, FTP only.
  char error[CURL_ERROR_SIZE] = "";
  bool has_received = false;  // Since the flag was last cleared.
  bool is_lost = false;       // The connection that was closed last was closed by the server.
};

size_t CurlRemote::Impl::TakeData(char* data_, size_t /*one_*/, size_t size_, void* self_) {
  Impl* self = static_cast<Impl*>(self_);
  try {
    self->has_received = true;
    (*self->take)(data_, size_);
    return size_;
  } catch (...) {
    self->thrown = std::current_exception();
    return size_ + 1;  // Ends the transfer.
  }
}

size_t CurlRemote::Impl::TakeReply(char* data_, size_t /*one_*/, size_t size_, void* self_) {
  constexpr size_t kMaxReply = 200;
  try {
    std::string* reply = &static_cast<Impl*>(self_)->reply;
    reply->assign(data_, std::min(size_, kMaxReply));
    reply->erase(reply->find_last_not_of("\r\n") + 1);
    return size_;
  } catch (...) {
    return size_ + 1;
  }
}

curl_socket_t CurlRemote::Impl::OpenSocket(void* self_, curlsocktype /*purpose_*/,
                                           curl_sockaddr* address_) {
  std::vector<curl_socket_t>* sockets = &static_cast<Impl*>(self_)->sockets;
  const int number =
      ::socket(address_->family, address_->socktype | SOCK_CLOEXEC, address_->protocol);
  if (number < 0) {
    return CURL_SOCKET_BAD;
  }
  try {
    sockets->push_back(number);
    return number;
  } catch (...) {
    close(number);
    return CURL_SOCKET_BAD;
  }
}

int CurlRemote::Impl::CloseSocket(void* self_, curl_socket_t socket_) {
  Impl* self = static_cast<Impl*>(self_);
  std::vector<curl_socket_t>* sockets = &self->sockets;
  sockets->erase(std::remove(sockets->begin(), sockets->end(), socket_), sockets->end());
  char byte = 0;
  self->is_lost = recv(socket_, &byte, sizeof(byte), MSG_PEEK | MSG_DONTWAIT) == 0;
  return close(socket_);
}

void CurlRemote::Impl::SetCommon() {
  Set(CURLOPT_PROTOCOLS_STR, SchemeOf(place.kind));
  Set(CURLOPT_PATH_AS_IS, 1L);  // The server interprets "..".
  Set(CURLOPT_PROXY, "");
  Set(CURLOPT_NOSIGNAL, 1L);
  Set(CURLOPT_QUICK_EXIT, 1L);  // Does not wait for a pending name lookup.
  Set(CURLOPT_ERRORBUFFER, error);
  Set(CURLOPT_WRITEFUNCTION, &TakeData);
  Set(CURLOPT_WRITEDATA, this);
  Set(CURLOPT_HEADERFUNCTION, &TakeReply);
  Set(CURLOPT_HEADERDATA, this);
  Set(CURLOPT_OPENSOCKETFUNCTION, &OpenSocket);
  Set(CURLOPT_OPENSOCKETDATA, this);
  Set(CURLOPT_CLOSESOCKETFUNCTION, &CloseSocket);
  Set(CURLOPT_CLOSESOCKETDATA, this);
  Set(CURLOPT_CONNECTTIMEOUT, kAnswerSeconds);
  Set(CURLOPT_SERVER_RESPONSE_TIMEOUT, kAnswerSeconds);
  Set(CURLOPT_TCP_KEEPALIVE, 1L);
  Set(CURLOPT_TCP_KEEPIDLE, kKeepAliveSeconds);
  Set(CURLOPT_TCP_KEEPINTVL, kKeepAliveSeconds);
  Set(CURLOPT_FTP_FILEMETHOD, static_cast<long>(CURLFTPMETHOD_SINGLECWD));
  if (place.is_active) {
    Set(CURLOPT_FTPPORT, "-");
  }
  if (!place.user.empty()) {
    Set(CURLOPT_USERNAME, place.user.c_str());
    Set(CURLOPT_PASSWORD, place.password.c_str());
  }
}

void CurlRemote::Impl::SetTls() {
  // For kFtps too: otherwise, a server could ask for data without TLS.
  if (place.kind == FtpKind::kFtpes || place.kind == FtpKind::kFtps) {
    Set(CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
  }
  Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  const bool has_own = !place.ca_file.empty();
  Set(CURLOPT_CAINFO, has_own ? place.ca_file.c_str() : nullptr);
  Set(CURLOPT_CAPATH, has_own ? nullptr : kCertificates);
}

void CurlRemote::Impl::SetSsh() {
  Set(CURLOPT_SSH_KNOWNHOSTS, place.known_hosts.c_str());
  if (place.key_file.empty()) {
    Set(CURLOPT_SSH_AUTH_TYPES, static_cast<long>(CURLSSH_AUTH_PASSWORD | CURLSSH_AUTH_KEYBOARD));
  } else {
    Set(CURLOPT_SSH_AUTH_TYPES, static_cast<long>(CURLSSH_AUTH_PUBLICKEY));
    Set(CURLOPT_SSH_PRIVATE_KEYFILE, place.key_file.c_str());
    Set(CURLOPT_KEYPASSWD, place.password.c_str());
  }
}

// Sets up a request, without the options of the last one.
void CurlRemote::Impl::SetRequest(const std::string& url_) {
  if (handle == nullptr) {
    StartLibrary();
    sessions = curl_multi_init();
    handle = curl_easy_init();
    if (sessions == nullptr || handle == nullptr) {
      throw std::string("out of memory");
    }
  } else {
    curl_easy_reset(handle);  // Keeps the session.
  }
  is_set_to_list = false;
  SetCommon();
  SetTls();
  if (place.kind == FtpKind::kSftp) {
    SetSsh();
  }
  Set(CURLOPT_URL, url_.c_str());
}

void CurlRemote::Impl::Perform(const Take& take_) {
  take = &take_;
  thrown = nullptr;
  reply.clear();
  is_lost = false;
  error[0] = '\0';
  const Running running(sessions, handle);
  const CURLcode result = Wait();
  if (thrown) {
    std::rethrow_exception(std::exchange(thrown, nullptr));
  }
  if (result != CURLE_OK) {
    Fail(result);
  }
}

// Closes the session's sockets, as the library would wait for the answer to a proper end.
void CurlRemote::Impl::CutOff() {
  for (const curl_socket_t number : sockets) {
    shutdown(number, SHUT_RDWR);
  }
}

// Waits for the end of the request.
//
// At some steps of FTP, the library would wait up to a second without a reason. So it is called
// again soon, and less often the longer nothing happens.
CURLcode CurlRemote::Impl::Wait() {
  int milliseconds = kShortestWait;
  double last_progress = Now();
  int count = 0;
  while (curl_multi_perform(sessions, &count) == CURLM_OK && count > 0) {
    const double now = Now();
    if (std::exchange(has_received, false)) {
      last_progress = now;
    }
    const bool is_stopped = !go_on();
    if (is_stopped || now - last_progress > kStallSeconds) {
      CutOff();
      throw std::string(is_stopped ? "stopped" : kNoAnswer);
    }
    int events = 0;
    curl_multi_poll(sessions, nullptr, 0, milliseconds, &events);
    milliseconds = events > 0 ? kShortestWait : std::min(2 * milliseconds, kLongestWait);
  }
  const CURLMsg* message = curl_multi_info_read(sessions, &count);
  return message == nullptr ? CURLE_FAILED_INIT : message->data.result;
}

long CurlRemote::Impl::ResponseCode() const {
  long code = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &code);
  return code;
}

// Throws a text that is always the same for the same failure. The library's own texts vary.
void CurlRemote::Impl::Fail(CURLcode result_) {
  constexpr long kFirstFailure = 400;
  const bool has_reply = place.kind != FtpKind::kSftp && ResponseCode() >= kFirstFailure &&
                         strtol(reply.c_str(), nullptr, 10) >= kFirstFailure;
  const std::string text = has_reply          ? reply
                           : error[0] != '\0' ? error
                                              : curl_easy_strerror(result_);
  // For SFTP, each step has its own error, even if a lost connection is the cause.
  if (place.kind == FtpKind::kSftp && is_lost) {
    throw std::string(kBroken);
  }
  switch (result_) {
    case CURLE_LOGIN_DENIED:
      throw Refused{has_reply ? reply : "login denied"};
    case CURLE_PEER_FAILED_VERIFICATION:
      throw Refused{place.kind == FtpKind::kSftp
                        ? "the server's host key is not that of " + place.known_hosts
                        : text};
    case CURLE_COULDNT_RESOLVE_HOST:
      throw std::string("the server's address is unknown");
    case CURLE_COULDNT_CONNECT: {
      long number = 0;
      curl_easy_getinfo(handle, CURLINFO_OS_ERRNO, &number);
      throw std::string(number == 0 ? curl_easy_strerror(result_)
                                    : strerror(static_cast<int>(number)));
    }
    case CURLE_OPERATION_TIMEDOUT:
      throw std::string(kNoAnswer);
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
      throw has_reply ? reply : std::string(kBroken);
    default:
      throw text;
  }
}

void CurlRemote::Impl::List(const char* command_, ListingForm form_,
                            const std::function<void(const RemoteFile&)>& take_) {
  ListingReader reader(form_, take_);
  if (!is_set_to_list) {
    SetRequest(url);
    Set(CURLOPT_CUSTOMREQUEST, command_);
    is_set_to_list = true;
  }
  Perform([&reader](const char* data_, size_t size_) { reader.Feed(data_, size_); });
  // The library treats a 450 as an empty directory.
  if (place.kind != FtpKind::kSftp && ResponseCode() / 100 != 2) {
    throw reply;
  }
  reader.Finish();
}

CurlRemote::CurlRemote(const FtpPlace& place_, std::function<bool()> go_on_)
    : impl(std::make_unique<Impl>(place_, std::move(go_on_))) {}

CurlRemote::~CurlRemote() {
  impl->CutOff();
  curl_easy_cleanup(impl->handle);
  curl_multi_cleanup(impl->sessions);
}

void CurlRemote::List(const std::function<void(const RemoteFile&)>& take_) {
  if (impl->place.kind == FtpKind::kSftp) {
    impl->List(nullptr, ListingForm::kColumns, take_);
    return;
  }
  if (impl->has_mlsd) {
    try {
      impl->List("MLSD", ListingForm::kFacts, take_);
      return;
    } catch (const std::string&) {
      const long code = impl->ResponseCode();
      if (code != kUnknownCommand && code != kWrongArguments && code != kNotImplemented &&
          code != kNotForArguments) {
        throw;
      }
      impl->has_mlsd = false;
      impl->is_set_to_list = false;
    }
  }
  impl->List(nullptr, ListingForm::kColumns, take_);
}

std::string CurlRemote::Time(const RemoteFile& file_) {
  impl->SetRequest(impl->url + EscapedPath(file_.name));
  impl->Set(CURLOPT_NOBODY, 1L);
  impl->Set(CURLOPT_FILETIME, 1L);
  impl->Perform([](const char*, size_t) {});
  curl_off_t seconds = -1;
  curl_easy_getinfo(impl->handle, CURLINFO_FILETIME_T, &seconds);
  if (seconds < 0 && impl->place.kind != FtpKind::kSftp && impl->has_mlsd) {
    return file_.stamp;  // The server has no exact time.
  }
  if (seconds < 0) {
    throw std::string("the server does not tell times of files");
  }
  return Format("%lld", static_cast<long long>(seconds));
}

void CurlRemote::Fetch(const std::string& name_, uint64_t offset_, const Take& take_) {
  impl->SetRequest(impl->url + EscapedPath(name_));
  impl->Set(CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(offset_));
  impl->Perform(take_);
}

void CurlRemote::Delete(const std::string& name_) {
  impl->SetRequest(impl->url);
  impl->Set(CURLOPT_NOBODY, 1L);
  if (impl->place.kind == FtpKind::kSftp) {
    const std::string& directory = impl->place.directory;
    const bool needs_slash = !directory.empty() && directory.back() != '/';
    const Commands commands("rm " + Quoted(directory + (needs_slash ? "/" : "") + name_));
    impl->Set(CURLOPT_QUOTE, commands.Get());
    impl->Perform([](const char*, size_t) {});
  } else {
    // The library sends these in the right directory, before the (empty) transfer.
    const Commands commands("DELE " + name_);
    impl->Set(CURLOPT_PREQUOTE, commands.Get());
    impl->Perform([](const char*, size_t) {});
  }
}

#include "smbremote.h"

#include <errno.h>
#include <fcntl.h>
#include <libsmbclient.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "format.h"

namespace {

constexpr int kAnswerMilliseconds = 5000;
constexpr auto kPause = std::chrono::milliseconds(200);  // Between two calls of go_on.
constexpr double kJobSeconds = 90;  // A job of the library that takes longer counts as endless.
constexpr size_t kPieceSize = 1 << 16;

// Attribute of an entry that is not a file.
constexpr uint16_t kVolume = 0x08;
constexpr uint16_t kDirectory = 0x10;

std::string UrlOf(const SmbPlace& place_) {
  const std::string url = "smb://" + place_.host + "/" + EscapedPath(place_.share) + "/";
  const std::string directory = EscapedPath(place_.directory);
  return directory.empty() || directory.back() == '/' ? url + directory : url + directory + "/";
}

// A home directory whose settings replace the machine's and the user's. The library reads them when
// its first context is made.
class Home {
 public:
  Home() {
    const char* temporary = getenv("TMPDIR");
    path = std::string(temporary == nullptr ? "/tmp" : temporary) + "/vocastra-cifs.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
      throw Format("cannot make a temporary directory: %s", strerror(errno));
    }
    mkdir(Directory().c_str(), 0700);
    FILE* file = fopen(File().c_str(), "we");
    if (file != nullptr) {
      fputs("[global]\nname resolve order = host\nlog level = 0\n", file);
      fclose(file);
    }
    setenv("HOME", path.c_str(), 1);
  }
  ~Home() {
    unlink(File().c_str());
    rmdir(Directory().c_str());
    rmdir(path.c_str());
  }

  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;

 private:
  std::string Directory() const { return path + "/.smb"; }
  std::string File() const { return Directory() + "/smb.conf"; }

  std::string path;
};

void IgnoreLog(void* /*unused*/, int /*level_*/, const char* /*text_*/) {}

// The library's session, used by one thread at a time. Functions return 0 or an errno.
class Session {
 public:
  explicit Session(const SmbPlace& place_) : place(place_), url(UrlOf(place_)) {}
  ~Session() {
    Close();
    if (first_context != nullptr) {
      smbc_free_context(first_context, 1);
    }
  }

  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  int OpenDirectory() {
    const int failure = Open();
    if (failure != 0) {
      return failure;
    }
    open_directory = smbc_getFunctionOpendir(context)(context, url.c_str());
    return open_directory == nullptr ? errno : 0;
  }

  // The next entry of the directory; null at the end. Needs no answer of the server.
  const libsmb_file_info* NextEntry() {
    return smbc_getFunctionReaddirPlus(context)(context, open_directory);
  }

  void CloseDirectory() {
    if (open_directory != nullptr) {
      smbc_getFunctionClosedir(context)(context, open_directory);
      open_directory = nullptr;
    }
  }

  int OpenFile(const std::string& name_, uint64_t offset_) {
    const int failure = Open();
    if (failure != 0) {
      return failure;
    }
    const std::string path = url + EscapedPath(name_);
    open_file = smbc_getFunctionOpen(context)(context, path.c_str(), O_RDONLY, 0);
    if (open_file == nullptr) {
      return errno;
    }
    const auto offset = static_cast<off_t>(offset_);
    return offset != 0 && smbc_getFunctionLseek(context)(context, open_file, offset, SEEK_SET) < 0
               ? errno
               : 0;
  }

  // Reads the next piece; it is empty at the end.
  int ReadPiece() {
    piece.resize(kPieceSize);
    const ssize_t got =
        smbc_getFunctionRead(context)(context, open_file, piece.data(), piece.size());
    piece.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return got < 0 ? errno : 0;
  }

  const std::vector<char>& Piece() const { return piece; }

  int CloseFile() {
    if (open_file != nullptr) {
      smbc_getFunctionClose(context)(context, std::exchange(open_file, nullptr));
    }
    return 0;
  }

  // Asks the server for the time of a file's last change.
  int FindTime(const std::string& name_) {
    const int failure = Open();
    if (failure != 0) {
      return failure;
    }
    const std::string path = url + EscapedPath(name_);
    struct stat status = {};
    if (smbc_getFunctionStat(context)(context, path.c_str(), &status) < 0) {
      return errno;
    }
    time = status.st_mtim;
    return 0;
  }

  const timespec& Time() const { return time; }

  int Delete(const std::string& name_) {
    const int failure = Open();
    if (failure != 0) {
      return failure;
    }
    const std::string path = url + EscapedPath(name_);
    return smbc_getFunctionUnlink(context)(context, path.c_str()) < 0 ? errno : 0;
  }

  // Ends the session.
  int Close() {
    CloseDirectory();
    CloseFile();
    if (context != nullptr) {
      smbc_free_context(std::exchange(context, nullptr), 1);
    }
    return 0;
  }

 private:
  // Cleans up after an interrupted call, and opens a session if there is none.
  int Open() {
    CloseDirectory();
    CloseFile();
    if (context != nullptr) {
      return 0;
    }
    if (first_context == nullptr) {
      const Home home;
      first_context = smbc_new_context();
    }
    SMBCCTX* made = smbc_new_context();
    if (made == nullptr) {
      return errno;
    }
    smbc_setLogCallback(made, nullptr, &IgnoreLog);
    smbc_setDebug(made, 0);
    smbc_setUser(made, place.user.c_str());
    smbc_setNetbiosName(made, "vocastra");
    smbc_setWorkgroup(made, place.domain.empty() ? "WORKGROUP" : place.domain.c_str());
    smbc_setOptionUserData(made, this);
    smbc_setFunctionAuthDataWithContext(made, &TellLogin);
    smbc_setOptionNoAutoAnonymousLogin(made, 1);
    smbc_setOptionUseKerberos(made, 0);
    smbc_setTimeout(made, kAnswerMilliseconds);
    smbc_setPort(made, static_cast<uint16_t>(place.port));
    if (!smbc_setOptionProtocols(made, place.oldest.c_str(), place.newest.c_str()) ||
        smbc_init_context(made) == nullptr) {
      const int failure = errno;
      smbc_free_context(made, 1);
      return failure;
    }
    context = made;
    return 0;
  }

  static void TellLogin(SMBCCTX* context_, const char* /*server_*/, const char* /*share_*/,
                        char* domain_, int domain_size_, char* user_, int user_size_,
                        char* password_, int password_size_) {
    const auto* self = static_cast<const Session*>(smbc_getOptionUserData(context_));
    snprintf(domain_, static_cast<size_t>(domain_size_), "%s", self->place.domain.c_str());
    snprintf(user_, static_cast<size_t>(user_size_), "%s", self->place.user.c_str());
    snprintf(password_, static_cast<size_t>(password_size_), "%s", self->place.password.c_str());
  }

  const SmbPlace place;
  const std::string url;
  // While it exists, the library does not read the settings again.
  SMBCCTX* first_context = nullptr;
  SMBCCTX* context = nullptr;  // It has a session; null: none.
  SMBCFILE* open_directory = nullptr;
  SMBCFILE* open_file = nullptr;
  std::vector<char> piece;
  timespec time = {};
};

// A thread that does one job at a time.
class Worker {
 public:
  using Job = std::function<int()>;

  explicit Worker(std::function<double()> now_)
      : now(std::move(now_)), state(std::make_shared<State>()) {
    // Signals are for the caller's thread.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    thread = std::thread([shared = state] { Work(shared.get()); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  // Detaches the thread if it has a job.
  ~Worker() {
    std::unique_lock<std::mutex> lock(state->mutex);
    state->is_over = true;
    state->changed.notify_all();
    const bool has_job = state->job != nullptr;
    lock.unlock();
    if (has_job) {
      thread.detach();
    } else {
      thread.join();
    }
  }

  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // Lets the thread do a job; returns or throws as the job does. Throws a string if go_on_ returns
  // false. The job then goes on, so it must own what it uses. Throws Stuck if the present job takes
  // too long.
  int Do(Job job_, const std::function<bool()>& go_on_) {
    std::unique_lock<std::mutex> lock(state->mutex);
    Wait(&lock, go_on_);
    state->job = std::move(job_);
    job_begin = now();
    state->changed.notify_all();
    Wait(&lock, go_on_);
    if (state->thrown) {
      std::rethrow_exception(std::exchange(state->thrown, nullptr));
    }
    return state->result;
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    Job job;                    // Empty when it is done.
    int result = 0;             // Of the last job,
    std::exception_ptr thrown;  // or what it threw.
    bool is_over = false;
  };

  // Waits until there is no job.
  void Wait(std::unique_lock<std::mutex>* lock_, const std::function<bool()>& go_on_) {
    while (!state->changed.wait_for(*lock_, kPause, [this] { return state->job == nullptr; })) {
      lock_->unlock();
      if (now() - job_begin > kJobSeconds) {
        throw Stuck{"libsmbclient hangs"};
      }
      if (!go_on_()) {
        throw std::string("stopped");
      }
      lock_->lock();
    }
  }

  static void Work(State* state_) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    for (;;) {
      state_->changed.wait(lock, [state_] { return state_->job != nullptr || state_->is_over; });
      if (state_->job == nullptr) {
        return;
      }
      lock.unlock();
      int result = 0;
      std::exception_ptr thrown;
      try {
        result = state_->job();
      } catch (...) {
        thrown = std::current_exception();
      }
      lock.lock();
      state_->result = result;
      state_->thrown = thrown;
      state_->job = nullptr;
      state_->changed.notify_all();
    }
  }

  const std::function<double()> now;
  double job_begin = 0;
  std::shared_ptr<State> state;
  std::thread thread;
};

// Calls a function at the end of a block.
class AtEnd {
 public:
  explicit AtEnd(std::function<void()> do_) : action(std::move(do_)) {}
  ~AtEnd() { action(); }

  AtEnd(const AtEnd&) = delete;
  AtEnd& operator=(const AtEnd&) = delete;

 private:
  const std::function<void()> action;
};

// True for failures that concern one file and leave the session usable.
bool IsOfFile(int failure_) {
  return failure_ == ENOENT || failure_ == EACCES || failure_ == EBUSY || failure_ == EISDIR;
}

std::string TextOf(const timespec& time_) {
  return Format("%lld.%09ld", static_cast<long long>(time_.tv_sec),
                static_cast<long>(time_.tv_nsec));
}

std::string TextOf(int failure_) {
  switch (failure_) {
    case ETIMEDOUT:
      return "no answer";
    case ECONNABORTED:
    case ECONNRESET:
    case EPIPE:
      return "the connection broke";
    case ENODEV:
      return "no such share";
    default:
      return strerror(failure_);
  }
}

}  // namespace

struct SmbRemote::Impl {
  Impl(const SmbPlace& place_, std::function<bool()> go_on_, std::function<double()> now_)
      : session(std::make_shared<Session>(place_)),
        go_on(std::move(go_on_)),
        worker(std::move(now_)) {}

  // Lets the thread run action_ with the session. Throws if it fails.
  void Do(const std::function<int(Session*)>& action_) {
    const int failure = Ask([shared = session, action_] { return action_(shared.get()); });
    if (failure == 0) {
      is_open = true;
      return;
    }
    const bool was_open = is_open;
    if (!was_open || !IsOfFile(failure)) {
      is_open = false;
      Ask([shared = session] { return shared->Close(); });
    }
    // The library has the same error for a refused login, share and directory.
    if (!was_open && (failure == EACCES || failure == EPERM)) {
      throw Refused{"login or access refused"};
    }
    if (!was_open && failure == EINVAL) {
      throw std::string("no such server, or no common version of the protocol");
    }
    throw TextOf(failure);
  }

  int Ask(Worker::Job job_) { return worker.Do(std::move(job_), go_on); }

  const std::shared_ptr<Session> session;  // Shared with the thread.
  const std::function<bool()> go_on;
  bool is_open = false;
  Worker worker;
};

SmbRemote::SmbRemote(const SmbPlace& place_, std::function<bool()> go_on_,
                     std::function<double()> now_)
    : impl(std::make_unique<Impl>(place_, std::move(go_on_), std::move(now_))) {}

SmbRemote::~SmbRemote() = default;

void SmbRemote::List(const std::function<void(const RemoteFile&)>& take_) {
  impl->Do([](Session* session_) { return session_->OpenDirectory(); });
  Session* session = impl->session.get();
  const AtEnd close([session] { session->CloseDirectory(); });
  RemoteFile file;
  while (const libsmb_file_info* entry = session->NextEntry()) {
    if ((entry->attrs & (kVolume | kDirectory)) == 0) {
      file.name = entry->name;
      file.size = entry->size;
      file.stamp = TextOf(entry->mtime_ts);
      take_(file);
    }
  }
}

std::string SmbRemote::Time(const RemoteFile& file_) {
  impl->Do([name = file_.name](Session* session_) { return session_->FindTime(name); });
  return TextOf(impl->session->Time());
}

void SmbRemote::Fetch(const std::string& name_, uint64_t offset_,
                      const std::function<void(const char*, size_t)>& take_) {
  impl->Do([name_, offset_](Session* session_) { return session_->OpenFile(name_, offset_); });
  for (;;) {
    impl->Do([](Session* session_) { return session_->ReadPiece(); });
    const std::vector<char>& piece = impl->session->Piece();
    if (piece.empty()) {
      break;
    }
    try {
      if (!impl->go_on()) {
        throw std::string("stopped");
      }
      take_(piece.data(), piece.size());
    } catch (...) {
      impl->Ask([shared = impl->session] { return shared->CloseFile(); });
      throw;
    }
  }
  impl->Do([](Session* session_) { return session_->CloseFile(); });
}

void SmbRemote::Delete(const std::string& name_) {
  impl->Do([name_](Session* session_) { return session_->Delete(name_); });
}

void LimitMemory(size_t bytes_) {
  unsigned long pages = 0;  // Pages that the limit counts: private and writable ones.
  FILE* file = fopen("/proc/self/statm", "re");
  if (file != nullptr) {
    // NOLINTNEXTLINE(cert-err34-c): the kernel writes it.
    if (fscanf(file, "%*u %*u %*u %*u %*u %lu", &pages) != 1) {
      pages = 0;
    }
    fclose(file);
  }
  rlimit limit = {};
  getrlimit(RLIMIT_DATA, &limit);
  const rlim_t wanted = rlim_t{pages} * static_cast<rlim_t>(getpagesize()) + bytes_;
  limit.rlim_cur = std::min(limit.rlim_max, wanted);
  setrlimit(RLIMIT_DATA, &limit);
}

// A server and a clock for tests of the mirror.
#pragma once

#include <dirent.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mirror.h"
#include "test_util.h"

// A server that does what a test sets, and a clock that only the server moves.
struct FakeServer {
  struct File {
    std::string content;
    std::string time;
    std::string stamp;  // The exact time; empty: the listing's stamp.
    uint64_t size = 0;  // 0: the size of the content.
    bool is_rounded = false;
  };

  std::map<std::string, File> files;
  double clock = 1000;
  std::vector<std::string> calls;  // "list", "time NAME", "fetch NAME OFFSET", "delete NAME".

  // Is called at each call, with its text, and may throw.
  std::function<void(const std::string&)> on_call = [](const std::string&) {};

  size_t piece = 100;                     // Bytes that a fetch hands over at once,
  std::map<std::string, double> seconds;  // after so many seconds each; then
  std::function<void(const std::string&, uint64_t)> on_piece = [](const std::string&, uint64_t) {};

  // Replaces the listing of the files above.
  std::function<void(const std::function<void(const RemoteFile&)>&)> listing;

  void Put(const std::string& name_, const std::string& content_, const std::string& time_ = "1") {
    files[name_] = {content_, time_, "", 0, false};
  }
  // Calls so far that begin with that text.
  long Count(const std::string& text_) const {
    return std::count_if(calls.begin(), calls.end(),
                         [&](const std::string& call_) { return call_.rfind(text_, 0) == 0; });
  }
};

class FakeRemote : public Remote {
 public:
  FakeRemote(FakeServer& server_, std::function<bool()> go_on_)
      : server(server_), go_on(std::move(go_on_)) {}

  void List(const std::function<void(const RemoteFile&)>& take_) override {
    Call("list");
    if (server.listing) {
      server.listing(take_);
      return;
    }
    for (const auto& [name, file] : server.files) {
      take_({name, SizeOf(file), file.stamp.empty() ? file.time : file.stamp, file.is_rounded});
    }
  }

  std::string Time(const RemoteFile& file_) override {
    Call("time " + file_.name);
    return Find(file_.name).time;
  }

  void Fetch(const std::string& name_, uint64_t offset_,
             const std::function<void(const char*, size_t)>& take_) override {
    Call("fetch " + name_ + " " + std::to_string(offset_));
    const std::string content = Find(name_).content;
    for (uint64_t sent = offset_; sent < content.size(); sent += server.piece) {
      Wait(server.seconds[name_]);
      server.on_piece(name_, sent);
      const std::string piece = content.substr(static_cast<size_t>(sent), server.piece);
      take_(piece.data(), piece.size());
    }
  }

  void Delete(const std::string& name_) override {
    Call("delete " + name_);
    Find(name_);
    server.files.erase(name_);
  }

 private:
  static uint64_t SizeOf(const FakeServer::File& file_) {
    return file_.size == 0 ? file_.content.size() : file_.size;
  }
  const FakeServer::File& Find(const std::string& name_) const {
    const auto found = server.files.find(name_);
    if (found == server.files.end()) {
      throw std::string("no such file");
    }
    return found->second;
  }
  void Call(const std::string& text_) {
    const double before = server.clock;
    server.calls.push_back(text_);
    server.on_call(text_);
    const double seconds = server.clock - before;
    server.clock = before;
    Wait(seconds);
  }
  void Wait(double seconds_) {
    constexpr double kStep = 0.9;  // Seconds until the mirror is asked again.
    for (; seconds_ > 0; seconds_ -= kStep) {
      server.clock += std::min(seconds_, kStep);
      if (!go_on()) {
        throw std::string("stopped");
      }
    }
  }

  FakeServer& server;
  const std::function<bool()> go_on;
};

// A mirror of such a server. A test must read all lines of the log.
class MirrorTest : public testing::Test {
 protected:
  MirrorTest() {
    settings.kind = "ftp";
    settings.source = "host/inbox";
    settings.directory = directory.path;
    settings.poll_seconds = 5;
  }

  // Makes a new mirror, as a new process does.
  void Start() {
    mirror.reset();
    mirror = std::make_unique<Mirror>(
        settings,
        [this](std::function<bool()> go_on_) {
          return std::make_unique<FakeRemote>(server, std::move(go_on_));
        },
        [this] { return server.clock; });
  }

  // Does one look and the pause after it. Returns the lines of the log without their prefix.
  std::string Look() {
    if (!mirror) {
      Start();
    }
    std::string log = LogOf([this] { server.clock += mirror->Look(); });
    const std::string head = "ftp helper: host/inbox: ";
    for (size_t at = 0; (at = log.find(head, at)) != std::string::npos;) {
      log.erase(at, head.size());
    }
    return log;
  }

  // Does the looks of so many seconds.
  std::string Run(double seconds_) {
    std::string log;
    for (const double end = server.clock + seconds_; server.clock < end;) {
      log += Look();
    }
    return log;
  }

  // Visible files, with their contents.
  std::map<std::string, std::string> Local() const {
    std::map<std::string, std::string> found;
    for (const std::string& name : Names()) {
      if (name[0] != '.') {
        found[name] = ReadFile(directory / name);
      }
    }
    return found;
  }

  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(directory.path.c_str()), closedir);
    while (const dirent* entry = readdir(listing.get())) {
      if (entry->d_name != std::string(".") && entry->d_name != std::string("..")) {
        names.emplace_back(entry->d_name);
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string BeatText() const { return ReadFile(directory / ".helper.timestamp"); }

  // Takes a message as the daemon does.
  std::string TakeLocal(const std::string& name_) {
    const std::string content = ReadFile(directory / name_);
    EXPECT_EQ(0, unlink((directory / name_).c_str())) << name_;
    return content;
  }

  using Files = std::map<std::string, std::string>;

  const TemporaryDirectory directory;
  FakeServer server;
  MirrorSettings settings;
  std::unique_ptr<Mirror> mirror;
};

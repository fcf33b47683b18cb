// The pages of the desk: carries out requests, without any HTTP. For use by one thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "request.h"

struct DeskPaths {
  std::string run;         // The station's run directory.
  std::string state;       // A directory for the desk's history, which it may write.
  std::string templates;   // File of announcements with blanks; it may be missing.
  std::string translator;  // Program for previews; empty: there are none.
};

class Desk {
 public:
  // Reads the history. Does not throw if a file is missing or broken.
  explicit Desk(const DeskPaths& paths_);
  ~Desk();
  Desk(const Desk&) = delete;
  Desk& operator=(const Desk&) = delete;

  // Answers a request of a user who is logged in. For a POST, the caller has compared the token.
  // Logs each message that is handed over or withdrawn on standard error.
  Response Handle(const Request& request_, const Viewer& viewer_);

  // Files that need no login: "/style.css", "/desk.js" and "/icon.svg". Nothing for any other path.
  static std::optional<Response> OpenFile(const std::string& path_);

  // The page with the form for user and password. why_: of the last try, for people; may be empty.
  std::string LoginPage(const std::string& why_) const;

  // The live parts of the page as one line of JSON. It depends on the viewer's role and token only.
  std::string Events(const Viewer& viewer_);

  // To be called when a file in the run directory was replaced. True if the event streams are to
  // send an event.
  bool OnRunChanged();

  // To be called after SIGCHLD: a preview may have ended.
  void OnChild();

  // Milliseconds after which OnTimeout is to be called; -1: there is no need.
  int NextTimeout() const;
  void OnTimeout();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

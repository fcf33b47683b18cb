// The pages of the desk: what a request does, without any HTTP. One thread uses it.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "request.h"

struct DeskPaths {
  std::string run;         // The station's run directory.
  std::string state;       // A directory that the desk may write: its history.
  std::string templates;   // File of announcements with blanks; it need not exist.
  std::string translator;  // Program for previews; empty: there are none.
};

class Desk {
 public:
  // Reads the history. Nothing that is missing or broken makes it throw a string.
  explicit Desk(const DeskPaths& paths_);
  ~Desk();
  Desk(const Desk&) = delete;
  Desk& operator=(const Desk&) = delete;

  // Answers a request of somebody who is logged in. For a POST, the server has compared the token
  // before. Each message that is handed over or withdrawn is a line on standard error.
  Response Handle(const Request& request_, const Viewer& viewer_);

  // Files that need no login: "/style.css", "/desk.js" and "/icon.svg". Nothing for any other path.
  static std::optional<Response> OpenFile(const std::string& path_);

  // The page with the form for user and password. why_: of the last try, for people; may be empty.
  std::string LoginPage(const std::string& why_) const;

  // All that the page shows live, one line of JSON. It is the same for all viewers except for their
  // role and token.
  std::string Events(const Viewer& viewer_);

  // To be called when a file in the run directory was replaced. True if watchers are to be told.
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

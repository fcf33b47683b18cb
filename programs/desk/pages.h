// The interface between the server and the pages, without any HTTP.
#pragma once

#include <optional>
#include <string>

#include "request.h"

class Pages {
 public:
  virtual ~Pages() = default;

  // Answers a request. The caller has checked the token and the role of each POST.
  virtual Response Handle(const Request& request_, const Viewer& viewer_) = 0;

  // A file that needs no login and that browsers may keep. Nothing if the path is of no such file.
  virtual std::optional<Response> OpenFile(const std::string& path_) const = 0;

  // The login page: a form with the fields "user" and "password" for POST "/login". why_: the
  // reason of a refusal; may be empty.
  virtual std::string LoginPage(const std::string& why_) const = 0;

  // The live parts of the page, as JSON.
  virtual std::string Events(const Viewer& viewer_) = 0;

  // A file of the run directory was replaced. True if the event streams are to send an event.
  virtual bool OnRunChanged() = 0;

  // A child has ended.
  virtual void OnChild() = 0;

  // Milliseconds until OnTimeout is to be called; -1: never.
  virtual int NextTimeout() const = 0;
  virtual void OnTimeout() = 0;
};

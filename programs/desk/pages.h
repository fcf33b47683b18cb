// What the server shows, without any HTTP.
#pragma once

#include <optional>
#include <string>

#include "request.h"

class Pages {
 public:
  virtual ~Pages() = default;

  // Only a viewer who may say something sends a POST, and its token has been compared.
  virtual Response Handle(const Request& request_, const Viewer& viewer_) = 0;

  // A file that needs no login and may be kept by browsers. Nothing if there is none of that path.
  virtual std::optional<Response> OpenFile(const std::string& path_) const = 0;

  // The page of somebody who is not logged in: a form with the fields "user" and "password" for
  // POST "/login". why_ may be empty.
  virtual std::string LoginPage(const std::string& why_) const = 0;

  // Everything that the page shows live, as JSON.
  virtual std::string Events(const Viewer& viewer_) = 0;

  // A file of the run directory was replaced. True if watchers are to be told.
  virtual bool OnRunChanged() = 0;

  // A child has ended.
  virtual void OnChild() = 0;

  // Milliseconds until OnTimeout is to be called; -1: never.
  virtual int NextTimeout() const = 0;
  virtual void OnTimeout() = 0;
};

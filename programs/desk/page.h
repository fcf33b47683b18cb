// The page, and the parts of it that change while it is shown.
#pragma once

#include <map>
#include <string>

#include "history.h"
#include "request.h"
#include "templates.h"
#include "view.h"

// All that a page is made of.
struct PageContent {
  const View& view;
  const History& history;
  const Templates& templates;
  const Viewer& viewer;
  long long now;
  bool has_previews;
  std::string notice;                       // What became of the last request; may be empty.
  bool is_refusal;                          // The notice tells why it was refused.
  std::map<std::string, std::string> form;  // That request, to be corrected.
};

// The first of what the viewer may see: everything.
std::string MainPage(const PageContent& content_);

// For operators: the state of each part of the device.
std::string DevicePage(const PageContent& content_);

std::string MakeLoginPage(const std::string& why_);

// What the page shows live, one line of JSON. The parts are HTML, as in the page, but their forms
// have no token:
//   {"problems": "...", "now": "...", "waiting": "...", "ready": true,
//    "rows": [{"id": 12, "html": "<li ..."}]}
// "rows" are the entries of the history that have changed last, the newest last.
std::string LivePart(const PageContent& content_);

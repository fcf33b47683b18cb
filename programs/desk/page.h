// The HTML of the pages, and of the parts that change while they are shown.
#pragma once

#include <map>
#include <string>

#include "history.h"
#include "request.h"
#include "templates.h"
#include "view.h"

// All data from which a page is made.
struct PageContent {
  const View& view;
  const History& history;
  const Templates& templates;
  const Viewer& viewer;
  long long now;
  bool has_previews;
  std::string notice;                       // The result of the last request; may be empty.
  bool is_refusal;                          // The notice says why that request was refused.
  std::map<std::string, std::string> form;  // The fields of that request, for its correction.
};

// The page "/", with all parts that the viewer's role allows.
std::string MainPage(const PageContent& content_);

// For operators: the state of each part of the device.
std::string DevicePage(const PageContent& content_);

std::string MakeLoginPage(const std::string& why_);

// The live parts of the page as one line of JSON. The parts are HTML, as in the page, but their
// forms have no token:
//   {"problems": "...", "now": "...", "waiting": "...", "ready": true,
//    "rows": [{"id": 12, "html": "<li ..."}]}
// "rows" are the entries of the history that have changed last, the newest last.
std::string LivePart(const PageContent& content_);

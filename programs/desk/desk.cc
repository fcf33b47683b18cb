// Pages that only show who is logged in.
#include "desk.h"

struct Desk::Impl {};

Desk::Desk(const DeskPaths& paths_) : impl(std::make_unique<Impl>()) { (void)paths_; }

Desk::~Desk() = default;

Response Desk::Handle(const Request& request_, const Viewer& viewer_) {
  Response response;
  if (request_.method == "POST") {
    response.status = 303;
    response.location = "/";
  } else if (request_.path == "/") {
    response.body =
        "<!DOCTYPE html><title>Desk</title><p>" + viewer_.user +
        "<form method=\"post\" action=\"/logout\"><input type=\"hidden\" name=\"token\" "
        "value=\"" +
        viewer_.token + "\"><button>Log out</button></form>";
  } else {
    response.status = 404;
  }
  return response;
}

std::optional<Response> Desk::OpenFile(const std::string& path_) {
  if (path_ == "/style.css") {
    return Response{200, "text/css", "", ""};
  }
  return std::nullopt;
}

std::string Desk::LoginPage(const std::string& why_) const {
  return "<!DOCTYPE html><title>Desk</title><p>" + why_ +
         "<form method=\"post\" action=\"/login\"><input name=\"user\"><input name=\"password\" "
         "type=\"password\"><button>Log in</button></form>";
}

std::string Desk::Events(const Viewer& viewer_) {
  static int count = 0;
  return "{\"user\":\"" + viewer_.user + "\",\"count\":" + std::to_string(++count) + "}";
}

bool Desk::OnRunChanged() { return true; }

void Desk::OnChild() {}

int Desk::NextTimeout() const { return -1; }

void Desk::OnTimeout() {}

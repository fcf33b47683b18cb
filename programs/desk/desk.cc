// Pages that only show who is logged in.
#include "desk.h"

#include "health.h"

struct Desk::Impl {
  std::string run;
  int count = 0;
};

Desk::Desk(const DeskPaths& paths_) : impl(std::make_unique<Impl>()) { impl->run = paths_.run; }

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
  std::string problem;
  try {
    problem = ReadHealth(impl->run + "/health").problems.at(0).sentence;
  } catch (const std::string&) {
  }
  return "{\"user\":\"" + viewer_.user + "\",\"count\":" + std::to_string(++impl->count) +
         ",\"problem\":\"" + problem + "\"}";
}

bool Desk::OnRunChanged() { return true; }

void Desk::OnChild() {}

int Desk::NextTimeout() const { return -1; }

void Desk::OnTimeout() {}

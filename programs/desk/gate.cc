#include "gate.h"

#include <cmath>
#include <utility>

#include "debug.h"

namespace {

constexpr size_t kMaxLogin = 4 * 1024;  // Bytes of a body.
constexpr size_t kMaxBody = 64 * 1024;  // The same.

std::string Field(const Request& request_, const char* name_) {
  const auto found = request_.form.find(name_);
  return found == request_.form.end() ? "" : found->second;
}

Answer RedirectTo(const char* location_) {
  Answer answer;
  answer.response.status = 303;
  answer.response.location = location_;
  return answer;
}

bool IsPost(const Request& request_) { return request_.method == "POST"; }

}  // namespace

Gate::Gate(Pages& pages_, Users& users_) : pages(pages_), users(users_) {}

size_t Gate::BodyLimit(const Visit& visit_, double now_) {
  if (visit_.request.path == "/login") {
    return kMaxLogin;
  }
  return Find(visit_.session, now_) ? kMaxBody : 0;
}

Answer Gate::Handle(const Visit& visit_, double now_) {
  const Request& request = visit_.request;
  if (std::optional<Response> file =
          IsPost(request) ? std::nullopt : pages.OpenFile(request.path)) {
    return {std::move(*file), {}, 0, true};
  }
  const std::optional<Viewer> viewer = Find(visit_.session, now_);
  if (request.path == "/login" && IsPost(request)) {
    return LogIn(visit_, now_);
  }
  if (!viewer) {
    return HandleStranger(visit_);
  }
  if (request.path == "/login") {
    return RedirectTo("/");
  }
  if (IsPost(request) && !IsSameSecret(Field(request, "token"), viewer->token)) {
    return {Refusal(request, 403, "The page is out of date. Load it again."), {}, 0, false};
  }
  if (request.path == "/logout" && IsPost(request)) {
    sessions.Close(visit_.session);
    Answer answer = RedirectTo("/login");
    answer.session = "";
    return answer;
  }
  return HandleUser(visit_, *viewer);
}

std::optional<Viewer> Gate::Find(const std::string& session_, double now_) {
  const Session* const session = session_.empty() ? nullptr : sessions.Find(session_, now_);
  const User* const user = session == nullptr ? nullptr : users.Find(session->user);
  if (user == nullptr || user->hash != session->hash) {
    return std::nullopt;
  }
  return Viewer{session->user, user->role, session->token};
}

// Answers a request without a valid session.
Answer Gate::HandleStranger(const Visit& visit_) {
  const Request& request = visit_.request;
  Answer answer;
  if (!IsPost(request) && request.path == "/login") {
    answer.response.body = pages.LoginPage("");
    return answer;
  }
  if (request.wants_json || request.path == "/events" || request.path == "/state.json") {
    answer.response = Refusal(request, 401, "Log in.");
    return answer;
  }
  return RedirectTo("/login");
}

Answer Gate::LogIn(const Visit& visit_, double now_) {
  const std::string user = Field(visit_.request, "user");
  const std::string password = Field(visit_.request, "password");
  Answer answer;
  const double wait = throttle.Ask(visit_.client, user.substr(0, kMaxUserName), now_);
  if (wait > 0) {
    answer.retry_after = static_cast<int>(std::ceil(wait));
    answer.response.status = 429;
    answer.response.body = pages.LoginPage("Too many attempts. Try again in " +
                                           std::to_string(answer.retry_after) + " seconds.");
    return answer;
  }
  if (!users.IsPassword(user, password)) {
    throttle.Fail(visit_.client, user.substr(0, kMaxUserName), now_);
    Debug(kDebugNormal, "A login from %s failed", visit_.client.c_str());
    answer.response.status = 403;
    answer.response.body = pages.LoginPage("The name or the password is wrong.");
    return answer;
  }
  return Admit(visit_, user, now_);
}

Answer Gate::Admit(const Visit& visit_, const std::string& user_, double now_) {
  throttle.Succeed(visit_.client, user_);
  sessions.Close(visit_.session);
  Debug(kDebugNormal, "%s logged in from %s", user_.c_str(), visit_.client.c_str());
  Answer answer = RedirectTo("/");
  answer.session = sessions.Open(user_, users.Find(user_)->hash, now_);
  return answer;
}

Answer Gate::HandleUser(const Visit& visit_, const Viewer& viewer_) {
  const Request& request = visit_.request;
  if (IsPost(request) && viewer_.role == Role::kLook) {
    return {Refusal(request, 403, "You may look, but not announce."), {}, 0, false};
  }
  return {pages.Handle(request, viewer_), {}, 0, false};
}

// why_ is a text of this program without characters that need escaping.
Response Refusal(const Request& request_, int status_, const std::string& why_) {
  Response response;
  response.status = status_;
  if (request_.wants_json) {
    response.type = "application/json";
    response.body = "{\"error\":\"" + why_ + "\"}\n";
  } else {
    response.body = "<!DOCTYPE html>\n<html lang=\"en\"><meta charset=\"utf-8\"><title>" + why_ +
                    "</title>\n<p>" + why_ + "</p>\n<p><a href=\"/\">Back</a></p>\n</html>\n";
  }
  return response;
}

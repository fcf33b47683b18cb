#include "desk.h"

#include <math.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "charencoding.h"
#include "clock.h"
#include "debug.h"
#include "directories.h"
#include "document.h"
#include "format.h"
#include "handover.h"
#include "hiddenfile.h"
#include "history.h"
#include "html.h"
#include "message.h"
#include "outcome.h"
#include "page.h"
#include "pagefiles.h"
#include "preview.h"
#include "templates.h"
#include "view.h"
#include "words.h"

namespace {

using Json = nlohmann::ordered_json;
using Form = std::map<std::string, std::string>;

enum Status {
  kOk = 200,
  kAccepted = 202,
  kSeeOther = 303,
  kForbidden = 403,
  kNotFound = 404,
  kNotAllowed = 405,
  kConflict = 409,
  kUnusable = 422,
  kBroken = 500,
  kUnavailable = 503,
};

// Thrown for a request that is refused, with a sentence for people.
struct Refusal {
  Status status;
  std::string why;
};

// An announcement that a user asks for.
struct Announcement {
  std::string directory;
  std::string text;  // One line; for an XML directory, set after its parser has read the document.
  std::string document;  // Empty: the text is the message.
};

constexpr double kLookPause = 2;  // Seconds.
constexpr char kJsonType[] = "application/json";
constexpr char kByteOrderMark[] = "\xFF\xFE";  // Of UTF-16.

std::string FieldOf(const Form& form_, const std::string& name_) {
  const auto found = form_.find(name_);
  return found == form_.end() ? "" : found->second;
}

// The number in a text; -1 if there is none.
long long NumberOf(const std::string& text_) {
  char* end = nullptr;
  const long long number = strtoll(text_.c_str(), &end, 10);
  return text_.empty() || *end != '\0' || number < 0 ? -1 : number;
}

// Makes a sentence of an error text.
std::string Sentence(std::string why_) {
  if (!why_.empty() && why_[0] >= 'a' && why_[0] <= 'z') {
    why_[0] = static_cast<char>(why_[0] - 'a' + 'A');
  }
  return why_.empty() || why_.back() == '.' ? why_ : why_ + ".";
}

// Turns the log off while it lives: the daemon's modules log every step and every missing file,
// which are normal for the desk.
struct Quiet {
  Quiet() { SetDebugMask(0); }
  ~Quiet() { SetDebugMask(kDebugDefault); }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;
};

// Writes a line to the log by one write, so that lines of several processes do not mix.
void Tell(const std::string& line_) {
  const std::string line = OneLineOf(Utf8ReplaceInvalid(line_)) + "\n";
  WriteWhole(STDERR_FILENO, line.data(), line.size());
}

std::string BytesOf(const std::string& document_, const std::string& encoding_) {
  const std::string bytes = Encode(document_, encoding_);
  return encoding_ == "utf16" ? kByteOrderMark + bytes : bytes;
}

Response JsonResponse(Status status_, const Json& json_) {
  Response response;
  response.status = status_;
  response.type = kJsonType;
  response.body = json_.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  return response;
}

Response PlainResponse(Status status_, const char* type_, std::string body_) {
  Response response;
  response.status = status_;
  response.type = type_;
  response.body = std::move(body_);
  return response;
}

}  // namespace

struct Desk::Impl {
  explicit Impl(const DeskPaths& paths_)
      : paths(paths_), history(paths.state), view(paths.run, history), previews(paths.translator) {
    Refresh();
  }

  using Action = Response (Impl::*)(const Request&, const Viewer&);

  Response Route(const Request& request_, const Viewer& viewer_);
  Response Show(const Request& request_, const Viewer& viewer_);
  Response ShowDevice(const Request& request_, const Viewer& viewer_);
  Response ShowState(const Request& request_, const Viewer& viewer_);
  Response Say(const Request& request_, const Viewer& viewer_);
  Response SayAgain(const Request& request_, const Viewer& viewer_);
  Response Withdraw(const Request& request_, const Viewer& viewer_);
  Response StartPreview(const Request& request_, const Viewer& viewer_);
  Response SendPreview(const Request& request_, const Viewer& viewer_);

  void Refresh();
  Announcement Read(const Form& form_) const;
  std::string TextIn(const Announcement& announcement_);
  void HandOverFor(const std::string& user_, Announcement announcement_);
  Response Done(const Request& request_, const Viewer& viewer_, const std::string& notice_);
  Response Refused(const Request& request_, const Viewer& viewer_, const Refusal& refusal_);
  const Entry& EntryOf(const Form& form_) const;
  std::string Page(const Viewer& viewer_, const std::string& notice_, bool is_refusal_,
                   const Form& form_, std::string (*make_)(const PageContent&)) const;

  DeskPaths paths;
  History history;
  View view;
  Previews previews;
  std::map<std::string, std::string> notices;  // By user: the notice for the next page.
  std::map<Role, std::string> live;            // By role: the text that Events returns.
  double next_look = 0;  // When to check that the station runs, while a stream is open; 0: never.
  std::vector<std::pair<ino_t, long>> seen;  // Identifies the files from which the view was made.
};

void Desk::Impl::Refresh() {
  const Quiet quiet;
  view.Refresh(time(nullptr));
  live.clear();
}

// Reads the form without checking the values. Throws a Refusal.
Announcement Desk::Impl::Read(const Form& form_) const {
  Announcement result;
  const std::string title = FieldOf(form_, "template");
  if (!title.empty()) {
    const Templates templates = ReadTemplates(paths.templates);
    const Template* found = templates.Find(title);
    if (found == nullptr) {
      throw Refusal{kUnusable, "There is no template \"" + title + "\" any more."};
    }
    result.directory = found->directory;
    result.text = Filled(*found, form_);
    return result;
  }
  result.directory = FieldOf(form_, "directory");
  const DirectoryView* directory = view.Find(result.directory);
  if (directory == nullptr) {
    throw Refusal{kUnusable, "There is no directory \"" + result.directory + "\"."};
  }
  if (directory->parser != nullptr) {
    result.document = MakeDocument(*directory->parser, form_);
  } else {
    result.text = OneLineOf(FieldOf(form_, "text"));
  }
  return result;
}

// The text to be spoken; for a document, the text that its parser finds. Throws a string.
std::string Desk::Impl::TextIn(const Announcement& announcement_) {
  if (announcement_.document.empty()) {
    return announcement_.text;
  }
  const Destination destination = view.DestinationOf(announcement_.directory);
  HiddenFile file(previews.Scratch() + "/");
  file.Write(BytesOf(announcement_.document, destination.encoding));
  return OneLineOf(TextOfDocument(destination, file.path()));
}

// Hands the announcement over and notes it in the history. Throws a string or a Refusal.
void Desk::Impl::HandOverFor(const std::string& user_, Announcement announcement_) {
  if (!IsServiceRunning(paths.run + "/health")) {
    throw Refusal{kUnavailable, "The device does not speak now: its service does not run."};
  }
  const Destination destination = view.DestinationOf(announcement_.directory);
  announcement_.text = TextIn(announcement_);
  Entry entry;
  entry.directory = announcement_.directory;
  entry.text = announcement_.text;
  entry.document = announcement_.document;
  entry.user = user_;
  entry.arrived = time(nullptr);
  entry.file = HandOver(
      destination, destination.is_raw ? BytesOf(entry.document, destination.encoding) : entry.text,
      "desk");
  Tell(Format("user %s says in %s, as %s: ", user_.c_str(), entry.directory.c_str(),
              entry.file.c_str()) +
       entry.text);
  history.Add(std::move(entry));
  live.clear();
}

Response Desk::Impl::Say(const Request& request_, const Viewer& viewer_) {
  HandOverFor(viewer_.user, Read(request_.form));
  return Done(request_, viewer_, "Handed over.");
}

const Entry& Desk::Impl::EntryOf(const Form& form_) const {
  const Entry* entry = history.Find(NumberOf(FieldOf(form_, "id")));
  if (entry == nullptr) {
    throw Refusal{kNotFound, "This message is no longer known."};
  }
  return *entry;
}

Response Desk::Impl::SayAgain(const Request& request_, const Viewer& viewer_) {
  const Entry& entry = EntryOf(request_.form);
  const DirectoryView* directory = view.Find(entry.directory);
  const bool is_document = directory != nullptr && directory->parser != nullptr;
  if (!entry.is_whole || (is_document ? entry.document : entry.text).empty()) {
    throw Refusal{kUnusable, "The text of this message is not known."};
  }
  HandOverFor(viewer_.user,
              {entry.directory, entry.text, is_document ? entry.document : std::string()});
  return Done(request_, viewer_, "Handed over again.");
}

Response Desk::Impl::Withdraw(const Request& request_, const Viewer& viewer_) {
  const Entry entry = EntryOf(request_.form);
  const Destination destination = view.DestinationOf(entry.directory);
  if (entry.IsOver() || entry.fate != Entry::kOpen ||
      !::Withdraw({entry.directory, destination.directory.path, entry.file},
                  paths.run + "/status.xml")) {
    throw Refusal{kConflict, "Too late: the message was taken already."};
  }
  Tell(Format("user %s withdraws in %s %s: ", viewer_.user.c_str(), entry.directory.c_str(),
              entry.file.c_str()) +
       entry.text);
  history.NoteWithdrawn(entry.id, viewer_.user);
  live.clear();
  return Done(request_, viewer_, "Withdrawn.");
}

Response Desk::Impl::StartPreview(const Request& request_, const Viewer& viewer_) {
  const Announcement announcement = Read(request_.form);
  view.DestinationOf(announcement.directory);  // Throws if the directory takes no messages.
  const std::string text = TextIn(announcement);
  if (!HasWords(text)) {
    throw std::string("there is nothing to say");
  }
  const std::vector<std::string> arguments =
      TranslatorArguments(view.Find(announcement.directory)->conv_opts);
  int number = 0;
  try {
    number = previews.Start(viewer_.user, SnippetOf(text, paths.run + "/glossary.xml"), arguments);
  } catch (const std::string& why) {
    throw Refusal{kUnavailable, why};
  }
  const double seconds = static_cast<double>(SpokenWords(text).size()) / PaceOf(arguments);
  return JsonResponse(kOk, {{"id", number}, {"seconds", seconds}});
}

Response Desk::Impl::SendPreview(const Request& request_, const Viewer& viewer_) {
  const std::string name = request_.path.substr(request_.path.rfind('/') + 1);
  const long long number = NumberOf(name.substr(0, name.find('.')));
  std::string wav;
  switch (previews.Get(viewer_.user, static_cast<int>(number), wav)) {
    case Previews::kRunning:
      return PlainResponse(kAccepted, "text/plain; charset=utf-8", "The preview is being made.\n");
    case Previews::kReady:
      return PlainResponse(kOk, "audio/wav", std::move(wav));
    case Previews::kFailed:
      throw Refusal{kBroken, "The voice cannot say this."};
    case Previews::kNone:
      break;
  }
  throw Refusal{kNotFound, "There is no such preview."};
}

Response Desk::Impl::Show(const Request& /*request_*/, const Viewer& viewer_) {
  const auto notice = notices.find(viewer_.user);
  const std::string text = notice == notices.end() ? "" : notice->second;
  if (notice != notices.end()) {
    notices.erase(notice);
  }
  Response response;
  response.body = Page(viewer_, text, false, {}, MainPage);
  return response;
}

Response Desk::Impl::ShowDevice(const Request& /*request_*/, const Viewer& viewer_) {
  Response response;
  response.body = Page(viewer_, "", false, {}, DevicePage);
  return response;
}

std::string Desk::Impl::Page(const Viewer& viewer_, const std::string& notice_, bool is_refusal_,
                             const Form& form_, std::string (*make_)(const PageContent&)) const {
  const Templates templates = ReadTemplates(paths.templates);
  return make_({view, history, templates, viewer_, time(nullptr), previews.AreThere(), notice_,
                is_refusal_, form_});
}

Response Desk::Impl::Done(const Request& request_, const Viewer& viewer_,
                          const std::string& notice_) {
  if (request_.wants_json) {
    return JsonResponse(kOk, {{"notice", notice_}});
  }
  notices[viewer_.user] = notice_;
  Response response;
  response.status = kSeeOther;
  response.location = "/";
  return response;
}

Response Desk::Impl::Refused(const Request& request_, const Viewer& viewer_,
                             const Refusal& refusal_) {
  const std::string why = Sentence(refusal_.why);
  if (request_.wants_json) {
    return JsonResponse(refusal_.status, {{"error", why}});
  }
  Response response;
  response.status = refusal_.status;
  response.body = Page(viewer_, why, true, request_.form, MainPage);
  return response;
}

Response Desk::Impl::Route(const Request& request_, const Viewer& viewer_) {
  struct Path {
    const char* method;
    Role role;
    Action action;
  };
  static const std::map<std::string, Path> kPaths = {
      {"/", {"GET", Role::kLook, &Impl::Show}},
      {"/device", {"GET", Role::kOperate, &Impl::ShowDevice}},
      {"/state.json", {"GET", Role::kLook, &Impl::ShowState}},
      {"/preview/", {"GET", Role::kSay, &Impl::SendPreview}},
      {"/preview", {"POST", Role::kSay, &Impl::StartPreview}},
      {"/say", {"POST", Role::kSay, &Impl::Say}},
      {"/again", {"POST", Role::kSay, &Impl::SayAgain}},
      {"/withdraw", {"POST", Role::kSay, &Impl::Withdraw}}};
  const std::string head = "/preview/";
  const bool is_sound = request_.path.compare(0, head.size(), head) == 0;
  const auto found = kPaths.find(is_sound ? head : request_.path);
  if (found == kPaths.end()) {
    throw Refusal{kNotFound, "There is no such page."};
  }
  if (request_.method != found->second.method) {
    throw Refusal{kNotAllowed, "This page does not allow that method."};
  }
  if (viewer_.role < found->second.role) {
    throw Refusal{kForbidden, "You may not do this."};
  }
  return (this->*found->second.action)(request_, viewer_);
}

Response Desk::Impl::ShowState(const Request& /*request_*/, const Viewer& viewer_) {
  std::string& text = live[viewer_.role];
  if (text.empty()) {
    const Viewer nobody = {"", viewer_.role, ""};
    text = Page(nobody, "", false, {}, LivePart);
  }
  return PlainResponse(kOk, kJsonType, text);
}

Desk::Desk(const DeskPaths& paths_) : impl(std::make_unique<Impl>(paths_)) {}

Desk::~Desk() = default;

Response Desk::Handle(const Request& request_, const Viewer& viewer_) {
  const Quiet quiet;
  try {
    return impl->Route(request_, viewer_);
  } catch (const Refusal& refusal) {
    return impl->Refused(request_, viewer_, refusal);
  } catch (const std::string& why) {
    return impl->Refused(request_, viewer_, {kUnusable, why});
  } catch (const std::exception& e) {
    Tell(request_.path + ": " + e.what());
    return PlainResponse(kBroken, "text/plain; charset=utf-8", "The request failed.\n");
  }
}

std::optional<Response> Desk::OpenFile(const std::string& path_) {
  if (path_ == "/style.css") {
    return PlainResponse(kOk, "text/css; charset=utf-8", kStyle);
  }
  if (path_ == "/desk.js") {
    return PlainResponse(kOk, "text/javascript; charset=utf-8", kScript);
  }
  if (path_ == "/icon.svg") {
    return PlainResponse(kOk, "image/svg+xml", kIcon);
  }
  return std::nullopt;
}

std::string Desk::LoginPage(const std::string& why_) const { return MakeLoginPage(why_); }

std::string Desk::Events(const Viewer& viewer_) {
  try {
    if (impl->next_look == 0 && impl->view.is_running) {
      impl->next_look = Now() + kLookPause;
    }
    return impl->ShowState({}, viewer_).body;
  } catch (const std::exception& e) {
    Tell(std::string("/events: ") + e.what());
    return "{}";
  }
}

// The station also replaces files that the page does not show.
bool Desk::OnRunChanged() {
  std::vector<std::pair<ino_t, long>> found;
  for (const char* name : {"health", "player", kDirectoriesFile}) {
    struct stat status = {};
    stat((impl->paths.run + "/" + name).c_str(), &status);
    found.emplace_back(status.st_ino, status.st_mtim.tv_nsec);
  }
  if (found == impl->seen) {
    return false;
  }
  impl->seen = std::move(found);
  try {
    impl->Refresh();
  } catch (const std::exception& e) {
    Tell(std::string("the run directory: ") + e.what());
  }
  return true;
}

void Desk::OnChild() { impl->previews.OnChild(); }

int Desk::NextTimeout() const {
  const int preview = impl->previews.NextTimeout();
  if (impl->next_look == 0) {
    return preview;
  }
  const int look = std::max(0, static_cast<int>(ceil((impl->next_look - Now()) * 1000)));
  return preview < 0 ? look : std::min(preview, look);
}

// Finds out by the clock that the station was killed, as it then replaces no file.
void Desk::OnTimeout() {
  impl->previews.OnTimeout();
  if (impl->next_look != 0 && Now() >= impl->next_look) {
    impl->next_look = 0;
    if (!IsStationRunning(impl->view.health)) {
      impl->Refresh();
    }
  }
}

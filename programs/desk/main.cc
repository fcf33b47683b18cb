// vocastra-desk: a web page for the people who announce.
//
// It reads only the files that the station publishes in the run directory, never the configuration,
// which may hold passwords.

#include <stdio.h>
#include <stdlib.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "addresses.h"
#include "commandline.h"
#include "debug.h"
#include "desk.h"
#include "gate.h"
#include "pages.h"
#include "password.h"
#include "server.h"
#include "users.h"

namespace {

enum ExitStatus { kEnded = 0, kFailed = 1, kWrongUse = 2 };

constexpr char kDefaultListen[] = "127.0.0.1:8080";
constexpr char kGroup[] = "vocastra-desk";  // Of the service, which reads the users' file.

struct Options {
  DeskPaths paths = {VOCASTRA_RUN_DIR, VOCASTRA_DESK_STATE_DIR, VOCASTRA_DESK_TEMPLATES_FILE,
                     VOCASTRA_DESK_TRANSLATOR};
  std::string users = VOCASTRA_DESK_USERS_FILE;
  std::string listen = kDefaultListen;
  std::string certificate;
  std::string key;
  bool is_behind_proxy = false;
  std::string new_user;
  std::optional<Role> role;
};

// The desk as the server sees it.
class DeskPages : public Pages {
 public:
  explicit DeskPages(const DeskPaths& paths_) : desk(paths_) {}

  Response Handle(const Request& request_, const Viewer& viewer_) override {
    return desk.Handle(request_, viewer_);
  }
  std::optional<Response> OpenFile(const std::string& path_) const override {
    return Desk::OpenFile(path_);
  }
  std::string LoginPage(const std::string& why_) const override { return desk.LoginPage(why_); }
  std::string Events(const Viewer& viewer_) override { return desk.Events(viewer_); }
  bool OnRunChanged() override { return desk.OnRunChanged(); }
  void OnChild() override { desk.OnChild(); }
  int NextTimeout() const override { return desk.NextTimeout(); }
  void OnTimeout() override { desk.OnTimeout(); }

 private:
  Desk desk;
};

Program MakeProgram(Options& options_) {
  Program program = {
      "vocastra-desk",
      kWrongUse,
      "Usage: vocastra-desk [OPTION...]\n"
      "       vocastra-desk --add-user NAME [--role ROLE] [--users FILE]\n"
      "Serves a web page for the people who announce.\n\n",
      {{0, "listen", "ADDRESS:PORT",
        std::string("Address of the page (default ") + kDefaultListen + ")", Keep(options_.listen)},
       {0, "tls-certificate", "FILE", "Certificate and its chain, in PEM",
        Keep(options_.certificate)},
       {0, "tls-key", "FILE", "Key of the certificate, in PEM", Keep(options_.key)},
       {0, "behind-proxy", "", "A proxy does TLS and names the clients",
        Set(options_.is_behind_proxy)},
       {0, "run", "DIR", "The station's run directory (default " VOCASTRA_RUN_DIR ")",
        Keep(options_.paths.run)},
       {0, "state", "DIR", "Directory of the history (default " VOCASTRA_DESK_STATE_DIR ")",
        Keep(options_.paths.state)},
       {0, "templates", "FILE", "The templates' file (default " VOCASTRA_DESK_TEMPLATES_FILE ")",
        Keep(options_.paths.templates)},
       {0, "translator", "PROGRAM",
        "Translator for previews (default " VOCASTRA_DESK_TRANSLATOR ")",
        Keep(options_.paths.translator)},
       {0, "users", "FILE", "The users' file (default " VOCASTRA_DESK_USERS_FILE ")",
        Keep(options_.users)},
       {0, "add-user", "NAME", "Add a user, or change a user's password", Keep(options_.new_user)}},
      "Exit status: 0 stopped by a signal, or user added; 1 failed; 2 wrong use.\n"};
  program.options.push_back({0, "role", "ROLE", "Role of that user: look, say (default) or operate",
                             [&options_](const char* text_) {
                               try {
                                 options_.role = RoleOf(text_);
                               } catch (const std::string& why) {
                                 FailUsage({"vocastra-desk", kWrongUse, "", {}, ""}, why);
                               }
                             }});
  return program;
}

Options ParseOptions(int argc_, char** argv_) {
  Options options;
  const Program program = MakeProgram(options);
  const std::vector<std::string> operands = ParseCommandLine(program, argc_, argv_);
  if (!operands.empty()) {
    FailUsage(program, "unknown argument \"" + operands.front() + "\"");
  }
  if (options.role && options.new_user.empty()) {
    FailUsage(program, "--role goes with --add-user");
  }
  if (options.certificate.empty() != options.key.empty()) {
    FailUsage(program, "--tls-certificate and --tls-key go together");
  }
  try {
    const bool is_open = !IsLoopback(ParseListenAddress(options.listen));
    if (is_open && options.certificate.empty() && !options.is_behind_proxy) {
      FailUsage(program, "without TLS, others could read passwords sent to " + options.listen +
                             ": give a certificate and a key, or --behind-proxy");
    }
  } catch (const std::string& why) {
    FailUsage(program, "--listen: " + why);
  }
  return options;
}

void Serve(const Options& options_) {
  Users users(options_.users);
  DeskPages pages(options_.paths);
  Gate gate(pages, users);
  ServerSettings settings;
  try {
    settings.socket = Listen(ParseListenAddress(options_.listen));
  } catch (const std::string& why) {
    throw options_.listen + ": " + why;
  }
  settings.certificate = options_.certificate;
  settings.key = options_.key;
  settings.is_behind_proxy = options_.is_behind_proxy;
  settings.run = options_.paths.run;
  Server server(settings, gate, pages);
  Debug(kDebugNormal, "Listening on http%s://%s/", options_.certificate.empty() ? "" : "s",
        NameOfSocket(settings.socket).c_str());
  server.Run();
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  try {
    if (options.new_user.empty()) {
      Serve(options);
    } else {
      const Role* const role = options.role ? &*options.role : nullptr;
      AddUser(options.users, options.new_user, ReadPassword(), role, kGroup);
    }
  } catch (const std::string& why) {
    fprintf(stderr, "vocastra-desk: %s\n", why.c_str());
    return kFailed;
  }
  return kEnded;
}

// Shared by the tests of remote directories, whose helpers are real processes.
#pragma once

#include <signal.h>
#include <sys/wait.h>

#include "input_fixtures.h"
#include "stand_ins/pauses.h"
#include "stand_ins/processes.h"
#include "stand_ins/temporaries.h"

struct RemoteType {
  const char* type;
  const char* kind;          // In log lines.
  const char* missing_text;  // Thrown without a helper.
};
constexpr RemoteType kRemoteTypes[] = {
    {"cifs", "CIFS", "Ignoring CIFS mount; no CIFS helper directory"},
    {"ftp", "FTP", "Ignoring FTP dir; no FTP helper directory"},
};

// Waits for the end of the child that was forked last and returns its wait status.
inline int ReapChild() {
  auto& children = stand_ins::processes.children;
  EXPECT_FALSE(children.empty());
  const pid_t pid = children.back();
  children.pop_back();  // A new process may get its number, and must not receive a signal.
  int status = 0;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  return status;
}

class HelperTest : public testing::Test {
 protected:
  ~HelperTest() override {
    while (!stand_ins::processes.children.empty()) {
      kill(stand_ins::processes.children.back(), SIGKILL);
      ReapChild();
    }
    stand_ins::pauses = {};
    stand_ins::processes = {};
    stand_ins::temporaries = {};
    SetDebugMask(kDebugDefault);
  }

  // An executable shell script. Its standard output goes to the file "output".
  std::string WriteScript(const std::string& body_) const {
    const std::string path =
        scripts.Write("helper", "#!/bin/sh\nexec >" + scripts / "output" + "\n" + body_ + "\n");
    EXPECT_EQ(0, chmod(path.c_str(), 0755));
    return path;
  }
  std::string Output() const { return ReadFile(scripts / "output"); }

  // A directory of that type with this helper.
  static std::unique_ptr<InputDirectory> Start(const std::string& type_, const std::string& helper_,
                                               Attributes attributes_ = {}) {
    attributes_["type"] = type_;
    return Build(attributes_, 10, type_ == "cifs" ? helper_ : "", type_ == "ftp" ? helper_ : "");
  }

  // Ends the object without a line in the test's output.
  static void Destroy(std::unique_ptr<InputDirectory>& input_) {
    LogOf([&] { input_.reset(); }, 0);
  }

  TemporaryDirectory scripts;
};

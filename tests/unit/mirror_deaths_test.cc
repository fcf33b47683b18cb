// A mirror whose process is killed at any moment.

#include <sys/mman.h>
#include <sys/wait.h>

#include "mirror_fixtures.h"
#include "stand_ins/deaths.h"

namespace {

// The server's files in each step. A step lasts until all of them are delivered.
const std::vector<std::map<std::string, std::string>> kSteps = {
    {{"old", "An old one."}},
    {{"old", "An old one."}, {"new", "A new one."}, {"slow", std::string(500, 's')}},
    {{"new", "It has changed."}},
    {{"new", "It has changed."}, {"old", "Here again."}},
};

// The spoken messages of all steps, each once and complete.
const std::vector<std::string> kSpoken = {"new: A new one.", "new: It has changed.",
                                          "old: An old one.", "old: Here again.",
                                          "slow: " + std::string(500, 's')};

constexpr int kLooks = 8;  // Enough for a step.

class MirrorDeathsTest : public MirrorTest {
 protected:
  MirrorDeathsTest()
      : step(static_cast<size_t*>(mmap(nullptr, sizeof(size_t), PROT_READ | PROT_WRITE,
                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    settings.poll_seconds = 1;
    settings.settle_seconds = 1;
    server.seconds["slow"] = 2;
  }
  ~MirrorDeathsTest() override { munmap(step, sizeof(size_t)); }

  // Runs the steps from *step on in another process. Returns its exit status.
  int Go(long calls_to_live_, bool is_in_write_) {
    const pid_t child = fork();
    if (child == 0) {
      stand_ins::deaths = {true, is_in_write_, calls_to_live_};
      for (; *step < kSteps.size(); ++*step) {
        server.files.clear();
        for (const auto& [name, content] : kSteps[*step]) {
          server.Put(name, content, content.substr(0, 3));
        }
        for (int look = 0; look < kLooks; ++look) {
          if (!mirror) {
            Start();
          }
          server.clock += mirror->Look();
          Speak();
        }
      }
      _exit(0);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // Takes all files as the daemon does, which survives when the mirror is killed.
  void Speak() {
    stand_ins::deaths.are_counted = false;
    for (const auto& [name, content] : Local()) {
      std::ofstream(spoken / "spoken", std::ios::app) << name << ": " << content << "\n";
      unlink((directory / name).c_str());
    }
    stand_ins::deaths.are_counted = true;
  }

  std::vector<std::string> Spoken() const {
    std::vector<std::string> lines;
    std::ifstream file(spoken / "spoken");
    for (std::string line; std::getline(file, line);) {
      lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  void Reset() {
    *step = 0;
    unlink((spoken / "spoken").c_str());
    for (const std::string& name : Names()) {
      unlink((directory / name).c_str());
    }
  }

  const TemporaryDirectory spoken;
  size_t* const step;  // Shared by the processes.
};

TEST_F(MirrorDeathsTest, NothingIsLostOrRepeated) {
  for (const bool is_in_write : {false, true}) {
    long deaths = 0;
    for (; Go(deaths, is_in_write) == stand_ins::kDeath; ++deaths) {
      SCOPED_TRACE(deaths);
      ASSERT_EQ(0, Go(-1, false));
      ASSERT_EQ(kSpoken, Spoken());
      Reset();
    }
    EXPECT_EQ(kSpoken, Spoken());
    EXPECT_LT(30, deaths);
    Reset();
  }
}

TEST_F(MirrorDeathsTest, ManyDeathsLoseOrRepeatNothing) {
  long calls = 0;
  while (Go(calls, calls % 2 == 1) == stand_ins::kDeath) {
    ++calls;  // Each process survives one call more.
  }
  EXPECT_EQ(kSpoken, Spoken());
}

}  // namespace

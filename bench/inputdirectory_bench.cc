// Compares reading a message from file to words with one pass over its code points, and listing a
// directory with plain reading and sorting.

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <utf8.h>

#include <algorithm>
#include <vector>

#include "bench_util.h"
#include "directory.h"
#include "inputdirectory.h"
#include "textfileparser.h"
#include "xml.h"

namespace {

constexpr size_t kMessageBytes = 50000;

// While it exists, log lines are formatted as in the daemon and written to /dev/null.
class LogToNowhere {
 public:
  LogToNowhere() : saved(dup(STDERR_FILENO)) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    close(null);
  }
  ~LogToNowhere() {
    dup2(saved, STDERR_FILENO);
    close(saved);
  }
  LogToNowhere(const LogToNowhere&) = delete;
  LogToNowhere& operator=(const LogToNowhere&) = delete;

 private:
  int saved;
};

// One scan that finds the file, takes it and splits it. The file is read and checked twice, logged,
// summed and removed.
void Words_Daemon(benchmark::State& state_) {
  const LogToNowhere log;
  const ScratchDirectory scratch;
  const TextFileParser parser("utf8");
  XMLElement element("directory");
  element.SetAttributeString("type", "local");
  element.SetAttributeString("path", scratch.Path());
  InputDirectory directory(element, "", "", 10);
  directory.SetFileParser(&parser);
  directory.Process();
  const std::string text = NaturalText(kMessageBytes);
  int number = 0;
  for (auto _ : state_) {
    state_.PauseTiming();
    directory.StopMessage();
    scratch.Write(std::to_string(number++), text);
    state_.ResumeTiming();
    directory.Process();
    if (directory.GetActiveMessageID() == 0) {
      state_.SkipWithError("the message did not become active");
      break;
    }
  }
}

void Words_CodePoints(benchmark::State& state_) {
  const std::string text = NaturalText(kMessageBytes);
  for (auto _ : state_) {
    uint32_t sum = 0;
    for (auto next = text.begin(); next != text.end();) {
      sum += utf8::next(next, text.end());
    }
    benchmark::DoNotOptimize(sum);
  }
}

void FillDirectory(const ScratchDirectory& scratch_, int64_t count_) {
  for (int64_t i = 0; i < count_; ++i) {
    scratch_.Write("message-" + std::to_string(i * 7919 % count_) + ".txt", "text");
  }
}

void Listing_Daemon(benchmark::State& state_) {
  const ScratchDirectory scratch;
  FillDirectory(scratch, state_.range(0));
  for (auto _ : state_) {
    benchmark::DoNotOptimize(Directory(scratch.Path()).GetFileNames());
  }
}

void Listing_ReaddirAndSort(benchmark::State& state_) {
  const ScratchDirectory scratch;
  FillDirectory(scratch, state_.range(0));
  for (auto _ : state_) {
    std::vector<std::string> names;
    DIR* dir = opendir(scratch.Path().c_str());
    while (const dirent* entry = readdir(dir)) {
      if (entry->d_type == DT_REG && entry->d_name[0] != '.') {
        names.emplace_back(entry->d_name);
      }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    benchmark::DoNotOptimize(names);
  }
}

BENCHMARK(Words_Daemon);
BENCHMARK(Words_CodePoints);
BENCHMARK(Listing_Daemon)->Arg(100)->Arg(1000);
BENCHMARK(Listing_ReaddirAndSort)->Arg(100)->Arg(1000);

}  // namespace

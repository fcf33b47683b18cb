// vocastra-status: shows the daemon's status file to a person, a program or a monitor.

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "charencoding.h"
#include "debug.h"
#include "format.h"
#include "statusfile.h"
#include "xml.h"

namespace {

constexpr int kPollPause = 50;  // Milliseconds.
constexpr int kDefaultLimit = 5;

enum ExitStatus { kFine = 0, kTrouble = 1, kNoDaemon = 2, kUsage = 3 };

struct Options {
  bool is_following = false;
  bool is_json = false;
  int limit = kDefaultLimit;  // Seconds without a new status that make it stale.
  std::string path = VOCASTRA_STATUS_FILE;
};

// What is known at one moment.
struct Report {
  std::unique_ptr<XMLElement> status;  // Null: there is none.
  std::vector<std::string> problems;

  ExitStatus Judge() const {
    if (!status) {
      return kNoDaemon;
    }
    return problems.empty() ? kFine : kTrouble;
  }
};

const XMLElement* MessageOf(const XMLElement& directory) {
  const std::list<const XMLElement*> messages = directory.GetChildren("message");
  return messages.empty() ? nullptr : messages.front();
}

Report MakeReport(std::unique_ptr<XMLElement> status, bool is_stale, int limit) {
  Report report;
  if (is_stale) {
    report.problems.push_back(Format("stale: not rewritten for %d seconds", limit));
  }
  if (status->GetAttributeInteger("output-bound") != 0) {
    report.problems.emplace_back("output-bound: the player does not take what is there");
  }
  for (const XMLElement* directory : status->GetChildren("directory")) {
    if (directory->GetAttributeString("status") != "1") {
      report.problems.push_back("no updates: directory " + directory->GetAttributeString("id"));
    }
  }
  report.status = std::move(status);
  return report;
}

// --- For programs --------------------------------------------------------------------------------

std::string JsonString(const std::string& value) {
  std::string text = "\"";
  for (const char c : Utf8ReplaceInvalid(value)) {
    if (c == '"' || c == '\\') {
      text += '\\';
      text += c;
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      text += Format("\\u%04x", static_cast<unsigned int>(c));
    } else {
      text += c;
    }
  }
  return text + "\"";
}

std::string JsonDirectory(const XMLElement& directory) {
  std::string text = Format(
      "{\"id\":%s,\"path\":%s,\"status\":%s,\"total-file-count\":%d,\"updated-file-count\":%d,"
      "\"message\":",
      JsonString(directory.GetAttributeString("id")).c_str(),
      JsonString(directory.GetAttributeString("path")).c_str(),
      directory.GetAttributeString("status") == "1" ? "true" : "false",
      directory.GetAttributeInteger("total-file-count"),
      directory.GetAttributeInteger("updated-file-count"));
  const XMLElement* message = MessageOf(directory);
  if (message == nullptr) {
    return text + "null}";
  }
  return text + Format("{\"id\":%d,\"filename\":%s,\"plays\":%d}}",
                       message->GetAttributeInteger("id"),
                       JsonString(message->GetAttributeString("filename")).c_str(),
                       message->GetAttributeInteger("plays"));
}

template <typename Items, typename Function>
std::string JsonArray(const Items& items, Function to_json) {
  std::string text;
  for (const auto& item : items) {
    text += (text.empty() ? "" : ",") + to_json(item);
  }
  return "[" + text + "]";
}

// One line. The counter may be left out, so that reports that differ in nothing else are equal.
std::string ToJson(const Report& report, bool has_counter) {
  std::string text = "{";
  if (report.status) {
    const XMLElement& status = *report.status;
    if (has_counter) {
      text += Format("\"timestamp\":%d,", status.GetAttributeInteger("timestamp"));
    }
    text += Format("\"now-playing\":%d,\"state\":%s,\"output-bound\":%s,\"directories\":%s,",
                   status.GetAttributeInteger("now-playing"),
                   JsonString(status.GetAttributeString("state")).c_str(),
                   status.GetAttributeInteger("output-bound") != 0 ? "true" : "false",
                   JsonArray(status.GetChildren("directory"), [](const XMLElement* directory) {
                     return JsonDirectory(*directory);
                   }).c_str());
  }
  return text + "\"problems\":" + JsonArray(report.problems, JsonString) + "}\n";
}

// --- For people ----------------------------------------------------------------------------------

// What a terminal may be sent: valid UTF-8 without control characters, which could steer it.
std::string Printable(const std::string& value) {
  std::string text;
  const std::string valid = Utf8ReplaceInvalid(value);
  for (size_t i = 0; i < valid.size(); ++i) {
    const unsigned char byte = static_cast<unsigned char>(valid[i]);
    const bool is_c1 = byte == 0xC2 && static_cast<unsigned char>(valid[i + 1]) < 0xA0;
    if (byte < 0x20 || byte == 0x7F || is_c1) {
      text += '?';
      i += is_c1 ? 1 : 0;
    } else {
      text += valid[i];
    }
  }
  return text;
}

// In code points, which is near enough to columns.
size_t WidthOf(const std::string& text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

using Row = std::vector<std::string>;

std::string ToColumns(const std::vector<Row>& rows) {
  std::vector<size_t> widths(rows.front().size());
  for (const Row& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], WidthOf(row[i]));
    }
  }
  std::string text;
  for (const Row& row : rows) {
    for (size_t i = 0; i + 1 < row.size(); ++i) {
      text += row[i] + std::string(widths[i] - WidthOf(row[i]) + 2, ' ');
    }
    text += row.back() + "\n";
  }
  return text;
}

Row RowOf(const XMLElement& directory) {
  const XMLElement* message = MessageOf(directory);
  const auto of_message = [message](const char* name) {
    return message == nullptr ? "-" : Printable(message->GetAttributeString(name));
  };
  return {Printable(directory.GetAttributeString("id")),
          directory.GetAttributeString("status") == "1" ? "yes" : "NO",
          directory.GetAttributeString("total-file-count"),
          directory.GetAttributeString("updated-file-count"),
          of_message("id"),
          of_message("plays"),
          of_message("filename"),
          Printable(directory.GetAttributeString("path"))};
}

std::string ToTable(const Report& report) {
  std::string text;
  if (report.status) {
    const XMLElement& status = *report.status;
    const int playing = status.GetAttributeInteger("now-playing");
    text += "state:   " + Printable(status.GetAttributeString("state")) + "\n";
    text += "playing: " + (playing == 0 ? "nothing" : Format("message %d", playing)) + "\n";
    std::vector<Row> rows = {
        {"DIRECTORY", "UPDATES", "FILES", "WAITING", "MESSAGE", "PLAYS", "NAME", "PATH"}};
    for (const XMLElement* directory : status.GetChildren("directory")) {
      rows.push_back(RowOf(*directory));
    }
    text += rows.size() > 1 ? "\n" + ToColumns(rows) : "no directories\n";
  }
  for (const std::string& problem : report.problems) {
    text += "PROBLEM: " + Printable(problem) + "\n";
  }
  return text;
}

// --- Looking -------------------------------------------------------------------------------------

Report NoDaemon(const std::string& why) {
  Report report;
  report.problems.push_back("no daemon: " + why);
  return report;
}

// Waits until the counter has moved, or for the limit.
Report LookOnce(const Options& options) {
  try {
    std::unique_ptr<XMLElement> status = ReadStatus(options.path);
    const int first = status->GetAttributeInteger("timestamp");
    const double deadline = Now() + options.limit;
    bool is_stale = true;
    while (is_stale && Now() < deadline) {
      Nap(kPollPause);
      status = ReadStatus(options.path);
      is_stale = status->GetAttributeInteger("timestamp") == first;
    }
    return MakeReport(std::move(status), is_stale, options.limit);
  } catch (const std::string& why) {
    return NoDaemon(why);
  }
}

void Print(const std::string& text) {
  // A reader that is gone ends a follower.
  if (fputs(text.c_str(), stdout) == EOF || fflush(stdout) == EOF) {
    perror("vocastra-status: standard output");
    exit(kUsage);
  }
}

// Prints a report whenever more than the counter has changed. Never returns.
[[noreturn]] void Follow(const Options& options) {
  std::string last_key;
  int last_counter = -1;
  double last_change = Now();
  for (;;) {
    Report report;
    try {
      std::unique_ptr<XMLElement> status = ReadStatus(options.path);
      const int counter = status->GetAttributeInteger("timestamp");
      if (counter != last_counter) {
        last_counter = counter;
        last_change = Now();
      }
      report = MakeReport(std::move(status), Now() - last_change > options.limit, options.limit);
    } catch (const std::string& why) {
      report = NoDaemon(why);
    }
    const std::string key = ToJson(report, false);
    if (key != last_key) {
      const bool is_first = last_key.empty();
      Print(options.is_json ? ToJson(report, true) : (is_first ? "" : "\n") + ToTable(report));
      last_key = key;
    }
    Nap(kPollPause);
  }
}

// --- Command line --------------------------------------------------------------------------------

void PrintUsage() {
  puts("Usage: vocastra-status [-f] [--json] [-l SECONDS] [FILE]");
  puts("Shows the status of the vocastra daemon.");
  puts("");
  puts("  -f, --follow         Go on and show every change");
  puts("  -j, --json           One line of JSON instead of a table");
  printf("  -l, --limit SECONDS  Time without a new status that counts as stale (default %d)\n",
         kDefaultLimit);
  puts("  -h, --help           Show this message");
  puts("  -V, --version        Show the version");
  printf("FILE is the daemon's status file (default %s).\n", VOCASTRA_STATUS_FILE);
  puts("Exit status: 0 fine; 1 stale, output-bound or a directory without updates; 2 no daemon;");
  puts("3 wrong use, or standard output is gone.");
}

[[noreturn]] void FailUsage(const std::string& why) {
  fprintf(stderr, "vocastra-status: %s\n", why.c_str());
  exit(kUsage);
}

int ParseLimit(const char* text) {
  try {
    const int limit = ParseInteger(text);
    if (limit > 0) {
      return limit;
    }
  } catch (const std::string&) {
    // Said below.
  }
  FailUsage(Format("-l \"%s\": not a number of seconds above 0", text));
}

Options ParseOptions(int argc, char** argv) {
  constexpr option kLongOptions[] = {
      {"follow", no_argument, nullptr, 'f'},      {"json", no_argument, nullptr, 'j'},
      {"limit", required_argument, nullptr, 'l'}, {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},     {nullptr, 0, nullptr, 0},
  };
  Options options;
  int result = 0;
  while ((result = getopt_long(argc, argv, "fjl:hV", kLongOptions, nullptr)) != -1) {
    switch (result) {
      case 'f':
        options.is_following = true;
        break;
      case 'j':
        options.is_json = true;
        break;
      case 'l':
        options.limit = ParseLimit(optarg);
        break;
      case 'h':
        PrintUsage();
        exit(EXIT_SUCCESS);
      case 'V':
        puts("vocastra-status " VOCASTRA_VERSION);
        exit(EXIT_SUCCESS);
      default:
        exit(kUsage);
    }
  }
  if (argc - optind > 1) {
    FailUsage("more than one status file");
  }
  if (optind < argc) {
    options.path = argv[optind];
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  SetDebugMask(0);
  if (options.is_following) {
    Follow(options);
  }
  const Report report = LookOnce(options);
  Print(options.is_json ? ToJson(report, true) : ToTable(report));
  return report.Judge();
}

// vocastra-check on a configuration and a glossary, separated by a line "====" (see document.h).
//
// Each finding is one line of the documented form, and the exit status is that of the worst
// finding. If the daemon refuses the input, there is an error.
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <utility>

#include "check.h"
#include "debug.h"
#include "document.h"
#include "fuzz.h"
#include "glossary.h"
#include "xml.h"

// One fixed user on every machine, as reading the real users takes most of the time.
extern "C" passwd* getpwent() {
  static char name[] = "somebody";
  static char home[] = "/home/somebody";
  static bool is_next = false;
  static passwd user;
  user.pw_name = name;
  user.pw_dir = home;
  is_next = !is_next;
  return is_next ? &user : nullptr;
}

namespace {

constexpr size_t kMaxBytes = 16 << 10;

const fuzz::Scratch kScratch;

// The check's lines on standard error, and its verdict.
std::string Checked(const CheckOptions& options_, Verdict& verdict_) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* const captured = open_memstream(&buffer, &size);
  FILE* const real = std::exchange(stderr, captured);
  verdict_ = Check(options_);
  stderr = real;
  fclose(captured);
  std::string text(buffer, size);
  free(buffer);
  return text;
}

// The worst kind among the lines.
Verdict CheckLines(const std::string& text_) {
  Verdict gravest = Verdict::kClean;
  for (size_t start = 0; start < text_.size();) {
    const size_t end = text_.find('\n', start);
    fuzz::Require(end != std::string::npos, "the last line is whole", text_);
    const std::string line = text_.substr(start, end - start);
    start = end + 1;
    const size_t place = line.find(':');
    const size_t kind = line.find_first_not_of("0123456789", place + 1);
    fuzz::Require(place != std::string::npos && kind > place + 1 && kind != std::string::npos,
                  "a finding has a place", line);
    const bool is_error = line.compare(kind, 9, ": error: ") == 0;
    fuzz::Require(is_error || line.compare(kind, 11, ": warning: ") == 0, "a finding has a kind",
                  line);
    fuzz::Require(line.back() == '.', "a finding ends with a remedy", line);
    gravest = std::max(gravest, is_error ? Verdict::kErrors : Verdict::kWarnings);
  }
  return gravest;
}

bool IsLoaded(const std::string& config_path_, const std::string& glossary_path_) {
  try {
    LoadXMLTree(config_path_, "tts-config")->GetAttributeString("state");
    const Glossary glossary(glossary_path_);
  } catch (const std::string&) {
    return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  SetDebugMask(0);
  const std::string text(reinterpret_cast<const char*>(data_), size_);
  const std::string separator = "\n====\n";
  const size_t middle = std::min(text.find(separator), text.size());
  const std::string config = fuzz::Unfold(text.substr(0, middle), kMaxBytes);
  const std::string glossary = middle < text.size()
                                   ? fuzz::Unfold(text.substr(middle + separator.size()), kMaxBytes)
                                   : "<glossary/>";
  const std::string config_path = kScratch.Write("config.xml", config);
  const std::string glossary_path = kScratch.Write("glossary.xml", glossary);

  CheckOptions options;
  options.config_path = config_path;
  options.glossary_path = glossary_path;
  Verdict verdict = Verdict::kClean;
  const std::string findings = Checked(options, verdict);
  fuzz::Require(CheckLines(findings) == verdict, "the status is that of the gravest finding",
                findings);
  fuzz::Require(verdict == Verdict::kErrors || IsLoaded(config_path, glossary_path),
                "what the daemon refuses is an error", config + separator + glossary);
  fuzz::RequireNoSecret(findings, text);
  return 0;
}

#include "check.h"

#include <set>

#include "commandlinecheck.h"
#include "configurationcheck.h"
#include "glossarycheck.h"
#include "paths.h"

std::string CheckOptions::Argument(char letter_) const {
  const auto found = daemon.find(letter_);
  return found == daemon.end() ? "" : found->second;
}

Verdict Check(const CheckOptions& options_) {
  Findings findings;
  PathUses uses;
  uses.AddFile({options_.config_path, 1, "tts-config"}, "configuration", options_.config_path);
  const std::set<int> priorities = CheckConfiguration(options_, uses, findings);
  if (!options_.glossary_path.empty()) {
    uses.AddFile({options_.glossary_path, 1, "glossary"}, "glossary", options_.glossary_path);
    CheckGlossary(options_.glossary_path, findings);
  }
  if (!options_.daemon.empty()) {
    CheckCommandLine(options_, priorities.size() > 1, uses, findings);
  }
  uses.Check(findings);
  return findings.Print();
}

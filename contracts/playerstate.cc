#include "playerstate.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "format.h"
#include "statusfile.h"
#include "xml.h"

namespace {

// Line ends and the like would break a line-based reader.
std::string OneLine(std::string text_) {
  std::replace_if(
      text_.begin(), text_.end(),
      [](char c_) { return static_cast<unsigned char>(c_) < ' ' || c_ == 127; }, '?');
  return text_;
}

long long Time(const XMLElement& element_, const char* name_) {
  return strtoll(element_.GetAttributeString(name_).c_str(), nullptr, 10);
}

}  // namespace

void WritePlayerState(const std::string& path_, const PlayerState& state_) {
  XMLElement root("player-state");
  root.SetAttributeString("device", OneLine(state_.device));
  root.SetAttributeInteger("device-ok", state_.device_ok ? 1 : 0);
  root.SetAttributeString("playing", OneLine(state_.playing));
  root.SetAttributeString("problem", OneLine(state_.problem));
  root.SetAttributeString("problem-time", Format("%lld", state_.problem_time));
  root.SetAttributeString("since", Format("%lld", state_.since));
  for (const std::string& name : state_.waiting) {
    auto waiting = std::make_unique<XMLElement>("waiting");
    waiting->SetAttributeString("name", OneLine(name));
    root.AddChild(waiting.release());
  }
  const std::string temporary = path_ + ".new";
  FILE* const file = fopen(temporary.c_str(), "we");
  bool is_written = file != nullptr;
  if (is_written) {
    root.Dump(file, "");
    is_written = ferror(file) == 0;
    is_written = fclose(file) == 0 && is_written;
  }
  if (!is_written || rename(temporary.c_str(), path_.c_str()) != 0) {
    const std::string why = strerror(errno);
    unlink(temporary.c_str());
    throw Format("cannot write %s: %s", path_.c_str(), why.c_str());
  }
}

PlayerState ReadPlayerState(const std::string& path_) {
  const std::unique_ptr<XMLElement> root = ParseDump(ReadWhole(path_));
  if (!root || root->GetName() != "player-state") {
    throw Format("%s: holds no player's state", path_.c_str());
  }
  PlayerState state;
  state.playing = root->GetAttributeString("playing");
  state.since = Time(*root, "since");
  for (const XMLElement* waiting : root->GetChildren("waiting")) {
    state.waiting.push_back(waiting->GetAttributeString("name"));
  }
  state.device = root->GetAttributeString("device");
  state.device_ok = root->GetAttributeInteger("device-ok") != 0;
  state.problem = root->GetAttributeString("problem");
  state.problem_time = Time(*root, "problem-time");
  return state;
}

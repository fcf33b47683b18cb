#include "playerstate.h"

#include <dirent.h>
#include <errno.h>
#include <signal.h>

#include <algorithm>
#include <memory>

#include "affix.h"
#include "format.h"
#include "statefile.h"
#include "statusfile.h"
#include "xml.h"

namespace {

constexpr char kZonePrefix[] = "player-";

}  // namespace

bool IsPlayerRunning(const PlayerState& state_) {
  return state_.pid > 0 && (kill(state_.pid, 0) == 0 || errno == EPERM);
}

void WritePlayerState(const std::string& path_, const PlayerState& state_) {
  XMLElement root("player-state");
  root.SetAttributeString("device", OneLine(state_.device));
  root.SetAttributeInteger("device-ok", state_.device_ok ? 1 : 0);
  root.SetAttributeInteger("pid", state_.pid);
  root.SetAttributeString("playing", OneLine(state_.playing));
  root.SetAttributeString("problem", OneLine(state_.problem));
  root.SetAttributeString("problem-time", Format("%lld", state_.problem_time));
  root.SetAttributeInteger("rate", state_.rate);
  root.SetAttributeString("since", Format("%lld", state_.since));
  for (const std::string& name : state_.waiting) {
    auto waiting = std::make_unique<XMLElement>("waiting");
    waiting->SetAttributeString("name", OneLine(name));
    root.AddChild(waiting.release());
  }
  ReplaceByDump(path_, root);
}

PlayerState ReadPlayerState(const std::string& path_) {
  const std::unique_ptr<XMLElement> root = ParseDump(ReadWhole(path_));
  if (!root || root->GetName() != "player-state") {
    throw Format("%s: holds no player's state", path_.c_str());
  }
  PlayerState state;
  state.pid = root->GetAttributeInteger("pid", 0);
  state.playing = root->GetAttributeString("playing");
  state.since = LongAttribute(*root, "since");
  for (const XMLElement* waiting : root->GetChildren("waiting")) {
    state.waiting.push_back(waiting->GetAttributeString("name"));
  }
  state.device = root->GetAttributeString("device");
  state.rate = root->GetAttributeInteger("rate", 0);
  state.device_ok = root->GetAttributeInteger("device-ok") != 0;
  state.problem = root->GetAttributeString("problem");
  state.problem_time = LongAttribute(*root, "problem-time");
  return state;
}

std::vector<std::string> PlayerZones(const std::string& run_) {
  const std::string start = kZonePrefix;
  std::vector<std::string> zones = {""};
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(run_.c_str()), closedir);
  while (const dirent* const entry = listing ? readdir(listing.get()) : nullptr) {
    const std::string name = entry->d_name;
    // A new state has the ending until it replaces the old one.
    if (name.size() > start.size() && StartsWith(name, start) && !EndsWith(name, ".new")) {
      zones.push_back(name.substr(start.size()));
    }
  }
  std::sort(zones.begin(), zones.end());
  return zones;
}

std::string PlayerPath(const std::string& run_, const std::string& zone_) {
  return run_ + "/" + (zone_.empty() ? "player" : kZonePrefix + zone_);
}

std::map<std::string, PlayerState> ReadPlayerStates(const std::string& run_) {
  std::map<std::string, PlayerState> states;
  for (const std::string& zone : PlayerZones(run_)) {
    try {
      states[zone] = ReadPlayerState(PlayerPath(run_, zone));
    } catch (const std::string&) {  // It may have been removed since.
    }
  }
  return states;
}

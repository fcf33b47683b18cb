// The state file of the player, in the style of the daemon's status file but replaced by a rename.
//
//   <player-state device="default" device-ok="1" pid="812" playing="7_lobby.text_live_cont.raw"
//       problem="" problem-time="0" rate="22050" since="1700000000">
//       <waiting name="8_lobby.text_live_cont.raw"/>
//   </player-state>
//
// The run directory has one for each player: "player", and "player-ZONE" for a player of a zone. A
// player leaves its file when it ends; a zone whose file is removed is no longer expected.
#pragma once

#include <map>
#include <string>
#include <vector>

struct PlayerState {
  int pid = 0;          // The player's process.
  std::string playing;  // The name of the file; empty: none.
  // When the file began to play, or silence began; seconds since 1970.
  long long since = 0;
  // The daemon's names of the files; the next one to be played is the first.
  std::vector<std::string> waiting;
  std::string device;          // A sound device's name, "null", or the path of a WAV file.
  int rate = 0;                // Of the sound; hertz. 0: unknown.
  bool device_ok = true;       // False while there is no such sound device.
  std::string problem;         // The last problem, as on standard error; empty: none yet.
  long long problem_time = 0;  // Seconds since 1970.
};

// True if the player that wrote it runs.
bool IsPlayerRunning(const PlayerState& state_);

// Replaces the file at path_. Throws a string if that fails.
void WritePlayerState(const std::string& path_, const PlayerState& state_);

// Throws a string if the file cannot be read or is no such state.
PlayerState ReadPlayerState(const std::string& path_);

// The zones that have state files, in byte order, after an empty name for the player without a
// zone, which may have no file.
std::vector<std::string> PlayerZones(const std::string& run_);

// The path of the state file.
std::string PlayerPath(const std::string& run_, const std::string& zone_);

// The states of all players by their zones, without those that cannot be read.
std::map<std::string, PlayerState> ReadPlayerStates(const std::string& run_);

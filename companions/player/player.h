// Plays the files of a queue by their urgency as one stream.
#pragma once

#include <memory>
#include <string>

#include "queue.h"
#include "sink.h"
#include "urgency.h"

struct PlayerOptions {
  int rate = 22050;          // Of the stream; hertz.
  int volume = 100;          // Per cent.
  bool after_piece = false;  // What plays is not interrupted.
  bool until_empty = false;
  bool is_verbose = false;
  std::string begin;  // Shell commands around sound; empty: none.
  std::string end;
  std::string state_path;  // Empty: no state file.
  std::string device;      // How the state file names the sink.
};

class Player {
 public:
  // REQUIRES: all but the options outlive the player.
  Player(const PlayerOptions& options_, Queue& queue_, Urgency& urgency_, Sink& sink_);
  // What plays or waits is left to a later player.
  ~Player();

  // Does what can be done without waiting. Returns after how many milliseconds it must be called
  // again, unless the queue's descriptor becomes readable before.
  // Throws a string if the player cannot go on.
  int Step();

  // True if all has been played and the player is to end then.
  bool IsDone() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

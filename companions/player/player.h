// Plays the files of a queue as one stream, the most urgent first.
#pragma once

#include <memory>
#include <string>

#include "queue.h"
#include "sink.h"
#include "urgency.h"

struct PlayerOptions {
  int rate = 22050;          // Of the stream; hertz.
  int volume = 100;          // Per cent.
  bool after_piece = false;  // No piece is interrupted.
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
  // Leaves pieces that play or wait to a later player.
  ~Player();

  // Does all work that needs no waiting. Returns the milliseconds after which it must be called
  // again, or earlier if the queue's descriptor becomes readable.
  // Throws a string if the player cannot go on.
  int Step();

  // True if all files were played and the player is to end after that.
  bool IsDone() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

// The device as the page shows it, read from the files in the run directory.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "handover.h"
#include "health.h"
#include "history.h"
#include "playerstate.h"
#include "xml.h"

// An input directory; of several with the same id, the first one.
struct DirectoryView {
  std::string id;
  std::string type;
  std::string display_id;
  int priority = 0;
  int loops = 1;
  bool can_say = false;             // A message can be handed over to it.
  std::vector<std::string> labels;  // The labels of the fields of an XML message, see document.h.
  const XMLElement* parser = nullptr;
  std::string conv_opts;
  int waiting = 0;    // Files that wait in a remote directory, from the status.
  std::string taken;  // The file that the daemon has taken, from the status; may be empty.

  bool IsRemote() const { return type != "local"; }
};

class View {
 public:
  // history_: updated with the records of the health file. REQUIRES: it outlives the view.
  View(const std::string& run_, History& history_);

  // Reads the files again. Broken files count as missing.
  void Refresh(long long now_);

  const DirectoryView* Find(const std::string& id_) const;  // Null: there is none.

  // The destination of messages for the directory. Throws a string if it takes none.
  Destination DestinationOf(const std::string& id_) const;

  // The message that plays now; null if nothing plays, or the message is not known.
  const Entry* Playing() const { return playing_id == 0 ? nullptr : history.Find(playing_id); }

  // True if the message's sound is being made, or was made and counts as not yet played.
  bool IsComing(const Entry& entry_, long long now_) const;

  bool is_running = false;  // The station runs.
  std::unique_ptr<XMLElement> configuration;
  std::string state;                       // Of the configuration: "run" if messages are spoken.
  std::vector<DirectoryView> directories;  // The most urgent first.
  Health health;
  std::optional<PlayerState> player;  // The state of a running player.
  std::string playing;  // The id of the directory whose message plays; empty: nothing plays.
  long long since = 0;  // When it began to play; seconds since 1970.

 private:
  void ReadDirectories();
  DirectoryView ReadDirectory(const XMLElement& element_) const;
  void ReadStatusFile();
  void FindPlaying(long long now_);
  void ReadTextOf(Entry& entry_) const;

  std::string run;
  History& history;
  long long playing_id = 0;
};

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

// An input directory, the first of its id.
struct DirectoryView {
  std::string id;
  std::string type;
  std::string display_id;
  int priority = 0;
  int loops = 1;
  bool can_say = false;             // A message can be handed over to it.
  std::vector<std::string> labels;  // Of the fields of an XML message, see document.h.
  const XMLElement* parser = nullptr;
  std::string conv_opts;
  int waiting = 0;    // Files that wait in a remote directory, as the status tells.
  std::string taken;  // The file that the daemon has taken, as the status tells; may be empty.

  bool IsRemote() const { return type != "local"; }
};

class View {
 public:
  // history_: it gets what the health file tells of messages. REQUIRES: it outlives the view.
  View(const std::string& run_, History& history_);

  // Reads the files again. Those that are missing or broken count as absent.
  void Refresh(long long now_);

  const DirectoryView* Find(const std::string& id_) const;  // Null: there is none.

  // Where messages for the directory go. Throws a string if it takes none.
  Destination DestinationOf(const std::string& id_) const;

  // What plays now: a message; null if it is not known which, or if nothing plays.
  const Entry* Playing() const { return playing_id == 0 ? nullptr : history.Find(playing_id); }

  // A message that was made into sound, or is being made, and has not begun to play.
  bool IsComing(const Entry& entry_, long long now_) const;

  bool is_running = false;  // The service.
  std::unique_ptr<XMLElement> configuration;
  std::string state;                       // Of the configuration: "run" if messages are spoken.
  std::vector<DirectoryView> directories;  // The most urgent first.
  Health health;
  std::optional<PlayerState> player;  // Only one that runs.
  std::string playing;                // The directory; empty: nothing plays.
  long long since = 0;                // When that began; seconds since 1970.

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

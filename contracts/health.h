// The health file: what the station knows about the service. It is replaced by a rename whenever
// something in it changes. It is well-formed XML, with values escaped:
//
//   <health daemon="812" hung="0" saying="lobby/train" station="811" station-start="4711">
//       <counter name="messages" value="12"/>
//       <problem id="player" remedy="..." sentence="..." since="1700000000"/>
//       <message arrived="1700000000" directory="lobby" ended="0" failed="0" file="train"
//           pieces="2" state="speaking"/>
//   </health>
#pragma once

#include <map>
#include <string>
#include <vector>

// A reason why messages may not be heard.
struct Problem {
  std::string id;        // For programs: a word, and perhaps ":" and a subject.
  std::string sentence;  // The cause, for people.
  std::string remedy;    // The action that ends it, in one sentence.
  long long since = 0;   // Seconds since 1970.
};

// The progress of a message in a local directory.
struct MessageRecord {
  enum State {
    kWaiting,
    kSpeaking,
    kSaid,     // Every piece is in the output directory.
    kFailed,   // Ended; at least one piece could not be made.
    kDropped,  // The daemon did not take it, or removed it unspoken.
    kHeard     // The player has played every piece.
  };

  std::string directory;  // The id in the configuration.
  std::string file;       // The name in the directory.
  State state = kWaiting;
  int pieces = 0;         // Delivered so far.
  int failed = 0;         // Pieces that could not be made.
  long long arrived = 0;  // Seconds since 1970.
  long long ended = 0;    // Seconds since 1970; 0: not yet.
};

struct Health {
  int station = 0;  // The station's process.
  // When that process started, in clock ticks since the start of the system, as a later process may
  // have the same number. Only ReadHealth sets it; WriteHealth determines it itself.
  long long station_start = 0;
  int daemon = 0;        // The daemon's process; 0: none.
  bool is_hung = false;  // The daemon runs but does not advance.
  std::string saying;    // Directory and file of the message that is being spoken; may be empty.
  std::map<std::string, long long> counters;  // messages, pieces, failed, lost, restarts.
  std::vector<Problem> problems;              // The oldest first.
  std::vector<MessageRecord> messages;  // Those that have not ended, and the last ones that have.
};

// The name of a state in the file: "waiting", "speaking" and so on.
const char* NameOf(MessageRecord::State state_);

// Replaces the file at path_, unless nothing has changed. Throws a string if that fails.
void WriteHealth(const std::string& path_, const Health& health_);

// In file names, control characters are read as "?" and invalid UTF-8 as U+FFFD. Throws a string if
// the file cannot be read or is no health file.
Health ReadHealth(const std::string& path_);

// True if the station that wrote it is running, and is not stopped.
bool IsStationRunning(const Health& health_);

// True if a signal or a debugger has stopped that station. Then nothing in the file is up to date.
bool IsStationStopped(const Health& health_);

// The messages of the device, as far as the desk knows them: those that it has handed over itself,
// with user and text, and those of others, which the health file tells.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "health.h"

struct Entry {
  // How a message ended, or that it has not.
  enum Fate { kOpen, kWithdrawn, kForgotten };

  long long id = 0;  // Of the entry; the later, the larger.
  std::string directory;
  std::string file;
  std::string text;      // For people, in one line; empty: not known.
  std::string document;  // Of an XML directory: what was handed over.
  std::string user;      // Empty: it came from elsewhere.
  MessageRecord::State state = MessageRecord::kWaiting;
  Fate fate = kOpen;
  std::string withdrawn_by;
  bool is_whole = true;     // Text and document are not cut.
  bool is_adopted = false;  // The station knows it.
  int pieces = 0;
  int failed = 0;
  long long arrived = 0;  // Seconds since 1970.
  long long ended = 0;    // When it was heard or dropped; 0: not yet.

  bool IsOver() const { return fate == kForgotten || state >= MessageRecord::kFailed; }
};

class History {
 public:
  // Reads the file "history" in directory_; lines that cannot be read are left out.
  explicit History(const std::string& directory_);

  // The text and, of an XML directory, the document of a message that arrives from elsewhere;
  // changes the entry.
  using Reader = std::function<void(Entry&)>;

  // Adds a message that was handed over here; returns its id.
  long long Add(Entry entry_);

  // Takes what the health file tells of messages. is_running_: the station that wrote it runs.
  void Update(const Health& health_, bool is_running_, long long now_, const Reader& read_);

  // Notes that a message that waited was withdrawn.
  void NoteWithdrawn(long long id_, const std::string& user_);

  const Entry* Find(long long id_) const;  // Null: there is none.

  const std::deque<Entry>& Entries() const { return entries; }  // The newest last.

  // Those that have changed last, the newest last.
  std::vector<const Entry*> LastChanged() const;

 private:
  Entry* Match(const MessageRecord& record_);
  void Take(const MessageRecord& record_, long long now_, Entry& entry_);
  void Touch(const Entry& entry_);
  void Save();

  std::string path;
  std::deque<Entry> entries;
  std::deque<long long> changed;  // Ids, the last one changed last.
  bool is_unsaved = false;
  bool has_complained = false;
};

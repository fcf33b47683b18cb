// The messages of the device that the desk knows: its own, with user and text, and those of others,
// from the health file.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "health.h"

struct Entry {
  // An end that the station does not record: kWithdrawn by a user, or kForgotten by the station.
  // kOpen: none.
  enum Fate { kOpen, kWithdrawn, kForgotten };

  long long id = 0;  // Of the entry; a later entry has a larger one.
  std::string directory;
  std::string file;
  std::string text;      // For people, in one line; empty: not known.
  std::string document;  // For an XML directory: the document that was handed over.
  std::string user;      // Empty: it came from elsewhere.
  MessageRecord::State state = MessageRecord::kWaiting;
  Fate fate = kOpen;
  std::string withdrawn_by;
  bool is_whole = true;     // False if text or document were cut.
  bool is_adopted = false;  // The station knows the message.
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

  // Sets text and, for an XML directory, document in the entry of a message that arrives from
  // elsewhere.
  using Reader = std::function<void(Entry&)>;

  // Adds a message that was handed over here; returns its id.
  long long Add(Entry entry_);

  // Updates the entries from the records in the health file. is_running_: the station that wrote it
  // runs.
  void Update(const Health& health_, bool is_running_, long long now_, const Reader& read_);

  // Notes that a waiting message was withdrawn.
  void NoteWithdrawn(long long id_, const std::string& user_);

  const Entry* Find(long long id_) const;  // Null: there is none.

  const std::deque<Entry>& Entries() const { return entries; }  // The newest last.

  // The entries that have changed last, the latest change last.
  std::vector<const Entry*> LastChanged() const;

 private:
  Entry* Match(const MessageRecord& record_);
  void Take(const MessageRecord& record_, long long now_, Entry& entry_);
  void NoteChange(const Entry& entry_);
  void Save();

  std::string path;
  std::deque<Entry> entries;
  std::deque<long long> changed;  // Ids, the latest change last.
  bool is_unsaved = false;
  bool has_complained = false;
};

#include "history.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "charencoding.h"
#include "format.h"
#include "hiddenfile.h"
#include "html.h"
#include "statusfile.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kMaxEntries = 200;
constexpr size_t kMaxText = 4000;  // Bytes; memory is small.
constexpr size_t kMaxChanged = 12;
constexpr long long kPatience = 30;  // Seconds within which the station must know a message.

constexpr MessageRecord::State kStates[] = {MessageRecord::kWaiting, MessageRecord::kSpeaking,
                                            MessageRecord::kSaid,    MessageRecord::kFailed,
                                            MessageRecord::kDropped, MessageRecord::kHeard};

Json ToJson(const Entry& entry_) {
  return {{"id", entry_.id},
          {"directory", entry_.directory},
          {"file", entry_.file},
          {"text", entry_.text},
          {"document", entry_.document},
          {"user", entry_.user},
          {"state", NameOf(entry_.state)},
          {"fate", static_cast<int>(entry_.fate)},
          {"withdrawn-by", entry_.withdrawn_by},
          {"whole", entry_.is_whole},
          {"adopted", entry_.is_adopted},
          {"pieces", entry_.pieces},
          {"failed", entry_.failed},
          {"arrived", entry_.arrived},
          {"ended", entry_.ended}};
}

// Throws an exception of the library if something is missing.
Entry FromJson(const Json& json_) {
  Entry entry;
  entry.id = json_.at("id");
  entry.directory = json_.at("directory");
  entry.file = json_.at("file");
  entry.text = json_.at("text");
  entry.document = json_.at("document");
  entry.user = json_.at("user");
  const std::string state = json_.at("state");
  for (const MessageRecord::State known : kStates) {
    entry.state = state == NameOf(known) ? known : entry.state;
  }
  const int fate = json_.at("fate");
  entry.fate = fate == Entry::kWithdrawn   ? Entry::kWithdrawn
               : fate == Entry::kForgotten ? Entry::kForgotten
                                           : Entry::kOpen;
  entry.withdrawn_by = json_.at("withdrawn-by");
  entry.is_whole = json_.at("whole");
  entry.is_adopted = json_.at("adopted");
  entry.pieces = json_.at("pieces");
  entry.failed = json_.at("failed");
  entry.arrived = json_.at("arrived");
  entry.ended = json_.at("ended");
  return entry;
}

// Cuts the text to kMaxText bytes, at the end of a character.
void Cut(std::string& text_, bool& is_whole_) {
  if (text_.size() <= kMaxText) {
    return;
  }
  size_t end = kMaxText;
  while (end > 0 && (static_cast<unsigned char>(text_[end]) & 0xC0) == 0x80) {
    --end;
  }
  text_.resize(end);
  is_whole_ = false;
}

void LimitEntry(Entry& entry_) {
  entry_.text = OneLineOf(Utf8ReplaceInvalid(entry_.text));
  entry_.document = Utf8ReplaceInvalid(entry_.document);
  Cut(entry_.text, entry_.is_whole);
  Cut(entry_.document, entry_.is_whole);
}

}  // namespace

History::History(const std::string& directory_) : path(directory_ + "/history") {
  std::string text;
  try {
    text = ReadWhole(path);
  } catch (const std::string&) {  // There is no history at the first start.
  }
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    try {
      Entry entry = FromJson(Json::parse(text.substr(at, end - at)));
      if (entries.empty() || entries.back().id < entry.id) {
        LimitEntry(entry);
        entries.push_back(std::move(entry));
      }
    } catch (const Json::exception&) {  // Skips a line that somebody has edited.
    }
    at = end + 1;
  }
  while (entries.size() > kMaxEntries) {
    entries.pop_front();
  }
}

long long History::Add(Entry entry_) {
  LimitEntry(entry_);
  entry_.id = entries.empty() ? 1 : entries.back().id + 1;
  entries.push_back(std::move(entry_));
  if (entries.size() > kMaxEntries) {
    entries.pop_front();
  }
  const long long id = entries.back().id;
  NoteChange(entries.back());
  Save();
  return id;
}

void History::Update(const Health& health_, bool is_running_, long long now_, const Reader& read_) {
  std::set<long long> told;
  is_unsaved = false;
  for (const MessageRecord& record : health_.messages) {
    Entry* entry = Match(record);
    if (entry == nullptr) {
      Entry found;
      found.id = entries.empty() ? 1 : entries.back().id + 1;
      found.directory = record.directory;
      found.file = record.file;
      found.arrived = record.arrived;
      if (record.state <= MessageRecord::kSpeaking) {
        read_(found);
      }
      LimitEntry(found);
      entries.push_back(std::move(found));
      entry = &entries.back();
      is_unsaved = true;
      NoteChange(*entry);
    }
    Take(record, now_, *entry);
    told.insert(entry->id);
  }
  for (Entry& entry : entries) {
    const bool is_expected = entry.is_adopted || now_ - entry.arrived > kPatience;
    if (is_running_ && is_expected && !entry.IsOver() && entry.fate == Entry::kOpen &&
        told.count(entry.id) == 0 && entry.state != MessageRecord::kSaid) {
      entry.fate = Entry::kForgotten;
      NoteChange(entry);
      is_unsaved = true;
    }
  }
  while (entries.size() > kMaxEntries) {
    entries.pop_front();
  }
  if (is_unsaved) {
    Save();
  }
}

void History::NoteWithdrawn(long long id_, const std::string& user_) {
  for (Entry& entry : entries) {
    if (entry.id == id_) {
      entry.fate = Entry::kWithdrawn;
      entry.withdrawn_by = user_;
      NoteChange(entry);
      Save();
    }
  }
}

const Entry* History::Find(long long id_) const {
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [&](const Entry& entry_) { return entry_.id == id_; });
  return found == entries.end() ? nullptr : &*found;
}

std::vector<const Entry*> History::LastChanged() const {
  std::vector<const Entry*> found;
  for (const Entry& entry : entries) {
    if (std::find(changed.begin(), changed.end(), entry.id) != changed.end()) {
      found.push_back(&entry);
    }
  }
  return found;
}

// Finds the entry of a record. Until the station knows a message, its time of arrival may differ by
// a second. A name may be used again, so the newest entry counts.
Entry* History::Match(const MessageRecord& record_) {
  for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
    if (entry->directory == record_.directory && entry->file == record_.file &&
        (!entry->is_adopted || entry->arrived == record_.arrived)) {
      return &*entry;
    }
  }
  return nullptr;
}

void History::Take(const MessageRecord& record_, long long now_, Entry& entry_) {
  entry_.is_adopted = true;
  entry_.arrived = record_.arrived;
  if (entry_.state == record_.state && entry_.failed == record_.failed &&
      entry_.fate != Entry::kForgotten) {
    entry_.pieces = record_.pieces;
    return;
  }
  // The record only has the time at which the last piece was made.
  const bool is_just_heard =
      record_.state == MessageRecord::kHeard && entry_.state == MessageRecord::kSaid;
  is_unsaved = is_unsaved || record_.ended != 0;
  entry_.ended = is_just_heard ? now_ : record_.ended;
  entry_.state = record_.state;
  entry_.pieces = record_.pieces;
  entry_.failed = record_.failed;
  // A message that is spoken was not withdrawn in time.
  const bool is_said =
      record_.state != MessageRecord::kWaiting && record_.state != MessageRecord::kDropped;
  if (entry_.fate == Entry::kForgotten || is_said) {
    entry_.fate = Entry::kOpen;
  }
  NoteChange(entry_);
}

void History::NoteChange(const Entry& entry_) {
  changed.erase(std::remove(changed.begin(), changed.end(), entry_.id), changed.end());
  changed.push_back(entry_.id);
  if (changed.size() > kMaxChanged) {
    changed.pop_front();
  }
}

// Logs once that the history cannot be written: the desk works without it.
void History::Save() {
  std::string text;
  for (const Entry& entry : entries) {
    text += ToJson(entry).dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  }
  const std::string temporary = path + ".new";
  FILE* const file = fopen(temporary.c_str(), "we");
  bool is_written = file != nullptr && fwrite(text.data(), 1, text.size(), file) == text.size();
  is_written = (file == nullptr || fclose(file) == 0) && is_written;
  if (is_written && rename(temporary.c_str(), path.c_str()) == 0) {
    has_complained = false;
    return;
  }
  const int error = errno;
  unlink(temporary.c_str());
  if (!has_complained) {
    has_complained = true;
    fprintf(stderr, "cannot write %s: %s\n", path.c_str(), strerror(error));
  }
}

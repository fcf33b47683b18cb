#include "model/directory.h"

#include <iterator>

namespace model {

namespace {

Files Visible(const Files& files_) {
  Files visible;
  for (const auto& [name, content] : files_) {
    if (name[0] != '.') {
      visible[name] = content;
    }
  }
  return visible;
}

}  // namespace

void Directory::Open() {
  if (has_last_played) {
    Empty(last_played);
  }
  Empty(files);
}

// As "rm DIRECTORY/*" does.
void Directory::Empty(Files& directory_) const {
  for (const auto& [name, content] : Visible(directory_)) {
    if (stuck.count(name) == 0) {
      directory_.erase(name);
    }
  }
}

void Directory::Process(int& last_id_) {
  log.clear();
  const Files seen = Visible(files);
  listed = static_cast<int>(seen.size());
  if (has_parser) {
    for (const auto& [name, content] : seen) {
      Index(name, content);
    }
  }
  for (auto entry = known.begin(); entry != known.end();) {
    if (seen.count(entry->first) != 0) {
      ++entry;
      continue;
    }
    log += "Erasing " + entry->first + " from file_map\n";
    entry = known.erase(entry);
  }
  is_available = true;
  while (!queue.empty() && (is_cache || message_id == 0)) {
    const std::string name = queue.front();
    if (is_cache) {
      Keep(name);
    } else {
      Take(name, last_id_);
    }
    queue.pop_front();
  }
}

void Directory::Index(const std::string& name_, const std::string& content_) {
  std::string text;
  try {
    text = parse(name_, content_);
  } catch (const std::string& e) {
    log += "Indexing " + e + "\n";
    return;
  }
  const uint16_t crc = CRC(0, text);
  const bool is_known = known.count(name_) != 0;
  if (is_known && known[name_] == crc && preview == 0) {
    return;
  }
  known[name_] = crc;
  log += is_known ? "Updating " + name_ + " in file_map\n"
                  : "Adding " + name_ + " " + std::to_string(crc) + " to file_map\n";
  if (is_available && !text.empty()) {
    queue.push_back(name_);
  }
}

void Directory::Keep(const std::string& name_) {
  if (has_last_played) {
    Copy(name_);
  } else {
    Remove(name_);
  }
}

void Directory::Take(const std::string& name_, int& last_id_) {
  const Words words = ReadMessage(name_);
  bool is_gone = true;
  if (has_last_played) {
    Empty(last_played);
    Copy(name_);
    is_gone = auto_delete == 0 || Remove(name_);
  } else {
    is_gone = Remove(name_);
  }
  StopMessage();
  if (!is_gone || words.empty()) {
    return;
  }
  message_id = ++last_id_;
  message_filename = name_;
  is_first_play = true;
  snippets = Snippets(words, word_limit, 1);
}

Words Directory::ReadMessage(const std::string& name_) {
  std::string text;
  if (has_parser) {
    const auto file = files.find(name_);
    try {
      text = parse(name_, file == files.end() ? "" : file->second);
    } catch (const std::string& e) {
      log += "Processing " + path + "/" + name_ + ": " + e + "\n";
      return {};
    }
    log += "Parser returned: \"" + text + "\"\n";
  }
  log +=
      IsUtf8(text) ? "Original is valid UTF-8\n" : "Re-encoding invalid parser output to UTF-8\n";
  const Splitting splitting(Decode(text));
  log += splitting.log + "From " + path + "/" + name_ + ": ";
  for (const std::string& word : splitting.words) {
    log += (&word == &splitting.words.front() ? "" : "|") + word;
  }
  log += "\n";
  return splitting.words;
}

void Directory::Copy(const std::string& name_) {
  if (files.count(name_) != 0) {
    last_played[name_] = files[name_];
  } else {
    log += "cp: cannot stat '" + path + "/" + name_ + "': No such file or directory\n";
  }
}

// False if the file is still there, or never was.
bool Directory::Remove(const std::string& name_) {
  const bool is_gone = stuck.count(name_) == 0 && files.erase(name_) == 1;
  log += is_gone ? "" : "Could not remove " + path + "/" + name_ + "\n";
  return is_gone;
}

Words Directory::GetWords() {
  is_first_play = false;
  if (message_id == 0) {
    return {};
  }
  const Words snippet = snippets[position++];
  if (position == snippets.size()) {
    position = 0;
    if (++plays >= loops) {
      StopMessage();
    }
  }
  return snippet;
}

void Directory::StopMessage() {
  message_id = 0;
  message_filename.clear();
  plays = 0;
  position = 0;
}

int Directory::WaitingCount() const {
  if (!is_cache) {
    return static_cast<int>(queue.size());
  }
  return has_last_played ? static_cast<int>(Visible(last_played).size()) : 0;
}

std::string Directory::Status() const {
  const std::string status = "<directory id=\"" + id + "\" path=\"" + path + "\" status=\"" +
                             (is_available ? "1" : "0") + "\" total-file-count=\"" +
                             std::to_string(listed) + "\" updated-file-count=\"" +
                             std::to_string(WaitingCount()) + "\"";
  if (message_id == 0) {
    return status + "/>\n";
  }
  return status + ">\n    <message filename=\"" + message_filename + "\" id=\"" +
         std::to_string(message_id) + "\" plays=\"" + std::to_string(plays) +
         "\"/>\n</directory>\n";
}

}  // namespace model

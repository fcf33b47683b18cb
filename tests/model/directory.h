// A local input directory: what a scan finds, queues and takes, and what the status record says.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "model/text.h"

namespace model {

using Files = std::map<std::string, std::string>;  // Names and contents.

struct Directory {
  // Attributes of the configuration.
  std::string id, path;
  int word_limit = 10;
  int loops = 1;
  int preview = 0;
  int auto_delete = 0;
  bool is_cache = false;
  bool has_last_played = false;

  // The disk, and the files on it that cannot be removed.
  Files files;
  Files last_played;
  std::set<std::string> stuck;

  // A parser makes a text of a file's name and content, or throws a string.
  bool has_parser = true;
  std::function<std::string(const std::string&, const std::string&)> parse =
      [](const std::string&, const std::string& content_) { return content_; };

  // As the construction of the daemon's directory: empties both directories.
  void Open();
  // One scan. The message that it takes, if any, gets the number after last_id_.
  void Process(int& last_id_);
  Words GetWords();
  void RestartMessage() { position = 0; }
  void StopMessage();
  int WaitingCount() const;
  std::string Status() const;  // As it is dumped.

  int listed = 0;
  std::list<std::string> queue;
  int message_id = 0;
  std::string message_filename;
  int plays = 0;
  bool is_first_play = true;
  std::string log;  // Of the last scan, all classes.

 private:
  void Empty(Files& directory_) const;
  void Index(const std::string& name_, const std::string& content_);
  void Keep(const std::string& name_);
  void Take(const std::string& name_, int& last_id_);
  Words ReadMessage(const std::string& name_);
  void Copy(const std::string& name_);
  bool Remove(const std::string& name_);

  bool is_available = false;
  std::map<std::string, uint16_t> known;
  std::vector<Words> snippets;  // Of one play.
  size_t position = 0;
};

}  // namespace model

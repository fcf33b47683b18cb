// Two local directories while files come, change and go. First line: the attributes of both
// directories, four bytes each (see Attributes below). Each further line is one step:
//
//   wDF TEXT   writes file F (a to h) of directory D (0 or 1); "|" in the text is a line feed
//   dDF        removes it
//   pD gD sD rD nD   scans, takes words, stops or restarts the message, changes whether there is
//                    a parser
//
// Queue, messages, words, status and the files left are those of a second telling of the rules of
// scanning.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <spawn.h>
#include <string.h>
#include <sys/stat.h>

#include <deque>
#include <fstream>
#include <memory>
#include <vector>

#include "crc.h"
#include "debug.h"
#include "fileparser.h"
#include "fuzz.h"
#include "inputdirectory.h"
#include "retelling.h"
#include "xml.h"

namespace {

using Files = std::map<std::string, std::string>;  // Names and contents.

constexpr char kHidden = 'g';  // Is ".g".
constexpr char kStuck = 'h';   // A file of this name cannot be removed.

const fuzz::Scratch scratch;

bool IsVisible(const std::string& name) { return name[0] != '.'; }

std::vector<std::string> NamesIn(const std::string& path) {
  std::vector<std::string> names;
  DIR* const directory = opendir(path.c_str());
  while (const dirent* entry = readdir(directory)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
      names.emplace_back(entry->d_name);
    }
  }
  closedir(directory);
  return names;
}

std::string ContentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

extern "C" {

int unlink(const char* path) noexcept {
  const size_t length = strlen(path);
  if (length >= 2 && path[length - 2] == '/' && path[length - 1] == kStuck) {
    errno = EPERM;
    return -1;
  }
  return remove(path);
}

// No shell, which would cost most of the time. Its two commands are done here.
int posix_spawn(pid_t* /*pid*/, const char* /*path*/, const posix_spawn_file_actions_t* /*actions*/,
                const posix_spawnattr_t* /*attributes*/, char* const* arguments,
                char* const* /*environment*/) {
  const std::string command = arguments[2];
  const size_t first = command.find(' ') + 1;
  const size_t second = command.find(' ', first) + 1;
  if (command.compare(0, 3, "rm ") == 0) {
    const std::string directory = command.substr(first, command.find("/*") - first);
    for (const std::string& name : NamesIn(directory)) {
      if (IsVisible(name)) {
        unlink((directory + "/" + name).c_str());
      }
    }
  } else if (command.compare(0, 3, "cp ") == 0) {
    const std::string from = command.substr(first, second - 1 - first);
    if (access(from.c_str(), F_OK) == 0) {
      std::ofstream(command.substr(second), std::ios::binary) << ContentOf(from);
    }
  } else {
    fuzz::Require(false, "a command is known", command);
  }
  return EAGAIN;  // Nothing is to be waited for.
}

}  // extern "C"

namespace {

// The file's content; a file that begins with "!" is one that a parser cannot take.
class ContentParser : public FileParser {
 public:
  std::string ParseFile(const std::string& path_) const override { return Parse(ContentOf(path_)); }
  static std::string Parse(const std::string& content) {
    if (!content.empty() && content[0] == '!') {
      throw std::string("cannot take it");
    }
    return content;
  }
};

std::vector<std::string> WordsOf(const std::string& text) {
  std::string valid;
  utf8::replace_invalid(text.begin(), text.end(), std::back_inserter(valid), 0xFFFD);
  std::vector<uint32_t> code_points;
  for (auto next = valid.begin(); next != valid.end();) {
    code_points.push_back(utf8::next(next, valid.end()));
  }
  const retelling::Splitting splitting(code_points);
  return {splitting.words.begin(), splitting.words.end()};
}

// Four bytes of the first line.
struct Attributes {
  explicit Attributes(const std::string& line, size_t number) {
    const auto byte = [&line, number](size_t i) {
      const size_t position = 4 * number + i;
      return position < line.size() ? static_cast<unsigned char>(line[position]) : 0U;
    };
    limit = static_cast<int>(byte(0) % 8) - 1;
    loops = static_cast<int>(byte(1) % 4);
    preview = static_cast<int>(byte(2) & 1);
    is_cache = (byte(2) & 2) != 0;
    has_last_played = (byte(3) & 1) != 0;
    auto_delete = static_cast<int>(byte(3) >> 1 & 1);
  }
  int limit, loops, preview, auto_delete;
  bool is_cache, has_last_played;
};

// A directory as the rules tell it.
class Model {
 public:
  explicit Model(const Attributes& attributes) : attributes_(attributes) { Empty(files); }

  // What is on the disk.
  Files files;
  Files last_played;

  bool has_parser = true;
  int id = 0;
  int plays = 0;
  bool is_first_play = true;
  std::string filename;
  size_t listed = 0;
  std::deque<std::string> queue;

  void Process(int& last_id) {
    const Files seen = Visible(files);
    listed = seen.size();
    if (has_parser) {
      for (const auto& [name, content] : seen) {
        Index(name, content);
      }
    }
    for (auto known = known_.begin(); known != known_.end();) {
      known = seen.count(known->first) == 0 ? known_.erase(known) : std::next(known);
    }
    is_first_pass_ = false;
    while (!queue.empty() && (attributes_.is_cache || id == 0)) {
      const std::string name = queue.front();
      if (attributes_.is_cache) {
        Keep(name);
      } else {
        Take(name, last_id);
      }
      queue.pop_front();
    }
  }

  retelling::Words GetWords() {
    is_first_play = false;
    if (id == 0) {
      return {};
    }
    const retelling::Words snippet = snippets_[position_++];
    if (position_ == snippets_.size()) {
      position_ = 0;
      if (++plays >= attributes_.loops) {
        Stop();
      }
    }
    return snippet;
  }

  void Restart() { position_ = 0; }

  void Stop() {
    id = 0;
    plays = 0;
    filename.clear();
    position_ = 0;
  }

  size_t WaitingCount() const {
    if (!attributes_.is_cache) {
      return queue.size();
    }
    return attributes_.has_last_played ? Visible(last_played).size() : 0;
  }

 private:
  static Files Visible(const Files& all) {
    Files visible;
    for (const auto& [name, content] : all) {
      if (IsVisible(name)) {
        visible[name] = content;
      }
    }
    return visible;
  }

  static void Empty(Files& directory) {
    for (const auto& [name, content] : Visible(directory)) {
      Remove(directory, name);
    }
  }

  // False if the file is still there, or never was.
  static bool Remove(Files& directory, const std::string& name) {
    return name[0] != kStuck && directory.erase(name) == 1;
  }

  void Index(const std::string& name, const std::string& content) {
    if (content[0] == '!') {
      return;
    }
    const uint16_t crc = CRC(0, reinterpret_cast<const uint8_t*>(content.data()), content.size());
    const bool is_known = known_.count(name) != 0;
    if (is_known && known_[name] == crc && attributes_.preview == 0) {
      return;
    }
    known_[name] = crc;
    if (!is_first_pass_ && !content.empty()) {
      queue.push_back(name);
    }
  }

  void Copy(const std::string& name) {
    if (files.count(name) != 0) {
      last_played[name] = files[name];
    }
  }

  void Keep(const std::string& name) {
    if (attributes_.has_last_played) {
      Copy(name);
    } else {
      Remove(files, name);
    }
  }

  void Take(const std::string& name, int& last_id) {
    std::vector<std::string> words;
    if (has_parser && files.count(name) != 0 && files[name][0] != '!') {
      words = WordsOf(files[name]);
    }
    bool is_gone = true;
    if (!attributes_.has_last_played) {
      is_gone = Remove(files, name);
    } else {
      Empty(last_played);
      Copy(name);
      is_gone = attributes_.auto_delete == 0 || Remove(files, name);
    }
    if (!is_gone || words.empty()) {
      return;
    }
    id = ++last_id;
    filename = name;
    plays = 0;
    position_ = 0;
    is_first_play = true;
    snippets_ = retelling::Snippets(words, attributes_.limit, 1);
  }

  Attributes attributes_;
  bool is_first_pass_ = true;
  std::map<std::string, uint16_t> known_;
  std::vector<retelling::Words> snippets_;
  size_t position_ = 0;
};

// The directory and what it is compared with.
class Pair {
 public:
  Pair(const std::string& line, size_t number)
      : attributes_(line, number), model(attributes_), path_(scratch.path() + "/in0") {
    path_.back() = static_cast<char>('0' + number);
    last_played_path_ = path_ + "-played";
    for (const std::string& path : {path_, last_played_path_}) {
      mkdir(path.c_str(), 0700);
      for (const std::string& name : NamesIn(path)) {
        remove((path + "/" + name).c_str());
      }
    }
    scratch.Write(Name('a'), "an old file that is removed");
    scratch.Write(Name(kStuck), "an old file that stays");
    model.files[{kStuck}] = "an old file that stays";
    XMLElement element("directory");
    element.SetAttributeString("id", "d");
    element.SetAttributeString("type", "local");
    element.SetAttributeString("path", path_);
    element.SetAttributeInteger("loops", attributes_.loops);
    element.SetAttributeInteger("preview", attributes_.preview);
    element.SetAttributeInteger("auto-delete", attributes_.auto_delete);
    element.SetAttributeString("dir-mode", attributes_.is_cache ? "cache" : "");
    element.SetAttributeString("last-played-path",
                               attributes_.has_last_played ? last_played_path_ : "");
    directory_ = std::make_unique<InputDirectory>(element, "", "", attributes_.limit);
    directory_->SetFileParser(&parser_);
  }

  void Step(char step, char letter, const std::string& text, int& last_id) {
    const char plain = static_cast<char>('a' + ((letter - 'a') & 7));
    const std::string name = plain == kHidden ? ".g" : std::string(1, plain);
    switch (step) {
      case 'w':
        Write(name, text);
        break;
      case 'd':
        remove((path_ + "/" + name).c_str());
        model.files.erase(name);
        break;
      case 'p':
        directory_->Process();
        model.Process(last_id);
        break;
      case 'g':
        fuzz::Require(directory_->GetWords() == model.GetWords(),
                      "the words are those of the rules");
        break;
      case 's':
        directory_->StopMessage();
        model.Stop();
        break;
      case 'r':
        directory_->RestartMessage();
        model.Restart();
        break;
      case 'n':
        model.has_parser = !model.has_parser;
        directory_->SetFileParser(model.has_parser ? &parser_ : nullptr);
        break;
      default:
        break;
    }
  }

  // REQUIRES: ids begin after first_id.
  void Compare(int first_id) const {
    const int id = directory_->GetActiveMessageID();
    const int expected_id = model.id == 0 ? 0 : first_id + model.id;
    fuzz::Require(id == expected_id, "the message is that of the rules",
                  std::to_string(id) + " is not " + std::to_string(expected_id));
    fuzz::Require(directory_->GetActiveMessageFilename() == model.filename,
                  "the message has its file's name", directory_->GetActiveMessageFilename());
    fuzz::Require(directory_->FirstPlayOfActiveMessage() == model.is_first_play,
                  "the first play is known");
    CompareStatus();
    CompareFiles(path_, model.files);
    CompareFiles(last_played_path_, model.last_played);
  }

 private:
  std::string Name(char letter) const { return path_.substr(path_.rfind('/') + 1) + "/" + letter; }

  void Write(const std::string& name, std::string text) {
    for (char& c : text) {
      c = c == '|' ? '\n' : c;
    }
    scratch.Write(path_.substr(path_.rfind('/') + 1) + "/" + name, text);
    model.files[name] = text;
  }

  void CompareStatus() const {
    const std::unique_ptr<XMLElement> status(directory_->GetStatus());
    fuzz::Require(status->GetAttributeInteger("total-file-count") == static_cast<int>(model.listed),
                  "the status has the number of files");
    fuzz::Require(
        status->GetAttributeInteger("updated-file-count") == static_cast<int>(model.WaitingCount()),
        "the status has the number of waiting files");
    const XMLElement* const message = status->GetFirstChild();
    fuzz::Require((message == nullptr) == (model.id == 0), "the status has the message");
    if (message != nullptr) {
      fuzz::Require(message->GetAttributeInteger("plays") == model.plays,
                    "the status has the number of plays");
    }
  }

  static void CompareFiles(const std::string& path, const Files& expected) {
    Files found;
    for (const std::string& name : NamesIn(path)) {
      found[name] = ContentOf(path + "/" + name);
    }
    std::string names;
    for (const auto& [name, content] : found) {
      names += name + " ";
    }
    fuzz::Require(found == expected, "the files are those that the rules leave", names);
  }

  Attributes attributes_;

 public:
  Model model;

 private:
  ContentParser parser_;
  std::string path_;
  std::string last_played_path_;
  std::unique_ptr<InputDirectory> directory_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static int first_id = 0;  // Ids are never used again.
  SetDebugMask(0);
  fuzz::Input input(data, size);
  const std::string attributes = input.Line();
  Pair pairs[] = {{attributes, 0}, {attributes, 1}};
  int last_id = 0;
  for (int steps = 0; steps < 100 && !input.IsEmpty(); ++steps) {
    std::string line = input.Line();
    line.resize(std::max<size_t>(line.size(), 4), ' ');
    Pair& pair = pairs[line[1] & 1];
    pair.Step(line[0], line[2], line.substr(4), last_id);
    for (const Pair& each : pairs) {
      each.Compare(first_id);
    }
  }
  first_id += last_id;
  return 0;
}

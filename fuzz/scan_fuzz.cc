// Two local directories while files come, change and go. First line: the attributes of both
// directories, four bytes each (see Describe below). Each further line is one step:
//
//   wDF TEXT   writes file F (a to h) of directory D (0 or 1); "|" in the text is a line feed
//   dDF        removes it
//   pD gD sD rD nD   scans, takes words, stops or restarts the message, changes whether there is
//                    a parser
//
// Queue, messages, words, status and remaining files equal the model's.
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

#include "debug.h"
#include "fileparser.h"
#include "fuzz.h"
#include "inputdirectory.h"
#include "model/directory.h"
#include "xml.h"

namespace {

constexpr char kHidden = 'g';  // Is ".g".
constexpr char kStuck = 'h';   // A file of this name cannot be removed.

const fuzz::Scratch kScratch;

bool IsVisible(const std::string& name_) { return name_[0] != '.'; }

std::vector<std::string> NamesIn(const std::string& path_) {
  std::vector<std::string> names;
  DIR* const directory = opendir(path_.c_str());
  while (const dirent* entry = readdir(directory)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
      names.emplace_back(entry->d_name);
    }
  }
  closedir(directory);
  return names;
}

std::string ContentOf(const std::string& path_) {
  std::ifstream file(path_, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

extern "C" {

int unlink(const char* path_) noexcept {
  const size_t length = strlen(path_);
  if (length >= 2 && path_[length - 2] == '/' && path_[length - 1] == kStuck) {
    errno = EPERM;
    return -1;
  }
  return remove(path_);
}

// Carries out the shell's two commands itself, as a shell would take most of the time.
int posix_spawn(pid_t* /*pid*/, const char* /*path*/, const posix_spawn_file_actions_t* /*actions*/,
                const posix_spawnattr_t* /*attributes*/, char* const* arguments_,
                char* const* /*environment*/) {
  const std::string command = arguments_[2];
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
  return EAGAIN;  // No process to wait for.
}

}  // extern "C"

namespace {

// The file's content; throws for a file that begins with "!".
class ContentParser : public FileParser {
 public:
  std::string ParseFile(const std::string& path_) const override { return Parse(ContentOf(path_)); }
  static std::string Parse(const std::string& content_) {
    if (!content_.empty() && content_[0] == '!') {
      throw std::string("cannot take it");
    }
    return content_;
  }
};

// The directory that four bytes of the first line describe.
model::Directory Describe(const std::string& line_, size_t number_) {
  const auto byte = [&line_, number_](size_t i_) {
    const size_t position = 4 * number_ + i_;
    return position < line_.size() ? static_cast<unsigned char>(line_[position]) : 0U;
  };
  model::Directory directory;
  directory.word_limit = static_cast<int>(byte(0) % 8) - 1;
  directory.loops = static_cast<int>(byte(1) % 4);
  directory.preview = static_cast<int>(byte(2) & 1);
  directory.is_cache = (byte(2) & 2) != 0;
  directory.has_last_played = (byte(3) & 1) != 0;
  directory.auto_delete = static_cast<int>(byte(3) >> 1 & 1);
  directory.stuck = {{kStuck}};
  directory.parse = [](const std::string&, const std::string& content_) {
    return ContentParser::Parse(content_);
  };
  return directory;
}

// The directory and its model.
class Pair {
 public:
  model::Directory model;

  Pair(const std::string& line_, size_t number_)
      : model(Describe(line_, number_)), path(kScratch.Path() + "/in" + std::to_string(number_)) {
    last_played_path = path + "-played";
    for (const std::string& made : {path, last_played_path}) {
      mkdir(made.c_str(), 0700);
      for (const std::string& name : NamesIn(made)) {
        remove((made + "/" + name).c_str());
      }
    }
    kScratch.Write(Name('a'), "an old file that is removed");
    kScratch.Write(Name(kStuck), "an old file that stays");
    model.files = {{"a", "an old file that is removed"}, {{kStuck}, "an old file that stays"}};
    model.id = "d";
    model.path = path;
    model.Open();
    XMLElement element("directory");
    element.SetAttributeString("id", "d");
    element.SetAttributeString("type", "local");
    element.SetAttributeString("path", path);
    element.SetAttributeInteger("loops", model.loops);
    element.SetAttributeInteger("preview", model.preview);
    element.SetAttributeInteger("auto-delete", model.auto_delete);
    element.SetAttributeString("dir-mode", model.is_cache ? "cache" : "");
    element.SetAttributeString("last-played-path", model.has_last_played ? last_played_path : "");
    directory = std::make_unique<InputDirectory>(element, "", "", model.word_limit);
    directory->SetFileParser(&parser);
  }

  void Step(char step_, char letter_, const std::string& text_, int& last_id_) {
    const char plain = static_cast<char>('a' + ((letter_ - 'a') & 7));
    const std::string name = plain == kHidden ? ".g" : std::string(1, plain);
    switch (step_) {
      case 'w':
        Write(name, text_);
        break;
      case 'd':
        remove((path + "/" + name).c_str());
        model.files.erase(name);
        break;
      case 'p':
        directory->Process();
        model.Process(last_id_);
        break;
      case 'g':
        fuzz::Require(directory->GetWords() == model.GetWords(),
                      "the words are those of the rules");
        break;
      case 's':
        directory->StopMessage();
        model.StopMessage();
        break;
      case 'r':
        directory->RestartMessage();
        model.RestartMessage();
        break;
      case 'n':
        model.has_parser = !model.has_parser;
        directory->SetFileParser(model.has_parser ? &parser : nullptr);
        break;
      default:
        break;
    }
  }

  // REQUIRES: ids begin after first_id.
  void Compare(int first_id_) const {
    model::Directory expected = model;
    expected.message_id += model.message_id == 0 ? 0 : first_id_;
    const int id = directory->GetActiveMessageID();
    fuzz::Require(id == expected.message_id, "the message is that of the rules",
                  std::to_string(id) + " is not " + std::to_string(expected.message_id));
    fuzz::Require(directory->GetActiveMessageFilename() == model.message_filename,
                  "the message has its file's name", directory->GetActiveMessageFilename());
    fuzz::Require(directory->FirstPlayOfActiveMessage() == model.is_first_play,
                  "the first play is known");
    const std::string status = fuzz::Dumped(*std::unique_ptr<XMLElement>(directory->GetStatus()));
    fuzz::Require(status == expected.Status(), "the status is that of the rules",
                  status + expected.Status());
    CompareFiles(path, model.files);
    CompareFiles(last_played_path, model.last_played);
  }

 private:
  std::string Name(char letter_) const { return path.substr(path.rfind('/') + 1) + "/" + letter_; }

  void Write(const std::string& name_, std::string text_) {
    for (char& c : text_) {
      c = c == '|' ? '\n' : c;
    }
    kScratch.Write(path.substr(path.rfind('/') + 1) + "/" + name_, text_);
    model.files[name_] = text_;
  }

  static void CompareFiles(const std::string& path_, const model::Files& expected_) {
    model::Files found;
    for (const std::string& name : NamesIn(path_)) {
      found[name] = ContentOf(path_ + "/" + name);
    }
    std::string names;
    for (const auto& [name, content] : found) {
      names += name + " ";
    }
    fuzz::Require(found == expected_, "the files are those that the rules leave", names);
  }

  ContentParser parser;
  std::string path;
  std::string last_played_path;
  std::unique_ptr<InputDirectory> directory;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  static int first_id = 0;  // Ids are never used again.
  SetDebugMask(0);
  fuzz::Input input(data_, size_);
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

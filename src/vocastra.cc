#include "vocastra.h"

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "crc.h"
#include "debug.h"
#include "directory.h"
#include "format.h"
#include "glossary.h"
#include "inputdirectory.h"
#include "textfileparser.h"
#include "xml.h"
#include "xmlfileparser.h"

namespace {

constexpr useconds_t kPassPause = 100000;  // Microseconds; the system's whole pacing.
constexpr useconds_t kClipPause = 70000;   // Microseconds, after each clip.

constexpr mode_t kStatusFileMode = 0666;  // Less the umask: everybody may read it.

constexpr const char* kEncodings[] = {"ascii", "utf8", "utf16"};
constexpr char kDefaultParser[] = "text-utf8";
constexpr char kPauseTag[] = "\\pau=300\\ ";  // 300 ms of silence lead every message.

// A file that is truncated in place, or created, and written at once. Closed on exec.
class OutputFile {
 public:
  // flags_ and mode_ as for open(). A FIFO without a reader cannot be opened: open() does not wait.
  OutputFile(const std::string& path_, int flags_, mode_t mode_)
      : fd(open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | flags_,
                mode_)) {}
  ~OutputFile() {
    // NOMUTATE(operator, constant): descriptor 0 is never free, and close(-1) does nothing.
    if (fd >= 0) {
      close(fd);
    }
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  bool IsOpen() const { return fd >= 0; }  // NOMUTATE(operator): descriptor 0 is never free.

  // Writes the text and closes the file. False if not all of it has reached the file.
  bool Write(const std::string& text_) {
    const bool is_written = WriteWhole(fd, text_.data(), text_.size());
    return close(std::exchange(fd, -1)) == 0 && is_written;
  }

 private:
  int fd;
};

// A failed pass also ends with the 100 ms pause: a missing configuration must neither spin the CPU
// nor flood the log.
struct PauseAtEnd {
  PauseAtEnd() = default;
  PauseAtEnd(const PauseAtEnd&) = delete;
  PauseAtEnd& operator=(const PauseAtEnd&) = delete;
  ~PauseAtEnd() { usleep(kPassPause); }
};

}  // namespace

struct Vocastra::Impl {
  ~Impl();

  void CreateResources();
  void Run();

  void Configure();
  void ConfigureDirectories(const XMLElement& root_);
  void ConfigureDirectory(const XMLElement& element_, const std::string& id_,
                          std::set<std::string>& new_ids_);
  void DeleteDirectory(const std::string& id_);
  void DeleteDirectoriesNotIn(const std::set<std::string>& new_ids_);
  void RankDirectories();
  void ConfigureParsers(const XMLElement& root_);
  void ConfigureParser(const XMLElement& element_);
  void AttachParsers();
  void ApplyState(const std::string& new_state_);
  void ClearFileParsers();

  void CheckGlossary();
  void ProcessInputDirectories();

  bool ProcessSnippet();
  bool HasRoomForOutput();
  InputDirectory* ChooseDirectory();
  bool WriteSnippet(const std::list<std::string>& words_, bool is_start_);
  bool Translate(const std::string& arguments_, const std::string& message_filename_) const;
  bool DeliverClips(const InputDirectory& directory_);
  void DeliverClip(const std::string& path_, const std::string& name_);
  void Deliver(const std::string& path_, const std::string& name_);
  std::string OutputFileName(const std::string& folder_id_, bool is_bumper_, bool is_silence_,
                             int is_preview_, bool start_of_message_);

  void DumpStatus();

  std::string config_file_path;
  std::string status_file_path;
  std::string output_directory_path;
  std::string translator_file_path;
  std::string glossary_file_path;
  std::string cifs_helper_script_path;
  std::string ftp_helper_app_path;
  int text_snippet_word_limit = 0;          // NOMUTATE(constant): the constructor sets it.
  int output_file_count_limit = 0;          // NOMUTATE(constant): the constructor sets it.
  std::optional<uint16_t> config_file_crc;  // Of the configuration in force; none: load it.
  std::map<std::string, std::unique_ptr<InputDirectory>> id_to_directory;
  std::multimap<int, std::string> priority_to_directory_id;
  std::string state;
  std::string temp_input_path;                  // The snippet's text, for the translator.
  std::string temp_output_path;                 // The translator's audio.
  std::unique_ptr<Directory> output_directory;  // Null: none was given.
  std::unique_ptr<Glossary> glossary;
  int active_message_id = 0;  // The message being spoken; 0: none.
  uint32_t next_output_snippet = 0;
  int status_timestamp = 0;  // Counts writes of the status file.
  bool output_bound = false;
  std::map<std::string, std::unique_ptr<FileParser>> id_to_file_parser;
};

void Vocastra::Impl::CreateResources() {
  temp_input_path = CreateTemporaryFile("text");
  temp_output_path = CreateTemporaryFile("speech");
  if (!output_directory_path.empty()) {
    output_directory = std::make_unique<Directory>(output_directory_path);
  }
}

Vocastra::Impl::~Impl() {
  while (!id_to_directory.empty()) {  // In ascending order, which clear() does not guarantee.
    id_to_directory.erase(id_to_directory.begin());
  }
  ClearFileParsers();  // NOMUTATE(call): the first members destroyed are the parsers.
  unlink(temp_input_path.c_str());
  unlink(temp_output_path.c_str());
}

void Vocastra::Impl::Run() {
  const PauseAtEnd pause;
  Configure();
  CheckGlossary();
  ProcessInputDirectories();
  bool made_snippet = false;
  while (ProcessSnippet()) {
    made_snippet = true;
    usleep(kPassPause);
    ProcessInputDirectories();
    DumpStatus();
  }
  if (!made_snippet) {
    DumpStatus();
  }
}

// Applies the configuration file if it has changed. A string thrown before anything is changed
// leaves the old configuration in force. After a load that failed halfway none is in force: the
// file is loaded in the next pass even if it has not changed.
void Vocastra::Impl::Configure() {
  const uint16_t new_config_file_crc = FileCRC(config_file_path);
  if (config_file_crc == new_config_file_crc) {
    return;
  }
  const std::unique_ptr<XMLElement> root = LoadXMLTree(config_file_path, "tts-config");
  Debug(kDebugNormal, "Processing configuration %s", config_file_path.c_str());
  const std::string new_state = root->GetAttributeString("state");
  config_file_crc.reset();
  ConfigureDirectories(*root);
  RankDirectories();
  ConfigureParsers(*root);
  AttachParsers();
  ApplyState(new_state);
  config_file_crc = new_config_file_crc;
}

void Vocastra::Impl::ConfigureDirectories(const XMLElement& root_) {
  std::set<std::string> new_ids;
  for (const XMLElement* element : root_.GetChildren("directory")) {
    std::string id;
    try {
      id = element->GetAttributeString("id");
      ConfigureDirectory(*element, id, new_ids);
    } catch (const std::string& e) {
      Debug(kDebugNormal, "Skipped directory %s: %s", id.c_str(), e.c_str());
    }
  }
  DeleteDirectoriesNotIn(new_ids);
}

// Keeps the directory if its element is unchanged, so that a reload does not disturb messages
// that are being spoken; otherwise builds a new one. Of several elements with one id the first
// counts.
void Vocastra::Impl::ConfigureDirectory(const XMLElement& element_, const std::string& id_,
                                        std::set<std::string>& new_ids_) {
  if (!new_ids_.insert(id_).second) {
    Debug(kDebugNormal, "Duplicate directory ID \"%s\"", id_.c_str());
    return;
  }
  const auto existing = id_to_directory.find(id_);
  if (existing != id_to_directory.end()) {
    if (existing->second->IsIdentical(element_)) {
      return;
    }
    DeleteDirectory(id_);
  }
  id_to_directory.emplace(
      id_, std::make_unique<InputDirectory>(element_, cifs_helper_script_path, ftp_helper_app_path,
                                            text_snippet_word_limit));
  Debug(kDebugNormal, "Created new input directory %s", id_.c_str());
}

void Vocastra::Impl::DeleteDirectory(const std::string& id_) {
  id_to_directory.erase(id_);
  Debug(kDebugNormal, "Deleted input directory %s", id_.c_str());
}

void Vocastra::Impl::DeleteDirectoriesNotIn(const std::set<std::string>& new_ids_) {
  for (auto next = id_to_directory.begin(); next != id_to_directory.end();) {
    const std::string id = next->first;
    ++next;
    if (new_ids_.count(id) == 0) {
      DeleteDirectory(id);
    }
  }
}

void Vocastra::Impl::RankDirectories() {
  priority_to_directory_id.clear();
  for (const auto& [id, directory] : id_to_directory) {
    priority_to_directory_id.emplace(directory->GetPriority(), id);
  }
}

void Vocastra::Impl::ConfigureParsers(const XMLElement& root_) {
  for (const auto& [id, directory] : id_to_directory) {
    directory->SetFileParser(nullptr);  // NOMUTATE(call): not scanned before it has a new one.
  }
  ClearFileParsers();
  for (const char* encoding : kEncodings) {
    id_to_file_parser.emplace(std::string("text-") + encoding,
                              std::make_unique<TextFileParser>(encoding));
  }
  for (const XMLElement* element : root_.GetChildren("parser")) {
    ConfigureParser(*element);
  }
}

void Vocastra::Impl::ConfigureParser(const XMLElement& element_) {
  const std::string id = element_.GetAttributeString("id");
  // The bare id is looked up among encoded ones, so only an id such as "text-utf8" is reported.
  // Of two parsers with the same bare id the first wins silently.
  if (id_to_file_parser.count(id) != 0) {
    Debug(kDebugNormal, "Duplicate parser ID \"%s\"", id.c_str());
    return;
  }
  const std::string type = element_.GetAttributeString("type");
  if (type != "xml") {
    Debug(kDebugNormal, "Ignoring parser ID \"%s\"; type \"%s\" not supported", id.c_str(),
          type.c_str());
    return;
  }
  for (const char* encoding : kEncodings) {
    id_to_file_parser.emplace(id + "-" + encoding,
                              std::make_unique<XMLFileParser>(&element_, encoding));
  }
}

void Vocastra::Impl::AttachParsers() {
  for (const auto& [id, directory] : id_to_directory) {
    const std::string parser_id = directory->GetParserID();
    const std::string encoded_id =
        parser_id.empty() ? kDefaultParser : parser_id + "-" + directory->GetEncoding();
    const auto found = id_to_file_parser.find(encoded_id);
    const FileParser* parser = nullptr;
    if (found != id_to_file_parser.end()) {
      parser = found->second.get();
    } else {
      Debug(kDebugNormal, "Directory \"%s\" uses nonexistent parser \"%s\"", id.c_str(),
            encoded_id.c_str());
    }
    directory->SetFileParser(parser);
    Debug(kDebugNormal, "Directory \"%s\" using parser %p %s", id.c_str(),
          static_cast<const void*>(parser), encoded_id.c_str());
  }
}

void Vocastra::Impl::ApplyState(const std::string& new_state_) {
  if (new_state_ == state) {
    return;
  }
  if (new_state_ == "stop") {
    if (output_directory) {
      output_directory->ClearDirectoryLocked();
    }
    for (const auto& [id, directory] : id_to_directory) {
      directory->StopMessage();
    }
  }
  state = new_state_;
  Debug(kDebugNormal, "Now in \"%s\" state", state.c_str());
}

void Vocastra::Impl::ClearFileParsers() { id_to_file_parser.clear(); }

// Rebuilds the glossary in every pass, so that an edit takes effect in the next pass even if the
// file's checksum stays the same. The old glossary is kept only if the file's checksum is 0, as it
// is for a missing or an empty file.
void Vocastra::Impl::CheckGlossary() {
  if (glossary_file_path.empty()) {
    return;
  }
  if (glossary && FileCRC(glossary_file_path) == 0) {
    return;
  }
  glossary.reset();
  Debug(kDebugTrace, "Processing glossary %s", glossary_file_path.c_str());
  glossary = std::make_unique<Glossary>(glossary_file_path);
}

void Vocastra::Impl::ProcessInputDirectories() {
  for (const auto& [id, directory] : id_to_directory) {
    directory->Process();
  }
}

// Makes one snippet. False if there is nothing to do or a step failed.
bool Vocastra::Impl::ProcessSnippet() {
  if (state != "run" || !HasRoomForOutput()) {
    return false;
  }
  InputDirectory* const directory = ChooseDirectory();
  if (directory == nullptr) {
    active_message_id = 0;
    return false;
  }
  const bool is_start = directory->FirstPlayOfActiveMessage();
  active_message_id = directory->GetActiveMessageID();
  const std::string message_filename = directory->GetActiveMessageFilename();
  std::list<std::string> words = directory->GetWords();
  if (glossary) {
    for (std::string& word : words) {
      word = glossary->SubstituteSpeech(word);
    }
  }
  // Words whose translation fails are lost: an announcement with a gap is better than one that
  // blocks all others.
  if (!WriteSnippet(words, is_start) ||
      !Translate(directory->GetTranslatorArguments(), message_filename)) {
    return false;
  }
  if (is_start && !DeliverClips(*directory)) {
    return true;
  }
  if (output_directory) {
    Deliver(temp_output_path, OutputFileName(directory->GetDisplayId(), false, false,
                                             directory->GetPreview(), is_start));
  }
  return true;
}

bool Vocastra::Impl::HasRoomForOutput() {
  if (!output_directory) {
    return true;
  }
  const bool is_full = output_directory->GetFileCountLocked() >= output_file_count_limit;
  if (is_full != output_bound) {
    Debug(kDebugNormal, "%s", is_full ? "Now output-bound" : "No longer output-bound");
    output_bound = is_full;
  }
  return !is_full;
}

// The directory with the smallest priority number that has an active message; null if none has.
InputDirectory* Vocastra::Impl::ChooseDirectory() {
  for (const auto& [priority, id] : priority_to_directory_id) {
    InputDirectory* const directory = id_to_directory.at(id).get();
    const int message_id = directory->GetActiveMessageID();
    Debug(kDebugTrace, "Directory %s reports an active message ID of %d", id.c_str(), message_id);
    if (message_id != 0) {
      Debug(kDebugTrace, "Highest priority directory is %s", id.c_str());
      return directory;
    }
  }
  return nullptr;
}

// False if the text could not be written, or only a part of it. Everybody can write to the file's
// directory: a link in its place is not followed, and a file that was removed is created again with
// the same private mode.
bool Vocastra::Impl::WriteSnippet(const std::list<std::string>& words_, bool is_start_) {
  std::string text = is_start_ ? kPauseTag : "";
  for (const std::string& word : words_) {
    text += word + " ";
  }
  OutputFile file(temp_input_path, O_NOFOLLOW, S_IRUSR | S_IWUSR);
  if (!file.IsOpen() || !file.Write(text)) {
    Debug(kDebugNormal, "Could not open temporary file \"%s\" for writing",
          temp_input_path.c_str());
    return false;
  }
  return true;
}

bool Vocastra::Impl::Translate(const std::string& arguments_,
                               const std::string& message_filename_) const {
  const std::string command = Format(
      "%s %s %s %s \"%s\" > /dev/null 2>&1", translator_file_path.c_str(), temp_input_path.c_str(),
      temp_output_path.c_str(), arguments_.c_str(), message_filename_.c_str());
  // Format returns the empty string if there is no memory; an empty command would count as done.
  Debug(kDebugNormal, "calling engine");
  const int status = command.empty() ? -1 : RunShell(command);
  Debug(kDebugNormal, "done calling engine");
  if (CommandFailed(status)) {
    Debug(kDebugNormal, "Could not execute \"%s\"", command.c_str());
    return false;
  }
  return true;
}

// Delivers the clips at the start of a message: spacer and bumper, then silence. The spacer goes
// with the bumper, whether or not a spacer is configured. False if there is a silence clip but
// nowhere to put it.
bool Vocastra::Impl::DeliverClips(const InputDirectory& directory_) {
  const std::string display_id = directory_.GetDisplayId();
  const int preview = directory_.GetPreview();
  if (!directory_.GetBumperPath().empty() && output_directory) {
    for (const std::string& path : {directory_.GetSpacerPath(), directory_.GetBumperPath()}) {
      // NOMUTATE(constant): clips are "first" anyway.
      DeliverClip(path, OutputFileName(display_id, true, false, preview, false));
    }
  }
  if (!directory_.GetSilencePath().empty()) {
    if (!output_directory) {
      return false;
    }
    DeliverClip(directory_.GetSilencePath(),
                // NOMUTATE(constant): one flag makes a clip.
                OutputFileName(display_id, true, true, preview, false));
  }
  return true;
}

void Vocastra::Impl::DeliverClip(const std::string& path_, const std::string& name_) {
  Deliver(path_, name_);
  usleep(kClipPause);
}

void Vocastra::Impl::Deliver(const std::string& path_, const std::string& name_) {
  Debug(kDebugNormal, "copying %s", name_.c_str());
  output_directory->CopyIntoDirectoryLocked(path_, name_);
}

// The name of the next output file; each call uses up a number.
std::string Vocastra::Impl::OutputFileName(const std::string& folder_id_, bool is_bumper_,
                                           bool is_silence_, int is_preview_,
                                           bool start_of_message_) {
  const bool is_clip = is_bumper_ || is_silence_;
  std::string name = Format("%u_%s.", next_output_snippet++, folder_id_.c_str());
  name += is_clip ? "warn_" : "text_";
  name += is_preview_ != 0 ? "pre_" : "live_";
  name += is_clip || start_of_message_ ? "first" : "cont";
  name += is_clip ? ".wav" : ".raw";
  return name;
}

// Rewrites the status file in place: a reader that sees half of it tries again.
void Vocastra::Impl::DumpStatus() {
  if (status_file_path.empty()) {
    return;
  }
  // NOMUTATE(constant): 1 is O_WRONLY, which is given.
  OutputFile file(status_file_path, 0, kStatusFileMode);
  if (!file.IsOpen()) {
    Debug(kDebugNormal, "Could not open \"%s\" for writing", status_file_path.c_str());
    return;
  }
  XMLElement root("tts-status");
  root.SetAttributeInteger("timestamp", status_timestamp++);
  root.SetAttributeInteger("now-playing", active_message_id);
  root.SetAttributeString("state", state);
  root.SetAttributeInteger("output-bound", output_bound ? 1 : 0);
  for (const auto& [id, directory] : id_to_directory) {
    root.AddChild(directory->GetStatus());
  }
  // As one text, because a stream on the file would cost two more system calls per pass.
  file.Write(root.DumpToString(""));  // If there is no room, a later pass writes it.
}

Vocastra::Vocastra(const std::string& config_file_path_, const std::string& status_file_path_,
                   const std::string& output_directory_path_,
                   const std::string& translator_file_path_, const std::string& glossary_file_path_,
                   const std::string& cifs_helper_script_path_,
                   const std::string& ftp_helper_app_path_, int text_snippet_word_limit_,
                   int output_file_count_limit_) {
  auto player = std::make_unique<Impl>();
  player->config_file_path = config_file_path_;
  player->status_file_path = status_file_path_;
  player->output_directory_path = output_directory_path_;
  player->translator_file_path = translator_file_path_;
  player->glossary_file_path = glossary_file_path_;
  player->cifs_helper_script_path = cifs_helper_script_path_;
  player->ftp_helper_app_path = ftp_helper_app_path_;
  player->text_snippet_word_limit = text_snippet_word_limit_;
  player->output_file_count_limit = output_file_count_limit_;
  player->CreateResources();
  impl = player.release();
}

Vocastra::~Vocastra() { delete impl; }

void Vocastra::Run() { impl->Run(); }

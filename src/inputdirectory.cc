#include "inputdirectory.h"

#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <exception>
#include <map>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "charencoding.h"
#include "crc.h"
#include "debug.h"
#include "directory.h"
#include "fileparser.h"
#include "format.h"
#include "xml.h"

namespace {

constexpr size_t kMaxMessageChars = 65536;  // Code points.
constexpr size_t kMaxWordChars = 100;       // Code points.

constexpr int kUpdateTimeout = 5;              // Seconds; for "ftp" the poll rate is added.
constexpr unsigned int kHelperStopTime = 2;    // Seconds that a helper gets after SIGTERM.
constexpr char kWatchPrefix[] = "/tmp/watch";  // Nothing else is ever removed as a whole.

// Where the character of valid UTF-8 at p ends.
const char* NextCharacter(const char* p) {
  const auto lead = static_cast<unsigned char>(*p);
  return p + (lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4);
}

// The first limit characters of valid UTF-8.
std::string_view FirstCharacters(std::string_view text, size_t limit) {
  if (text.size() <= limit) {
    return text;  // A character has a byte at least.
  }
  const char* const end = text.data() + text.size();
  const char* next = text.data();
  for (size_t chars = 0; chars < limit && next < end; ++chars) {
    next = NextCharacter(next);
  }
  return text.substr(0, static_cast<size_t>(next - text.data()));
}

// Logs the message once for each of the characters, which were dropped.
void LogDropped(std::string_view characters, const char* message) {
  const char* const end = characters.data() + characters.size();
  for (const char* next = characters.data(); next < end; next = NextCharacter(next)) {
    Debug(kDebugNormal, "%s", message);
  }
}

// Splits valid UTF-8 into words within the limits.
//
// There is no limit on the number of words: each takes at least one of the characters that are
// looked at.
std::vector<std::string_view> SplitIntoWords(std::string_view whole_text) {
  const std::string_view text = FirstCharacters(whole_text, kMaxMessageChars);
  std::vector<std::string_view> words = Utf8FindWords(text);
  for (std::string_view& word : words) {
    if (word.size() > kMaxWordChars) {  // Bytes: no more characters than these.
      const std::string_view whole_word = word;
      word = FirstCharacters(whole_word, kMaxWordChars);
      LogDropped(whole_word.substr(word.size()), "Word too long");
    }
  }
  LogDropped(whole_text.substr(text.size()), "Too many characters");
  return words;
}

bool EndsSnippet(std::string_view word) { return word.back() == '.' || word.back() == ','; }

std::string WordsToString(const std::vector<std::string_view>& words) {
  return ListToString(std::list<std::string>(words.begin(), words.end()));
}

void RemoveContents(const std::string& path) {
  Debug(kDebugNormal, "Removing contents of directory %s", path.c_str());
  RunCommand(Format("rm %s/* > /dev/null 2>&1", path.c_str()));
}

// Makes this forked child the helper. No signal is blocked, whatever the daemon was started with;
// exec makes those that the daemon catches as usual again. Those that were ignored when the daemon
// started, as under nohup, stay ignored.
[[noreturn]] void BecomeHelper(const char* kind, const std::vector<const char*>& arguments) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execv(arguments[0], const_cast<char* const*>(arguments.data()));
  Debug(kDebugNormal, "Unable to fork %s helper", kind);
  _exit(255);
}

// Starts the helper; arguments[0] is its path. Returns its process id, 0 if it could not be forked.
pid_t StartHelper(const char* kind, const std::vector<std::string>& arguments) {
  // Everything that could fail is done before the fork.
  std::vector<const char*> argument_pointers;
  argument_pointers.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    argument_pointers.push_back(argument.c_str());
  }
  argument_pointers.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    BecomeHelper(kind, argument_pointers);
  }
  if (pid < 0) {
    // No process: -1 must not be kept, as a signal sent to it would end every process there is.
    Debug(kDebugNormal, "Could not fork %s helper: %s", kind, strerror(errno));
    return 0;
  }
  return pid;
}

}  // namespace

struct InputDirectory::Impl {
  using FileMap = std::map<std::string, uint16_t>;  // Known files and the CRCs of their texts.

  Impl(const XMLElement& element_, const std::string& cifs_helper_script_path_,
       const std::string& ftp_helper_app_path_, int text_snippet_word_limit_);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void ReadAttributes();
  void OpenLocal();
  void OpenCifs(const std::string& helper_path);
  void OpenFtp(const std::string& helper_path);
  void RemoveWatchDirectory() const;
  bool IsRemote() const { return type == "cifs" || type == "ftp"; }

  void Process();
  void CheckAvailability(const std::string& dirpath);
  void IndexFiles(const std::string& dirpath);
  void IndexFile(const std::string& path, const std::string& name, FileMap::iterator& known);
  void ForgetVanishedFiles();
  void ProcessCacheQueue(const std::string& dirpath);
  void TakeMessage(const std::string& dirpath);
  bool ParseMessage(const std::string& path);
  bool DisposeOfMessageFile(const std::string& path, const std::string& name);
  bool RemoveFile(const std::string& path) const;
  void CopyToLastPlayed(const std::string& path, const std::string& name) const;

  std::list<std::string> GetWords();
  void RestartMessage();
  void StopMessage();
  int CountUpdatedFiles() const;

  static int last_message_id;  // The last id handed out by any directory.

  XMLElement config;
  int text_snippet_word_limit;
  std::string id;
  std::string display_id;
  std::string parser_id;
  std::string encoding;
  int priority = 0;
  int loops = 1;
  std::string type;
  std::string rootdir;
  std::string subdir;
  std::string conv_opts;
  std::string last_played_path;
  std::string bumper_path;
  std::string spacer_path;
  std::string silence_path;
  std::string dir_mode;
  int auto_delete = 0;
  bool available = false;                   // The directory currently delivers updates.
  int ftp_poll_rate = 5;                    // Seconds.
  const FileParser* file_parser = nullptr;  // Not owned.
  bool active_message_first_play = true;
  int active_message_id = 0;  // 0: none.
  std::string active_message_filename;
  int active_message_plays = 0;                        // Completed plays.
  std::string active_message_text;                     // Valid UTF-8.
  std::vector<std::string_view> active_message_words;  // Ranges of active_message_text.
  size_t active_message_position = 0;                  // Of the next word.
  std::list<std::string> all_file_names;               // Of the last scan, in byte order.
  std::list<std::string> updated_file_names;           // To be taken, oldest first.
  time_t last_timestamp_file_update = 0;  // When the helper's file last changed; 0: never.
  uint16_t timestamp_file_crc = 0;        // Of the helper's file at that time.
  int preview = 0;
  FileMap file_map;
  bool first_pass = true;  // No scan has been completed while the directory was available.
  pid_t helper_pid = 0;    // 0: none.
};

int InputDirectory::Impl::last_message_id = 0;

InputDirectory::Impl::Impl(const XMLElement& element_, const std::string& cifs_helper_script_path_,
                           const std::string& ftp_helper_app_path_, int text_snippet_word_limit_)
    : text_snippet_word_limit(text_snippet_word_limit_) {
  config = element_;
  ReadAttributes();
  if (!last_played_path.empty()) {
    RemoveContents(last_played_path);
  }
  type = config.GetAttributeString("type", "");
  try {
    if (type == "local") {
      OpenLocal();
    } else if (type == "cifs") {
      OpenCifs(cifs_helper_script_path_);
    } else if (type == "ftp") {
      OpenFtp(ftp_helper_app_path_);
    }
  } catch (...) {
    RemoveWatchDirectory();
    throw;
  }
}

// The helper is not waited for: one that does not end in time must not hold up the daemon. One that
// has ended is collected, or every reload would add a zombie; no earlier than here, as its number
// could then be another process's by the time of the signal.
InputDirectory::Impl::~Impl() {
  if (helper_pid != 0) {
    Debug(kDebugNormal, "Sending SIGTERM to PID %u", static_cast<unsigned int>(helper_pid));
    kill(helper_pid, SIGTERM);
    sleep(kHelperStopTime);
    waitpid(helper_pid, nullptr, WNOHANG);
  }
  RemoveWatchDirectory();
}

void InputDirectory::Impl::RemoveWatchDirectory() const {
  if (!IsRemote() || rootdir.compare(0, strlen(kWatchPrefix), kWatchPrefix) != 0) {
    return;
  }
  Debug(kDebugNormal, "Removing temporary directory %s", rootdir.c_str());
  try {
    RunCommand(Format("rm -rf %s", rootdir.c_str()));
  } catch (const std::exception& e) {  // No memory. A destructor must not throw.
    Debug(kDebugNormal, "%s", e.what());
  }
}

void InputDirectory::Impl::ReadAttributes() {
  id = config.GetAttributeString("id", "");
  display_id = config.GetAttributeString("display-id", id);
  parser_id = config.GetAttributeString("parser", "");
  encoding = config.GetAttributeString("encoding", "");
  priority = config.GetAttributeInteger("priority", 0);
  loops = config.GetAttributeInteger("loops", 1);
  subdir = config.GetAttributeString("subdir", "");
  conv_opts = config.GetAttributeString("conv-opts", "");
  preview = config.GetAttributeInteger("preview", 0);
  last_played_path = config.GetAttributeString("last-played-path", "");
  bumper_path = config.GetAttributeString("bumper-path", "");
  spacer_path = config.GetAttributeString("spacer-path", "");
  silence_path = config.GetAttributeString("silence-path", "");
  dir_mode = config.GetAttributeString("dir-mode", "");
  auto_delete = config.GetAttributeInteger("auto-delete", 0);
  ftp_poll_rate = config.GetAttributeInteger("ftp-poll-rate", 5);
}

void InputDirectory::Impl::OpenLocal() {
  rootdir = config.GetAttributeString("path", "");
  if (!rootdir.empty()) {
    RemoveContents(rootdir);
  }
}

// The order of the helpers' arguments is their contract. It differs between the two.
void InputDirectory::Impl::OpenCifs(const std::string& helper_path) {
  if (helper_path.empty()) {
    throw Format("Ignoring CIFS mount; no CIFS helper directory");
  }
  rootdir = CreateTemporaryDirectory("watch");
  helper_pid = StartHelper(
      "CIFS", {helper_path, config.GetAttributeString("path", ""),
               config.GetAttributeString("username", ""), config.GetAttributeString("password", ""),
               subdir, rootdir, config.GetAttributeString("mount-opts", ""),
               Format("%u", static_cast<unsigned int>(auto_delete))});
}

void InputDirectory::Impl::OpenFtp(const std::string& helper_path) {
  if (helper_path.empty()) {
    throw Format("Ignoring FTP dir; no FTP helper directory");
  }
  rootdir = CreateTemporaryDirectory("watch");
  helper_pid = StartHelper(
      "FTP", {helper_path, config.GetAttributeString("path", ""), subdir,
              config.GetAttributeString("username", ""), config.GetAttributeString("password", ""),
              rootdir, Format("%u", static_cast<unsigned int>(auto_delete)),
              Format("%u", static_cast<unsigned int>(ftp_poll_rate)),
              config.GetAttributeString("ftp-mode", "passive")});
}

void InputDirectory::Impl::Process() {
  const std::string dirpath = AddTrailingSlash(rootdir) + AddTrailingSlash(subdir);
  if (IsRemote()) {
    CheckAvailability(dirpath);
  }
  all_file_names = Directory(dirpath).GetFileNames();
  if (type == "local") {
    available = true;
  }
  if (file_parser != nullptr) {
    IndexFiles(dirpath);
  }
  ForgetVanishedFiles();
  if (available) {
    // Files that were there before the directory first became available are known by now, but
    // were not queued: old messages are not announced.
    first_pass = false;
  }
  if (dir_mode == "cache") {
    ProcessCacheQueue(dirpath);
    return;
  }
  while (active_message_id == 0 && !updated_file_names.empty()) {
    TakeMessage(dirpath);
  }
}

// A remote directory delivers updates as long as its helper rewrites the timestamp file with new
// content. A missing or unreadable file, whose checksum is 0, is no update.
void InputDirectory::Impl::CheckAvailability(const std::string& dirpath) {
  const uint16_t crc = FileCRC(dirpath + ".helper.timestamp");
  const time_t now = time(nullptr);
  if (crc != 0 && (last_timestamp_file_update == 0 || crc != timestamp_file_crc)) {
    last_timestamp_file_update = now;
    timestamp_file_crc = crc;
    if (!available) {
      Debug(kDebugNormal, "Directory %s is receiving updates", dirpath.c_str());
      available = true;
    }
  }
  const time_t timeout = kUpdateTimeout + (type == "ftp" ? time_t{ftp_poll_rate} : 0);
  if (available && now - last_timestamp_file_update > timeout) {
    Debug(kDebugNormal, "Directory %s is no longer receiving updates", dirpath.c_str());
    available = false;
  }
}

// Names and known files are both in byte order, so the files are found by one merge, and the path
// is built in one place: with thousands of files, look-ups and heap requests for each would cost
// more than their reading.
void InputDirectory::Impl::IndexFiles(const std::string& dirpath) {
  std::string path = dirpath;
  auto known = file_map.begin();
  for (const std::string& name : all_file_names) {
    path.replace(dirpath.size(), std::string::npos, name);
    IndexFile(path, name, known);
  }
}

// Notes the file's checksum and queues it if its text is new or has changed. known is moved on to
// the file's entry, or to where it would stand. REQUIRES: known is not past that.
void InputDirectory::Impl::IndexFile(const std::string& path, const std::string& name,
                                     FileMap::iterator& known) {
  std::string text;
  try {
    text = file_parser->ParseFile(path);
  } catch (const std::string& e) {
    Debug(kDebugNormal, "Indexing %s", e.c_str());
    return;
  }
  const uint16_t new_crc = CRC(0, reinterpret_cast<const uint8_t*>(text.data()), text.size());
  int order = -1;
  while (known != file_map.end() && (order = known->first.compare(name)) < 0) {
    ++known;
  }
  const bool is_known = known != file_map.end() && order == 0;
  if (is_known && known->second == new_crc && (preview == 0 || type != "local")) {
    return;
  }
  // Made first: a file that is noted as known but not queued, for lack of memory, would be lost.
  std::list<std::string> queued;
  if (!first_pass && !text.empty()) {
    queued.push_back(name);
  }
  if (is_known) {
    Debug(kDebugNormal, "Updating %s in file_map", name.c_str());
    known->second = new_crc;
  } else {
    Debug(kDebugNormal, "Adding %s %u to file_map", name.c_str(), unsigned{new_crc});
    known = file_map.emplace_hint(known, name, new_crc);
  }
  updated_file_names.splice(updated_file_names.end(), queued);
}

void InputDirectory::Impl::ForgetVanishedFiles() {
  auto name = all_file_names.begin();
  for (auto known = file_map.begin(); known != file_map.end();) {
    while (name != all_file_names.end() && *name < known->first) {
      ++name;
    }
    if (name != all_file_names.end() && *name == known->first) {
      ++known;
    } else {
      Debug(kDebugTrace, "Erasing %s from file_map", known->first.c_str());
      known = file_map.erase(known);
    }
  }
}

// In cache mode nothing is spoken; what arrives is kept in the last-played directory, or dropped.
void InputDirectory::Impl::ProcessCacheQueue(const std::string& dirpath) {
  while (!updated_file_names.empty()) {
    const std::string& name = updated_file_names.front();
    if (last_played_path.empty()) {
      RemoveFile(dirpath + name);
    } else {
      CopyToLastPlayed(dirpath + name, name);
    }
    updated_file_names.pop_front();
  }
}

// Consumes the front of the queue. It becomes the active message if it has words.
void InputDirectory::Impl::TakeMessage(const std::string& dirpath) {
  std::string name = updated_file_names.front();
  const std::string path = dirpath + name;
  if (ParseMessage(path) && IsDebugEnabled(kDebugTrace)) {
    Debug(kDebugTrace, "From %s: %s", path.c_str(), WordsToString(active_message_words).c_str());
  }
  if (!DisposeOfMessageFile(path, name)) {
    // It would come back with the next change or restart: better unheard than heard for ever.
    active_message_words.clear();
  }
  // Nothing from here on needs memory: the file is gone, and its message must not be lost.
  if (active_message_words.empty()) {
    StopMessage();  // Gives back what the text took.
  } else {
    active_message_first_play = true;
    active_message_id = ++last_message_id;
    active_message_filename.swap(name);
    active_message_plays = 0;
    active_message_position = 0;
  }
  updated_file_names.pop_front();
}

// Makes active_message_words the words of the file. False if the parser throws; no words then.
bool InputDirectory::Impl::ParseMessage(const std::string& path) {
  active_message_words.clear();
  std::string text;
  if (file_parser != nullptr) {
    try {
      text = file_parser->ParseFile(path);
    } catch (const std::string& e) {
      Debug(kDebugTrace, "Processing %s: %s", path.c_str(), e.c_str());
      return false;
    }
    Debug(kDebugTrace, "Parser returned: \"%s\"", text.c_str());
  }
  active_message_text =
      ToValidUtf8(std::move(text), kDebugTrace, "Re-encoding invalid parser output to UTF-8");
  active_message_words = SplitIntoWords(active_message_text);
  return true;
}

// Removes a taken file, or copies it to the last-played directory, which then holds it alone.
// Without a last-played directory the file goes whatever auto-delete says.
// False if the file should be gone and is not.
bool InputDirectory::Impl::DisposeOfMessageFile(const std::string& path, const std::string& name) {
  if (last_played_path.empty()) {
    return RemoveFile(path);
  }
  RunShell("rm " + last_played_path + "/* > /dev/null 2>&1");
  CopyToLastPlayed(path, name);
  return auto_delete == 0 || RemoveFile(path);
}

bool InputDirectory::Impl::RemoveFile(const std::string& path) const {
  if (unlink(path.c_str()) == 0) {
    return true;
  }
  Debug(kDebugNormal, "Could not remove %s", path.c_str());
  return false;
}

void InputDirectory::Impl::CopyToLastPlayed(const std::string& path,
                                            const std::string& name) const {
  RunShell("cp " + path + " " + AddTrailingSlash(last_played_path) + name);
}

std::list<std::string> InputDirectory::Impl::GetWords() {
  std::list<std::string> snippet;
  if (active_message_words.empty()) {
    active_message_first_play = false;
    StopMessage();
    return snippet;
  }
  // Looked at after a word was taken: even a limit of 0 or less makes progress.
  const int64_t limit = text_snippet_word_limit;
  const int64_t stretched_limit = 2 * limit;
  bool ended = false;
  size_t position = active_message_position;
  while (!ended && position < active_message_words.size()) {
    snippet.emplace_back(active_message_words[position++]);
    const int64_t taken = static_cast<int64_t>(snippet.size());
    ended = taken > limit && (taken >= stretched_limit || EndsSnippet(snippet.back()));
  }
  active_message_first_play = false;
  active_message_position = position;
  if (active_message_position == active_message_words.size()) {
    ++active_message_plays;
    if (active_message_plays < loops) {
      RestartMessage();
    } else {
      StopMessage();
    }
  }
  return snippet;
}

void InputDirectory::Impl::RestartMessage() { active_message_position = 0; }

void InputDirectory::Impl::StopMessage() {
  active_message_id = 0;
  active_message_filename.clear();
  active_message_plays = 0;
  // With their memory: the words of a long message take half a megabyte, in each directory.
  std::vector<std::string_view>().swap(active_message_words);
  std::string().swap(active_message_text);
  active_message_position = 0;
}

// In cache mode the queue is empty after every scan; what was kept is counted instead.
int InputDirectory::Impl::CountUpdatedFiles() const {
  if (dir_mode != "cache") {
    return static_cast<int>(updated_file_names.size());
  }
  return last_played_path.empty() ? 0 : Directory(last_played_path).GetFileCountLocked();
}

InputDirectory::InputDirectory(const XMLElement& element_,
                               const std::string& cifs_helper_script_path_,
                               const std::string& ftp_helper_app_path_,
                               int text_snippet_word_limit_)
    : impl(new Impl(element_, cifs_helper_script_path_, ftp_helper_app_path_,
                    text_snippet_word_limit_)) {}

InputDirectory::~InputDirectory() { delete impl; }

bool InputDirectory::IsIdentical(const XMLElement& element_) const {
  return impl->config == element_;
}

void InputDirectory::Process() { impl->Process(); }

std::list<std::string> InputDirectory::GetWords() { return impl->GetWords(); }

void InputDirectory::RestartMessage() { impl->RestartMessage(); }

void InputDirectory::StopMessage() { impl->StopMessage(); }

bool InputDirectory::FirstPlayOfActiveMessage() const { return impl->active_message_first_play; }

XMLElement* InputDirectory::GetStatus() const {
  auto status = std::make_unique<XMLElement>("directory");
  status->SetAttributeString("id", impl->id);
  status->SetAttributeString("status", impl->available ? "1" : "0");
  status->SetAttributeString("path", impl->rootdir);
  status->SetAttributeInteger("total-file-count", static_cast<int>(impl->all_file_names.size()));
  status->SetAttributeInteger("updated-file-count", impl->CountUpdatedFiles());
  if (impl->active_message_id != 0) {
    auto* message = new XMLElement("message");
    status->AddChild(message);
    message->SetAttributeInteger("id", impl->active_message_id);
    message->SetAttributeString("filename", impl->active_message_filename);
    message->SetAttributeInteger("plays", impl->active_message_plays);
  }
  return status.release();
}

int InputDirectory::GetPriority() const { return impl->priority; }

int InputDirectory::GetActiveMessageID() const { return impl->active_message_id; }

std::string InputDirectory::GetActiveMessageFilename() const {
  return impl->active_message_filename;
}

std::string InputDirectory::GetDisplayId() const { return impl->display_id; }

std::string InputDirectory::GetTranslatorArguments() const { return impl->conv_opts; }

int InputDirectory::GetPreview() const { return impl->preview; }

std::string InputDirectory::GetLastPlayedPath() const { return impl->last_played_path; }

std::string InputDirectory::GetBumperPath() const { return impl->bumper_path; }

std::string InputDirectory::GetSpacerPath() const { return impl->spacer_path; }

std::string InputDirectory::GetSilencePath() const { return impl->silence_path; }

std::string InputDirectory::GetParserID() const { return impl->parser_id; }

std::string InputDirectory::GetEncoding() const { return impl->encoding; }

void InputDirectory::SetFileParser(const FileParser* file_parser_) {
  impl->file_parser = file_parser_;
}

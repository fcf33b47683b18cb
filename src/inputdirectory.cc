#include "inputdirectory.h"

#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <utf8.h>

#include <map>
#include <memory>
#include <optional>
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
constexpr char kWatchPrefix[] = "/tmp/watch";  // Only such a directory is removed with rm -rf.

// NOMUTATE(constant): the tests of the daemon see the first id.
int last_message_id = 0;  // The last id handed out by any directory.

void RemoveContents(const std::string& path_) {
  Debug(kDebugNormal, "Removing contents of directory %s", path_.c_str());
  RunCommand(Format("rm %s/* > /dev/null 2>&1", path_.c_str()));
}

// Removes a file. False, with a log line, if it is still there.
bool RemoveFile(const std::string& path_) {
  if (unlink(path_.c_str()) == 0) {
    return true;
  }
  Debug(kDebugNormal, "Could not remove %s", path_.c_str());
  return false;
}

// The attributes of a "directory" element, or their defaults, in the order in which they are read:
// the first unusable one is reported.
struct Attributes {
  explicit Attributes(const XMLElement& element_)
      : id(element_.GetAttributeString("id", "")),
        display_id(element_.GetAttributeString("display-id", id)),
        parser_id(element_.GetAttributeString("parser", "")),
        encoding(element_.GetAttributeString("encoding", "")),
        priority(element_.GetAttributeInteger("priority", 0)),
        loops(element_.GetAttributeInteger("loops", 1)),  // NOMUTATE(constant): 0 also means once.
        subdir(element_.GetAttributeString("subdir", "")),
        conv_opts(element_.GetAttributeString("conv-opts", "")),
        preview(element_.GetAttributeInteger("preview", 0)),
        last_played_path(element_.GetAttributeString("last-played-path", "")),
        bumper_path(element_.GetAttributeString("bumper-path", "")),
        spacer_path(element_.GetAttributeString("spacer-path", "")),
        silence_path(element_.GetAttributeString("silence-path", "")),
        // NOMUTATE(text): all but "cache" are the same.
        dir_mode(element_.GetAttributeString("dir-mode", "")),
        auto_delete(element_.GetAttributeInteger("auto-delete", 0)),
        ftp_poll_rate(element_.GetAttributeInteger("ftp-poll-rate", 5)),
        type(element_.GetAttributeString("type", "")),
        path(element_.GetAttributeString("path", "")),
        username(element_.GetAttributeString("username", "")),
        password(element_.GetAttributeString("password", "")),
        mount_opts(element_.GetAttributeString("mount-opts", "")),
        ftp_mode(element_.GetAttributeString("ftp-mode", "passive")) {}

  bool IsLocal() const { return type == "local"; }
  bool IsCifs() const { return type == "cifs"; }
  bool IsFtp() const { return type == "ftp"; }
  bool IsCache() const { return dir_mode == "cache"; }

  std::string id;
  std::string display_id;
  std::string parser_id;
  std::string encoding;
  int priority;
  int loops;
  std::string subdir;
  std::string conv_opts;
  int preview;
  std::string last_played_path;
  std::string bumper_path;
  std::string spacer_path;
  std::string silence_path;
  std::string dir_mode;
  int auto_delete;
  int ftp_poll_rate;  // Seconds.
  std::string type;
  std::string path;
  std::string username;
  std::string password;
  std::string mount_opts;
  std::string ftp_mode;
};

// A private directory below "/tmp/", removed with everything in it.
class WatchDirectory {
 public:
  // Makes the command for the removal now, as there may be no memory for it later.
  WatchDirectory() : removal("rm -rf /tmp/watchXXXXXX"), path(CreateTemporaryDirectory("watch")) {
    removal.replace(strlen("rm -rf "), std::string::npos, path);  // The length does not change.
  }
  ~WatchDirectory() {
    if (path.compare(0, strlen(kWatchPrefix), kWatchPrefix) != 0) {
      return;
    }
    Debug(kDebugNormal, "Removing temporary directory %s", path.c_str());
    RunCommand(removal);
  }
  WatchDirectory(const WatchDirectory&) = delete;
  WatchDirectory& operator=(const WatchDirectory&) = delete;

  const std::string& Path() const { return path; }

 private:
  std::string removal;
  std::string path;
};

// A process that mirrors remote files into a watch directory.
class Helper {
 public:
  // Starts the helper; arguments_[0] is its path, kind_ its name in the log.
  Helper(const char* kind_, const std::vector<std::string>& arguments_);
  ~Helper();
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

 private:
  pid_t pid = 0;  // 0: the helper could not be started.
};

// Turns this forked child into the helper. Unblocks all signals, also those that were blocked when
// the daemon started. exec resets the signals that the daemon catches. Signals that were ignored
// when the daemon started, as under nohup, stay ignored.
[[noreturn]] void BecomeHelper(const char* kind_, const std::vector<const char*>& arguments_) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execv(arguments_[0], const_cast<char* const*>(arguments_.data()));
  Debug(kDebugNormal, "Unable to fork %s helper", kind_);
  _exit(255);
}

Helper::Helper(const char* kind_, const std::vector<std::string>& arguments_) {
  // Everything that could fail is done before the fork.
  std::vector<const char*> pointers;
  // NOMUTATE(operator, constant, call): only saves requests to the heap.
  pointers.reserve(arguments_.size() + 1);
  for (const std::string& argument : arguments_) {
    pointers.push_back(argument.c_str());
  }
  pointers.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    BecomeHelper(kind_, pointers);
  }
  // NOMUTATE(operator, constant): the child, for which it is 0, does not come here.
  if (child < 0) {
    // Does not keep -1: a signal to it would go to every process.
    Debug(kDebugNormal, "Could not fork %s helper: %s", kind_, strerror(errno));
    return;
  }
  pid = child;
}

// Does not wait for the helper: a helper that ignores SIGTERM must not delay the daemon. Collects a
// helper that has ended, or every reload would leave a zombie. It is not collected earlier: another
// process could get its number before the signal is sent.
Helper::~Helper() {
  if (pid != 0) {
    Debug(kDebugNormal, "Sending SIGTERM to PID %u", static_cast<unsigned int>(pid));
    kill(pid, SIGTERM);
    sleep(kHelperStopTime);
    waitpid(pid, nullptr, WNOHANG);
  }
}

// Whether a directory delivers updates. A remote one does as long as its helper rewrites the
// timestamp file with new content.
struct Availability {
  void Check(const std::string& dirpath_, time_t timeout_);

  bool available = false;
  // NOMUTATE(constant): crc is 0 until the first update, whose own is not.
  time_t last_update = 0;  // When the timestamp file last changed; 0: never.
  // NOMUTATE(constant): not read before it is set.
  uint16_t crc = 0;  // Of the timestamp file at that time.
};

// timeout_ in seconds. A missing or unreadable file, whose checksum is 0, is no update.
void Availability::Check(const std::string& dirpath_, time_t timeout_) {
  const uint16_t new_crc = FileCRC(dirpath_ + ".helper.timestamp");
  const time_t now = time(nullptr);
  // NOMUTATE(constant): as in the declaration of last_update.
  if (new_crc != 0 && (last_update == 0 || new_crc != crc)) {
    last_update = now;
    crc = new_crc;
    if (!available) {
      Debug(kDebugNormal, "Directory %s is receiving updates", dirpath_.c_str());
      available = true;
    }
  }
  if (available && now - last_update > timeout_) {
    Debug(kDebugNormal, "Directory %s is no longer receiving updates", dirpath_.c_str());
    available = false;
  }
}

// The files of a directory: those of the last scan, the checksums of their texts, and the queue of
// new and changed ones.
struct FileIndex {
  using Known = std::map<std::string, uint16_t>;

  void Update(const std::string& dirpath_, const FileParser& parser_, bool always_changed_);
  void UpdateFile(const std::string& path_, const std::string& name_, const FileParser& parser_,
                  bool always_changed_, Known::iterator& next_);
  void ForgetVanished();

  std::list<std::string> names;   // Of the last scan, in byte order.
  Known known;                    // CRCs of the texts, by name.
  std::list<std::string> queued;  // New and changed, oldest first.
  bool first_pass = true;         // No scan was completed while the directory was available.
};

// Reads every file. always_changed_: each counts as changed even if its text is the same.
//
// Names and known files are both in byte order, so one merge finds the files, and all paths are
// built in one buffer: with thousands of files, a look-up and a heap request for each would cost
// more than reading them.
void FileIndex::Update(const std::string& dirpath_, const FileParser& parser_,
                       bool always_changed_) {
  std::string path = dirpath_;
  auto next = known.begin();
  for (const std::string& name : names) {
    path.replace(dirpath_.size(), std::string::npos, name);
    UpdateFile(path, name, parser_, always_changed_, next);
  }
}

// Notes the file's checksum and queues it if its text is new or has changed. next_ is moved on to
// the file's entry, or to where it belongs. REQUIRES: next_ is not past that.
void FileIndex::UpdateFile(const std::string& path_, const std::string& name_,
                           const FileParser& parser_, bool always_changed_,
                           Known::iterator& next_) {
  std::string text;
  try {
    text = parser_.ParseFile(path_);
  } catch (const std::string& e) {
    Debug(kDebugNormal, "Indexing %s", e.c_str());
    return;
  }
  const uint16_t crc = CRC(0, reinterpret_cast<const uint8_t*>(text.data()), text.size());
  int order = -1;  // NOMUTATE(constant): only compared with 0, after it was set.
  while (next_ != known.end() && (order = next_->first.compare(name_)) < 0) {
    ++next_;
  }
  const bool is_known = next_ != known.end() && order == 0;
  if (is_known && next_->second == crc && !always_changed_) {
    return;
  }
  // Allocated first: if memory ran out between the two steps, a file that is known but not queued
  // would be lost.
  std::list<std::string> to_queue;
  if (!first_pass && !text.empty()) {
    to_queue.push_back(name_);
  }
  if (is_known) {
    Debug(kDebugNormal, "Updating %s in file_map", name_.c_str());
    next_->second = crc;
  } else {
    Debug(kDebugNormal, "Adding %s %u to file_map", name_.c_str(), unsigned{crc});
    next_ = known.emplace_hint(next_, name_, crc);
  }
  queued.splice(queued.end(), to_queue);
}

void FileIndex::ForgetVanished() {
  auto name = names.begin();
  for (auto next = known.begin(); next != known.end();) {
    int order = 1;
    while (name != names.end() && (order = name->compare(next->first)) < 0) {
      ++name;
    }
    if (name != names.end() && order == 0) {
      ++next;
    } else {
      Debug(kDebugTrace, "Erasing %s from file_map", next->first.c_str());
      next = known.erase(next);
    }
  }
}

// Splits valid UTF-8 into words. The words are ranges of the text: a message may have tens of
// thousands of words, and copies would take one or two heap requests for each.
//
// Breaks and control characters end a word; punctuation stays at the end of the word that it
// follows. A punctuation mark right after another one, or at the beginning, is dropped: "Stop.."
// must not be read as "Stop. point". There is no limit on the number of words: each takes at least
// one of the characters that are looked at.
std::vector<std::string_view> SplitIntoWords(std::string_view text_) {
  std::vector<std::string_view> words;
  const char* word = text_.data();  // Where the current word begins.
  size_t word_bytes = 0;            // Without its characters beyond the limit.
  size_t word_chars = 0;
  size_t message_chars = 0;
  bool follows_punctuation = true;
  const char* const end = text_.data() + text_.size();
  for (const char* next = text_.data(); next < end;) {
    const char* const start = next;
    const uint32_t cp = utf8::unchecked::next(next);
    if (++message_chars > kMaxMessageChars) {
      Debug(kDebugNormal, "Too many characters");
      continue;
    }
    const bool is_gap = Utf8IsSpace(cp) || Utf8IsControl(cp);
    const bool is_punctuation = !is_gap && Utf8IsBreak(cp);
    if (!is_gap) {
      word = word_chars == 0 ? start : word;
      ++word_chars;
      if (word_chars > kMaxWordChars) {
        Debug(kDebugNormal, "Word too long");
      } else {
        word_bytes = static_cast<size_t>(next - word);
      }
    }
    if ((is_gap || is_punctuation) && word_chars > 0) {
      const bool is_lone_mark = is_punctuation && word_chars == 1;
      if (!is_lone_mark || !follows_punctuation) {
        words.emplace_back(word, word_bytes);
      }
      word_chars = 0;
    }
    follows_punctuation = is_punctuation;
  }
  if (word_chars > 0) {
    words.emplace_back(word, word_bytes);
  }
  return words;
}

std::string WordsToString(const std::vector<std::string_view>& words_) {
  return ListToString(std::list<std::string>(words_.begin(), words_.end()));
}

bool EndsSnippet(std::string_view word_) { return word_.back() == '.' || word_.back() == ','; }

// The message that is being spoken.
struct ActiveMessage {
  void SetText(std::string text_);
  void Begin(std::string& filename_);
  void Restart() { position = 0; }
  void Stop();
  std::list<std::string> TakeSnippet(int word_limit_, int loops_);

  int id = 0;              // 0: none.
  bool first_play = true;  // No words were taken yet.
  std::string filename;
  int plays = 0;                        // Completed. NOMUTATE(constant): Begin sets it.
  std::string text;                     // Valid UTF-8.
  std::vector<std::string_view> words;  // Ranges of text.
  size_t position = 0;                  // Of the next word. NOMUTATE(constant): Begin sets it.
};

// Splits the text into the words that Begin() makes the active message.
void ActiveMessage::SetText(std::string text_) {
  words.clear();  // Ranges of the old text. NOMUTATE(call): nobody takes words before Begin.
  text = ToValidUtf8(std::move(text_), kDebugTrace, "Re-encoding invalid parser output to UTF-8");
  words = SplitIntoWords(text);
}

// Requests no memory: the file may be removed already, and a failure would lose its message. So it
// swaps filename_ instead of copying it.
void ActiveMessage::Begin(std::string& filename_) {
  first_play = true;
  id = ++last_message_id;
  filename.swap(filename_);
  plays = 0;
  position = 0;
}

void ActiveMessage::Stop() {
  id = 0;
  filename.clear();
  plays = 0;  // NOMUTATE(constant): Begin sets it.
  // Free the memory too: a long message takes 0.5 MB per directory.
  std::vector<std::string_view>().swap(words);
  std::string().swap(text);
  position = 0;  // NOMUTATE(constant): Begin sets it.
}

// More than word_limit_ words, up to twice that number, to end at a full stop or comma.
std::list<std::string> ActiveMessage::TakeSnippet(int word_limit_, int loops_) {
  std::list<std::string> snippet;
  // Checked after a word is taken, so that a limit of 0 or less makes progress too.
  const int64_t limit = word_limit_;
  const int64_t stretched_limit = 2 * limit;
  bool ended = false;
  size_t next = position;
  while (!ended && next < words.size()) {
    snippet.emplace_back(words[next++]);
    const int64_t taken = static_cast<int64_t>(snippet.size());
    ended = taken > limit && (taken >= stretched_limit || EndsSnippet(snippet.back()));
  }
  first_play = false;
  position = next;
  if (position == words.size()) {
    ++plays;
    if (!words.empty() && plays < loops_) {
      Restart();
    } else {
      Stop();
    }
  }
  return snippet;
}

}  // namespace

struct InputDirectory::Impl {
  Impl(const XMLElement& element_, const std::string& cifs_helper_script_path_,
       const std::string& ftp_helper_app_path_, int text_snippet_word_limit_);

  void OpenLocal();
  void OpenCifs(const std::string& helper_path_);
  void OpenFtp(const std::string& helper_path_);

  void Process();
  void CheckAvailability(const std::string& dirpath_);
  void ProcessCacheQueue(const std::string& dirpath_);
  void TakeMessage(const std::string& dirpath_);
  void ReadMessage(const std::string& path_);
  bool DisposeOfMessageFile(const std::string& path_, const std::string& name_) const;
  void CopyToLastPlayed(const std::string& path_, const std::string& name_) const;
  int CountUpdatedFiles() const;

  XMLElement config;
  Attributes attributes;
  int text_snippet_word_limit;
  std::optional<WatchDirectory> watch_directory;  // Of a remote directory.
  std::optional<Helper> helper;                   // Destroyed before its watch directory.
  std::string rootdir;
  const FileParser* file_parser = nullptr;  // Not owned.
  Availability availability;
  FileIndex files;
  ActiveMessage message;
};

InputDirectory::Impl::Impl(const XMLElement& element_, const std::string& cifs_helper_script_path_,
                           const std::string& ftp_helper_app_path_, int text_snippet_word_limit_)
    : attributes(element_), text_snippet_word_limit(text_snippet_word_limit_) {
  config = element_;
  if (!attributes.last_played_path.empty()) {
    RemoveContents(attributes.last_played_path);
  }
  if (attributes.IsLocal()) {
    OpenLocal();
  } else if (attributes.IsCifs()) {
    OpenCifs(cifs_helper_script_path_);
  } else if (attributes.IsFtp()) {
    OpenFtp(ftp_helper_app_path_);
  }
}

void InputDirectory::Impl::OpenLocal() {
  rootdir = attributes.path;
  if (!rootdir.empty()) {
    RemoveContents(rootdir);
  }
}

// The order of the helpers' arguments is their contract. It differs between the two.
void InputDirectory::Impl::OpenCifs(const std::string& helper_path_) {
  if (helper_path_.empty()) {
    throw Format("Ignoring CIFS mount; no CIFS helper directory");
  }
  rootdir = watch_directory.emplace().Path();
  helper.emplace("CIFS", std::vector<std::string>{
                             helper_path_, attributes.path, attributes.username,
                             attributes.password, attributes.subdir, rootdir, attributes.mount_opts,
                             Format("%u", static_cast<unsigned int>(attributes.auto_delete))});
}

void InputDirectory::Impl::OpenFtp(const std::string& helper_path_) {
  if (helper_path_.empty()) {
    throw Format("Ignoring FTP dir; no FTP helper directory");
  }
  rootdir = watch_directory.emplace().Path();
  helper.emplace("FTP", std::vector<std::string>{
                            helper_path_, attributes.path, attributes.subdir, attributes.username,
                            attributes.password, rootdir,
                            Format("%u", static_cast<unsigned int>(attributes.auto_delete)),
                            Format("%u", static_cast<unsigned int>(attributes.ftp_poll_rate)),
                            attributes.ftp_mode});
}

void InputDirectory::Impl::Process() {
  const std::string dirpath = AddTrailingSlash(rootdir) + AddTrailingSlash(attributes.subdir);
  if (attributes.IsCifs() || attributes.IsFtp()) {
    CheckAvailability(dirpath);
  }
  files.names = Directory(dirpath).GetFileNames();
  if (attributes.IsLocal()) {
    availability.available = true;
  }
  if (file_parser != nullptr) {
    files.Update(dirpath, *file_parser, attributes.preview != 0 && attributes.IsLocal());
  }
  files.ForgetVanished();
  if (availability.available) {
    // Files from before the directory first became available are known, but were not queued: old
    // messages are not spoken.
    files.first_pass = false;
  }
  if (attributes.IsCache()) {
    ProcessCacheQueue(dirpath);
    return;
  }
  while (message.id == 0 && !files.queued.empty()) {
    TakeMessage(dirpath);
  }
}

void InputDirectory::Impl::CheckAvailability(const std::string& dirpath_) {
  const time_t poll_rate = attributes.IsFtp() ? attributes.ftp_poll_rate : 0;
  availability.Check(dirpath_, kUpdateTimeout + poll_rate);
}

// In cache mode nothing is spoken: queued files are copied to the last-played directory, or removed
// if there is none.
void InputDirectory::Impl::ProcessCacheQueue(const std::string& dirpath_) {
  while (!files.queued.empty()) {
    const std::string& name = files.queued.front();
    if (attributes.last_played_path.empty()) {
      RemoveFile(dirpath_ + name);
    } else {
      CopyToLastPlayed(dirpath_ + name, name);
    }
    files.queued.pop_front();
  }
}

// Consumes the front of the queue. It becomes the active message if it has words.
void InputDirectory::Impl::TakeMessage(const std::string& dirpath_) {
  std::string name = files.queued.front();
  const std::string path = dirpath_ + name;
  ReadMessage(path);
  if (!DisposeOfMessageFile(path, name)) {
    // Drop it: it could not be removed and would be spoken again and again.
    message.words.clear();
  }
  if (message.words.empty()) {
    message.Stop();
  } else {
    message.Begin(name);
  }
  files.queued.pop_front();
}

// Makes the words of the file those of the message; none if the parser throws.
void InputDirectory::Impl::ReadMessage(const std::string& path_) {
  message.words.clear();  // NOMUTATE(call): there are some only if memory ran out before Begin.
  std::string text;
  if (file_parser != nullptr) {
    try {
      text = file_parser->ParseFile(path_);
    } catch (const std::string& e) {
      Debug(kDebugTrace, "Processing %s: %s", path_.c_str(), e.c_str());
      return;
    }
    Debug(kDebugTrace, "Parser returned: \"%s\"", text.c_str());
  }
  message.SetText(std::move(text));
  if (IsDebugEnabled(kDebugTrace)) {
    Debug(kDebugTrace, "From %s: %s", path_.c_str(), WordsToString(message.words).c_str());
  }
}

// Removes a taken file, or copies it to the last-played directory, which is emptied first. Without
// a last-played directory the file is removed whatever auto-delete says. False if the file should
// be removed but is still there.
bool InputDirectory::Impl::DisposeOfMessageFile(const std::string& path_,
                                                const std::string& name_) const {
  if (attributes.last_played_path.empty()) {
    return RemoveFile(path_);
  }
  RunShell("rm " + attributes.last_played_path + "/* > /dev/null 2>&1");
  CopyToLastPlayed(path_, name_);
  return attributes.auto_delete == 0 || RemoveFile(path_);
}

void InputDirectory::Impl::CopyToLastPlayed(const std::string& path_,
                                            const std::string& name_) const {
  RunShell("cp " + path_ + " " + AddTrailingSlash(attributes.last_played_path) + name_);
}

// In cache mode the queue is empty after every scan; the copies are counted instead.
int InputDirectory::Impl::CountUpdatedFiles() const {
  if (!attributes.IsCache()) {
    return static_cast<int>(files.queued.size());
  }
  return attributes.last_played_path.empty()
             ? 0
             : Directory(attributes.last_played_path).GetFileCountLocked();
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

std::list<std::string> InputDirectory::GetWords() {
  return impl->message.TakeSnippet(impl->text_snippet_word_limit, impl->attributes.loops);
}

void InputDirectory::RestartMessage() { impl->message.Restart(); }

void InputDirectory::StopMessage() { impl->message.Stop(); }

bool InputDirectory::FirstPlayOfActiveMessage() const { return impl->message.first_play; }

XMLElement* InputDirectory::GetStatus() const {
  auto status = std::make_unique<XMLElement>("directory");
  status->SetAttributeString("id", impl->attributes.id);
  status->SetAttributeString("status", impl->availability.available ? "1" : "0");
  status->SetAttributeString("path", impl->rootdir);
  status->SetAttributeInteger("total-file-count", static_cast<int>(impl->files.names.size()));
  status->SetAttributeInteger("updated-file-count", impl->CountUpdatedFiles());
  if (impl->message.id != 0) {
    auto* message = new XMLElement("message");
    status->AddChild(message);
    message->SetAttributeInteger("id", impl->message.id);
    message->SetAttributeString("filename", impl->message.filename);
    message->SetAttributeInteger("plays", impl->message.plays);
  }
  return status.release();
}

int InputDirectory::GetPriority() const { return impl->attributes.priority; }

int InputDirectory::GetActiveMessageID() const { return impl->message.id; }

std::string InputDirectory::GetActiveMessageFilename() const { return impl->message.filename; }

std::string InputDirectory::GetDisplayId() const { return impl->attributes.display_id; }

std::string InputDirectory::GetTranslatorArguments() const { return impl->attributes.conv_opts; }

int InputDirectory::GetPreview() const { return impl->attributes.preview; }

std::string InputDirectory::GetLastPlayedPath() const { return impl->attributes.last_played_path; }

std::string InputDirectory::GetBumperPath() const { return impl->attributes.bumper_path; }

std::string InputDirectory::GetSpacerPath() const { return impl->attributes.spacer_path; }

std::string InputDirectory::GetSilencePath() const { return impl->attributes.silence_path; }

std::string InputDirectory::GetParserID() const { return impl->attributes.parser_id; }

std::string InputDirectory::GetEncoding() const { return impl->attributes.encoding; }

void InputDirectory::SetFileParser(const FileParser* file_parser_) {
  impl->file_parser = file_parser_;
}

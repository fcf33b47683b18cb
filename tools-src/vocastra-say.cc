// vocastra-say: hands a message over to the daemon as it must be done.
//
// The daemon looks into its input directories at any time and takes what it finds. So the message
// is written under a hidden name, which the daemon ignores, and renamed when it is whole. The name
// is new for every message, as a file that comes back with the same text counts as unchanged, and
// it is safe in a shell, which the daemon uses to copy files.

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <utf8.h>

#include <exception>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "charencoding.h"
#include "crc.h"
#include "debug.h"
#include "format.h"
#include "statusfile.h"
#include "xml.h"
#include "xmlfileparser.h"

namespace {

constexpr size_t kMaxMessageBytes = 65536;  // The daemon ignores the rest of a text file.
constexpr size_t kMaxInputBytes = 16 << 20;
constexpr mode_t kMessageMode = 0644;  // Whatever the umask: a message is there to be heard.
constexpr int kPollPause = 30;         // Milliseconds.
constexpr int kDefaultTimeout = 300;   // Seconds.
constexpr char kDefaultDirectory[] = "announcements";

enum ExitStatus { kSaid = 0, kNotHandedOver = 1, kUsage = 2, kDropped = 3, kTimedOut = 4 };

struct Options {
  std::string config_path = VOCASTRA_CONFIG_FILE;
  std::string status_path = VOCASTRA_STATUS_FILE;
  std::optional<std::string> directory_id;
  std::optional<std::string> encoding;
  bool is_raw = false;
  bool is_waiting = false;
  int timeout = kDefaultTimeout;  // Seconds; 0: none.
  std::vector<std::string> words;
};

// --- Where to ------------------------------------------------------------------------------------

// An input directory, as the daemon understands its element.
struct Target {
  explicit Target(const XMLElement& directory)
      : id(directory.GetAttributeString("id")),
        path(AddTrailingSlash(directory.GetAttributeString("path", "")) +
             AddTrailingSlash(directory.GetAttributeString("subdir", ""))),
        removes_taken(directory.GetAttributeString("last-played-path", "").empty() ||
                      directory.GetAttributeInteger("auto-delete", 0) != 0),
        parser(directory.GetAttributeString("parser", "")),
        encoding(parser.empty() ? "utf8" : directory.GetAttributeString("encoding", "")),
        is_cache(directory.GetAttributeString("dir-mode", "") == "cache") {
    element = directory;
  }

  bool IsXml() const { return !parser.empty() && parser != "text"; }

  std::string id;
  std::string path;    // What is scanned; ends in "/".
  bool removes_taken;  // A file that was taken is removed.
  std::string parser;
  std::string encoding;
  bool is_cache;       // Nothing is spoken.
  XMLElement element;  // Name and attributes.
};

std::string TypeOf(const XMLElement& directory) { return directory.GetAttributeString("type", ""); }

// The first element of that id; later ones are ignored by the daemon. Null if there is none.
const XMLElement* FindById(const XMLElement& root, const char* name, const std::string& id) {
  for (const XMLElement* element : root.GetChildren(name)) {
    // The default differs from id, so that an element without id never matches.
    if (element->GetAttributeString("id", id + "-") == id) {
      return element;
    }
  }
  return nullptr;
}

// The only local directory, or the one called "announcements".
const XMLElement& ChooseDirectory(const XMLElement& root) {
  std::vector<const XMLElement*> locals;
  std::string ids;
  for (const XMLElement* directory : root.GetChildren("directory")) {
    const std::string id = directory->GetAttributeString("id", "");
    if (TypeOf(*directory) == "local" && FindById(root, "directory", id) == directory) {
      locals.push_back(directory);
      ids += " " + id;
    }
  }
  if (locals.empty()) {
    throw std::string("the configuration has no local directory");
  }
  if (locals.size() == 1) {
    return *locals.front();
  }
  for (const XMLElement* directory : locals) {
    if (directory->GetAttributeString("id", "") == kDefaultDirectory) {
      return *directory;
    }
  }
  throw "name a directory with -d; there are" + ids;
}

const XMLElement& FindDirectory(const XMLElement& root, const Options& options) {
  if (!options.directory_id) {
    return ChooseDirectory(root);
  }
  const XMLElement* directory = FindById(root, "directory", *options.directory_id);
  if (directory == nullptr) {
    throw Format("no directory \"%s\" in %s", options.directory_id->c_str(),
                 options.config_path.c_str());
  }
  const std::string type = TypeOf(*directory);
  if (type != "local") {
    throw Format("directory \"%s\" is of type \"%s\": messages for it belong on its server, \"%s\"",
                 options.directory_id->c_str(), type.c_str(),
                 directory->GetAttributeString("path", "").c_str());
  }
  return *directory;
}

bool IsEncoding(const std::string& encoding) {
  return encoding == "ascii" || encoding == "utf8" || encoding == "utf16";
}

// The element of the directory's XML parser.
const XMLElement& FindParser(const XMLElement& root, const Target& target) {
  const XMLElement* parser = FindById(root, "parser", target.parser);
  if (parser == nullptr || parser->GetAttributeString("type", "") != "xml") {
    throw Format("directory \"%s\" uses parser \"%s\", which the configuration does not have",
                 target.id.c_str(), target.parser.c_str());
  }
  return *parser;
}

// --- What ----------------------------------------------------------------------------------------

std::string ReadStandardInput() {
  std::string text;
  char block[16384];
  size_t length = 0;
  while ((length = fread(block, 1, sizeof(block), stdin)) > 0 && text.size() < kMaxInputBytes) {
    text.append(block, length);
  }
  if (ferror(stdin) != 0) {
    throw std::string("cannot read standard input");
  }
  return text;
}

std::string ReadText(const Options& options) {
  if (options.words.empty()) {
    return ReadStandardInput();
  }
  std::string text;
  for (const std::string& word : options.words) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

// True if there is more than spaces, control characters and punctuation. The daemon makes a message
// of a lone mark after a space, but there is nothing in it to say.
bool HasWords(const std::string& text) {
  for (auto next = text.begin(); next != text.end();) {
    const uint32_t cp = utf8::next(next, text.end());
    if (!Utf8IsBreak(cp) && !Utf8IsControl(cp)) {
      return true;
    }
  }
  return false;
}

std::string ToUtf16(const std::string& text) {
  std::vector<uint16_t> units;
  utf8::utf8to16(text.begin(), text.end(), std::back_inserter(units));
  std::string bytes;
  for (const uint16_t unit : units) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8);
  }
  return bytes;
}

// The daemon's own table of extended ASCII, read backwards.
std::map<std::string, char> ExtAsciiBytes() {
  std::map<std::string, char> bytes;
  for (int byte = 1; byte < 256; ++byte) {
    const std::string character = ExtAsciiToUtf8Char(static_cast<char>(byte));
    if (Utf8IsValid(character)) {
      bytes.emplace(character, static_cast<char>(byte));
    }
  }
  return bytes;
}

std::string ToExtAscii(const std::string& text) {
  const std::map<std::string, char> bytes = ExtAsciiBytes();
  std::string result;
  for (auto next = text.begin(); next != text.end();) {
    const auto start = next;
    const uint32_t cp = utf8::next(next, text.end());
    const std::string character(start, next);
    const auto found = bytes.find(character);
    if (found == bytes.end()) {
      throw Format("\"%s\" (U+%04X) cannot be expressed in \"ascii\"", character.c_str(), cp);
    }
    result += found->second;
  }
  return result;
}

// The text as the bytes of a text file in that encoding.
std::string Encode(std::string text, const std::string& encoding) {
  constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";
  if (!Utf8IsValid(text)) {
    throw std::string("the text is not valid UTF-8");
  }
  // The daemon would take it for a part of the first word.
  if (text.compare(0, strlen(kByteOrderMark), kByteOrderMark) == 0) {
    text.erase(0, strlen(kByteOrderMark));
  }
  if (!HasWords(text)) {
    throw std::string("there is nothing to say");
  }
  if (encoding == "utf16") {
    text = ToUtf16(text);
  } else if (encoding == "ascii") {
    text = ToExtAscii(text);
  }
  if (text.size() > kMaxMessageBytes) {
    throw Format("the message is too long: %zu bytes in \"%s\", of which the daemon reads %zu",
                 text.size(), encoding.c_str(), kMaxMessageBytes);
  }
  return text;
}

// --- Handing over --------------------------------------------------------------------------------

// Unique, and in the order of the calls: files that wait together are taken in the order of names.
std::string MessageName() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc = {};
  gmtime_r(&now.tv_sec, &utc);
  return Format("say-%04d%02d%02d-%02d%02d%02d-%09ld-%d", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<long>(now.tv_nsec),
                static_cast<int>(getpid()));
}

// A file under a hidden name, which goes away with the object unless it was published.
class HiddenFile {
 public:
  explicit HiddenFile(const std::string& directory)
      : directory_(directory), path_(directory + ".say-XXXXXX") {
    fd_ = mkostemp(path_.data(), O_CLOEXEC);
    if (fd_ < 0) {
      throw Format("cannot write to %s: %s", directory.c_str(), strerror(errno));
    }
  }
  ~HiddenFile() {
    Close();
    if (!is_published_) {
      unlink(path_.c_str());
    }
  }
  HiddenFile(const HiddenFile&) = delete;
  HiddenFile& operator=(const HiddenFile&) = delete;

  const std::string& path() const { return path_; }

  void Write(const std::string& bytes) {
    size_t written = 0;
    while (written < bytes.size()) {
      const ssize_t count = write(fd_, bytes.data() + written, bytes.size() - written);
      if (count < 0 && errno == EINTR) {
        continue;
      }
      Require(count > 0);
      written += static_cast<size_t>(count);
    }
    Require(fchmod(fd_, kMessageMode) == 0);
    Require(Close() == 0);
  }

  void Publish(const std::string& name) {
    Require(rename(path_.c_str(), (directory_ + name).c_str()) == 0);
    is_published_ = true;
  }

 private:
  int Close() {
    const int result = fd_ < 0 ? 0 : close(fd_);
    fd_ = -1;
    return result;
  }

  void Require(bool is_ok) const {
    if (!is_ok) {
      throw Format("cannot write %s: %s", path_.c_str(), strerror(errno));
    }
  }

  std::string directory_;
  std::string path_;
  int fd_ = -1;
  bool is_published_ = false;
};

// Returns the name of the file that the daemon is going to take.
std::string HandOver(const XMLElement& root, const Target& target, const Options& options) {
  const std::string encoding = options.encoding.value_or(target.encoding);
  if (!IsEncoding(encoding)) {
    throw Format("directory \"%s\" has no usable encoding: \"%s\"", target.id.c_str(),
                 encoding.c_str());
  }
  if (target.IsXml() && !options.is_raw) {
    throw Format("directory \"%s\" expects XML documents for parser \"%s\": give one with --raw",
                 target.id.c_str(), target.parser.c_str());
  }
  const XMLElement* parser = target.IsXml() ? &FindParser(root, target) : nullptr;
  const std::string text = ReadText(options);
  HiddenFile file(target.path);
  file.Write(options.is_raw ? text : Encode(text, encoding));
  if (parser != nullptr &&
      !HasWords(Utf8ReplaceInvalid(XMLFileParser(parser, encoding).ParseFile(file.path())))) {
    throw Format("parser \"%s\" finds nothing to say in the document", target.parser.c_str());
  }
  std::string name = MessageName();
  file.Publish(name);
  return name;
}

// --- Waiting -------------------------------------------------------------------------------------

const XMLElement* FindMessage(const XMLElement& directory, const std::string& filename) {
  for (const XMLElement* message : directory.GetChildren("message")) {
    if (message->GetAttributeString("filename") == filename) {
      return message;
    }
  }
  return nullptr;
}

// True if the message whose snippet was made last is still some directory's active one, or none.
// A message that has given its last words stays "now-playing" for a while after that.
bool IsSettled(const XMLElement& status) {
  const int playing = status.GetAttributeInteger("now-playing");
  if (playing == 0) {
    return true;
  }
  for (const XMLElement* directory : status.GetChildren("directory")) {
    for (const XMLElement* message : directory->GetChildren("message")) {
      if (message->GetAttributeInteger("id") == playing) {
        return true;
      }
    }
  }
  return false;
}

// Follows one message through the status file.
//
// A status tells what the daemon knew when it wrote it, so what counts is which scan came before:
// there is one before every status, and the counter in it tells statuses apart.
class Follower {
 public:
  // Throws a string if there is no daemon that has the directory.
  Follower(const Options& options, const Target& target)
      : options_(options), target_(target), config_crc_(FileCRC(options.config_path)) {
    if (FindById(*ReadStatus(options.status_path), "directory", target.id) == nullptr) {
      throw Format("the daemon that writes %s does not have directory \"%s\"",
                   options.status_path.c_str(), target.id.c_str());
    }
  }

  // To be called as soon as the message is there under that name.
  ExitStatus Follow(const std::string& name) {
    name_ = name;
    const double deadline = Now() + options_.timeout;
    while (options_.timeout == 0 || Now() < deadline) {
      if (IsDirectoryReplaced()) {
        return kDropped;
      }
      try {
        const bool was_present = IsPresent();
        const std::unique_ptr<XMLElement> status = ReadStatus(options_.status_path);
        const std::optional<ExitStatus> end = Look(*status, was_present);
        if (end) {
          return *end;
        }
      } catch (const std::string&) {
        // The service removes the file when it stops, and empties the directory when it starts.
        if (access(options_.status_path.c_str(), F_OK) != 0) {
          return kDropped;
        }
      }
      Nap(kPollPause);
    }
    return kTimedOut;
  }

 private:
  // True if the daemon is to drop the directory or to build it anew, which empties it.
  bool IsDirectoryReplaced() {
    const uint16_t crc = FileCRC(options_.config_path);
    if (is_over_ || crc == config_crc_) {
      return false;
    }
    try {
      const std::unique_ptr<XMLElement> root = LoadXMLTree(options_.config_path, "tts-config");
      config_crc_ = crc;
      const XMLElement* element = FindById(*root, "directory", target_.id);
      return element == nullptr || !(*element == target_.element);
    } catch (const std::string&) {
      return false;  // The daemon, too, goes on with what it has.
    }
  }

  bool IsPresent() const { return access((target_.path + name_).c_str(), F_OK) == 0; }

  // was_present: the message's file was there before the status was read.
  std::optional<ExitStatus> Look(const XMLElement& status, bool was_present) {
    const int timestamp = status.GetAttributeInteger("timestamp");
    const XMLElement* directory = FindById(status, "directory", target_.id);
    if (directory == nullptr || timestamp < last_timestamp_) {
      return kDropped;  // A lower counter is that of a new process, which empties the directory.
    }
    last_timestamp_ = timestamp;
    if (seen_from_ == kNever) {
      seen_from_ = timestamp + 2;  // The scan for the next one may be under way.
    }
    if (!was_present && gone_from_ == kNever) {
      gone_from_ = timestamp + 1;
    }
    if (IsActive(*directory)) {
      return std::nullopt;
    }
    const bool is_out_of_queue =
        timestamp >= seen_from_ && directory->GetAttributeInteger("updated-file-count") == 0;
    is_over_ = is_over_ || message_id_ != 0 || timestamp >= gone_from_ || is_out_of_queue;
    if (!is_over_) {
      return std::nullopt;
    }
    // A file that cannot be read is not queued; one that cannot be removed is not spoken.
    const bool is_refused = message_id_ == 0 && target_.removes_taken && IsPresent();
    if (is_refused || status.GetAttributeString("state") == "stop") {
      return kDropped;
    }
    return IsSettled(status) ? std::optional<ExitStatus>(kSaid) : std::nullopt;
  }

  // In a preview directory the same file may come back as another message.
  bool IsActive(const XMLElement& directory) {
    const XMLElement* message = FindMessage(directory, name_);
    if (message == nullptr) {
      return false;
    }
    const int id = message->GetAttributeInteger("id");
    message_id_ = message_id_ == 0 ? id : message_id_;
    return id == message_id_;
  }

  static constexpr int kNever = INT_MAX;

  const Options& options_;
  const Target& target_;
  uint16_t config_crc_;
  std::string name_;
  int last_timestamp_ = INT_MIN;
  int seen_from_ = kNever;  // From this status on, the daemon has seen the file.
  int gone_from_ = kNever;  // From this status on, it has taken the file.
  int message_id_ = 0;      // 0: not seen as the active message yet.
  bool is_over_ = false;    // It is not waiting or active any more.
};

ExitStatus Say(const Options& options) {
  const std::unique_ptr<XMLElement> root = LoadXMLTree(options.config_path, "tts-config");
  const Target target(FindDirectory(*root, options));
  if (!options.is_waiting) {
    HandOver(*root, target, options);
    return kSaid;
  }
  if (target.is_cache) {
    throw Format("directory \"%s\" is in cache mode: nothing in it is spoken", target.id.c_str());
  }
  Follower follower(options, target);
  const ExitStatus end = follower.Follow(HandOver(*root, target, options));
  if (end == kDropped) {
    fputs("vocastra-say: the message was dropped\n", stderr);
  } else if (end == kTimedOut) {
    fprintf(stderr, "vocastra-say: not said within %d seconds\n", options.timeout);
  }
  return end;
}

// --- Command line --------------------------------------------------------------------------------

void PrintUsage() {
  puts("Usage: vocastra-say [options] [TEXT...]");
  puts("Hands TEXT, or else standard input, over to the vocastra daemon.");
  puts("");
  printf("  -c, --config FILE      The daemon's configuration (default %s)\n",
         VOCASTRA_CONFIG_FILE);
  puts("  -d, --directory ID     Input directory (default: the only local one, or else the one");
  printf("                         called \"%s\")\n", kDefaultDirectory);
  puts("  -e, --encoding NAME    Write ascii, utf8 or utf16, whatever the configuration says");
  puts("  -r, --raw              Hand the bytes over as they are, an XML document for instance");
  puts("  -w, --wait             Wait until the message has been said or dropped");
  printf("  -s, --status FILE      The daemon's status file, for --wait (default %s)\n",
         VOCASTRA_STATUS_FILE);
  printf("  -t, --timeout SECONDS  Longest wait; 0: none (default %d)\n", kDefaultTimeout);
  puts("  -h, --help             Show this message");
  puts("  -V, --version          Show the version");
  puts("Exit status: 0 handed over, or with --wait said; 1 not handed over; 2 wrong use;");
  puts("3 dropped; 4 not said in time.");
}

[[noreturn]] void FailUsage(const std::string& why) {
  fprintf(stderr, "vocastra-say: %s\n", why.c_str());
  exit(kUsage);
}

int ParseTimeout(const char* text) {
  try {
    const int timeout = ParseInteger(text);
    if (timeout >= 0) {
      return timeout;
    }
  } catch (const std::string&) {
    // Said below.
  }
  FailUsage(Format("-t \"%s\": not a number of seconds", text));
}

Options ParseOptions(int argc, char** argv) {
  constexpr option kLongOptions[] = {
      {"config", required_argument, nullptr, 'c'},   {"directory", required_argument, nullptr, 'd'},
      {"encoding", required_argument, nullptr, 'e'}, {"raw", no_argument, nullptr, 'r'},
      {"wait", no_argument, nullptr, 'w'},           {"status", required_argument, nullptr, 's'},
      {"timeout", required_argument, nullptr, 't'},  {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},        {nullptr, 0, nullptr, 0},
  };
  Options options;
  int result = 0;
  while ((result = getopt_long(argc, argv, "c:d:e:rws:t:hV", kLongOptions, nullptr)) != -1) {
    switch (result) {
      case 'c':
        options.config_path = optarg;
        break;
      case 'd':
        options.directory_id = optarg;
        break;
      case 'e':
        if (!IsEncoding(optarg)) {
          FailUsage(Format("-e \"%s\": not ascii, utf8 or utf16", optarg));
        }
        options.encoding = optarg;
        break;
      case 'r':
        options.is_raw = true;
        break;
      case 'w':
        options.is_waiting = true;
        break;
      case 's':
        options.status_path = optarg;
        break;
      case 't':
        options.timeout = ParseTimeout(optarg);
        break;
      case 'h':
        PrintUsage();
        exit(EXIT_SUCCESS);
      case 'V':
        puts("vocastra-say " VOCASTRA_VERSION);
        exit(EXIT_SUCCESS);
      default:
        exit(kUsage);
    }
  }
  options.words.assign(argv + optind, argv + argc);
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options = ParseOptions(argc, argv);
    SetDebugMask(0);
    return Say(options);
  } catch (const std::string& why) {
    fprintf(stderr, "vocastra-say: %s\n", why.c_str());
  } catch (const std::exception& e) {
    fprintf(stderr, "vocastra-say: %s\n", e.what());
  }
  return kNotHandedOver;
}

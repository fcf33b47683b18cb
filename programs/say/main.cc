// vocastra-say: puts a message into an input directory so that the daemon takes it as a whole.
//
// The daemon looks into its input directories at any time and takes what it finds. So the message
// is written under a hidden name and renamed. The name is new for every message, because a file
// that comes back with the same text counts as unchanged, and it is safe in a shell, which the
// daemon uses to copy files.

#include <stdio.h>

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "charencoding.h"
#include "commandline.h"
#include "configuration.h"
#include "debug.h"
#include "format.h"
#include "health.h"
#include "hiddenfile.h"
#include "message.h"
#include "outcome.h"
#include "xml.h"
#include "xmlfileparser.h"

namespace {

constexpr size_t kMaxInputBytes = 16 << 20;
constexpr int kDefaultTimeout = 300;  // Seconds.
constexpr char kDefaultDirectory[] = "announcements";

enum ExitStatus {
  kSaid = 0,
  kNotHandedOver = 1,
  kWrongUse = 2,
  kDropped = 3,
  kTimedOut = 4,
  kIncomplete = 5
};

struct Options {
  std::string config_path = VOCASTRA_CONFIG_FILE;
  std::string run = VOCASTRA_RUN_DIR;
  std::optional<std::string> directory_id;
  std::optional<std::string> encoding;
  bool is_raw = false;
  bool is_queueing = false;
  bool is_waiting = false;
  bool is_listening = false;
  int timeout = kDefaultTimeout;  // Seconds; 0: none.
  std::vector<std::string> words;
};

std::string TypeOf(const XMLElement& directory_) {
  return directory_.GetAttributeString("type", "");
}

// The only local directory, or the one called "announcements".
const XMLElement& ChooseDirectory(const XMLElement& root_) {
  std::vector<const XMLElement*> locals;
  std::string ids;
  for (const XMLElement* directory : root_.GetChildren("directory")) {
    const std::string id = directory->GetAttributeString("id", "");
    if (TypeOf(*directory) == "local" && FindById(root_, "directory", id) == directory) {
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

const XMLElement& FindDirectory(const XMLElement& root_, const Options& options_) {
  if (!options_.directory_id) {
    return ChooseDirectory(root_);
  }
  const XMLElement* directory = FindById(root_, "directory", *options_.directory_id);
  if (directory == nullptr) {
    throw Format("no directory \"%s\" in %s", options_.directory_id->c_str(),
                 options_.config_path.c_str());
  }
  const std::string type = TypeOf(*directory);
  if (type != "local") {
    throw Format("directory \"%s\" is of type \"%s\": messages for it belong on its server, \"%s\"",
                 options_.directory_id->c_str(), type.c_str(),
                 directory->GetAttributeString("path", "").c_str());
  }
  return *directory;
}

// The element of the directory's XML parser.
const XMLElement& FindParser(const XMLElement& root_, const LocalDirectory& target_) {
  const XMLElement* parser = FindById(root_, "parser", target_.parser);
  if (parser == nullptr || parser->GetAttributeString("type", "") != "xml") {
    throw Format("directory \"%s\" uses parser \"%s\", which the configuration does not have",
                 target_.id.c_str(), target_.parser.c_str());
  }
  return *parser;
}

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

std::string ReadText(const Options& options_) {
  if (options_.words.empty()) {
    return ReadStandardInput();
  }
  std::string text;
  for (const std::string& word : options_.words) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

// Returns the name of the file that the daemon is going to take.
std::string HandOver(const XMLElement& root_, const LocalDirectory& target_,
                     const Options& options_) {
  const std::string encoding = options_.encoding.value_or(target_.encoding);
  if (!IsEncoding(encoding)) {
    throw Format("directory \"%s\" has no usable encoding: \"%s\"", target_.id.c_str(),
                 encoding.c_str());
  }
  if (target_.IsXml() && !options_.is_raw) {
    throw Format("directory \"%s\" expects XML documents for parser \"%s\": give one with --raw",
                 target_.id.c_str(), target_.parser.c_str());
  }
  const XMLElement* parser = target_.IsXml() ? &FindParser(root_, target_) : nullptr;
  const std::string text = ReadText(options_);
  HiddenFile file(target_.path);
  file.Write(options_.is_raw ? text : Encode(text, encoding));
  if (parser != nullptr &&
      !HasWords(Utf8ReplaceInvalid(XMLFileParser(parser, encoding).ParseFile(file.path())))) {
    throw Format("parser \"%s\" finds nothing to say in the document", target_.parser.c_str());
  }
  std::string name = MessageName("say");
  file.Publish(name);
  return name;
}

void RequireStation(const std::string& health_path_) {
  bool is_running = false;
  try {
    is_running = IsStationRunning(ReadHealth(health_path_));
  } catch (const std::string&) {
    is_running = false;  // No station has written it.
  }
  if (!is_running) {
    throw Format("the service does not run, as %s tells; --queue hands over nevertheless",
                 health_path_.c_str());
  }
}

ExitStatus Await(const std::string& health_path_, const HandedOver& message_,
                 const Options& options_) {
  const std::optional<MessageRecord> end =
      WaitForEnd(health_path_, message_, options_.is_listening, options_.timeout);
  if (!end) {
    const bool is_withdrawn = Withdraw(message_);
    fprintf(stderr, "vocastra-say: not %s within %d seconds; %s\n",
            options_.is_listening ? "played" : "said", options_.timeout,
            is_withdrawn ? "it is withdrawn" : "it was taken already");
    return kTimedOut;
  }
  if (end->state == MessageRecord::kDropped) {
    const std::string reason = ReasonOf(health_path_, message_);
    fprintf(stderr, "vocastra-say: the message was dropped%s%s\n", reason.empty() ? "" : ": ",
            reason.c_str());
    return kDropped;
  }
  if (end->state == MessageRecord::kFailed) {
    fprintf(stderr, "vocastra-say: %d of %d pieces could not be made\n", end->failed,
            end->failed + end->pieces);
    return kIncomplete;
  }
  return kSaid;
}

ExitStatus Say(const Options& options_) {
  const std::unique_ptr<XMLElement> root = LoadXMLTree(options_.config_path, "tts-config");
  const LocalDirectory target(FindDirectory(*root, options_));
  const bool is_waiting = options_.is_waiting || options_.is_listening;
  if (is_waiting && target.is_cache) {
    throw Format("directory \"%s\" is in cache mode: nothing in it is spoken", target.id.c_str());
  }
  const std::string health_path = options_.run + "/health";
  if (!options_.is_queueing) {
    RequireStation(health_path);
  }
  const HandedOver message = {target.id, target.path, HandOver(*root, target, options_)};
  return is_waiting ? Await(health_path, message, options_) : kSaid;
}

Options ParseOptions(int argc_, char** argv_) {
  Options options;
  Program program = {
      "vocastra-say",
      kWrongUse,
      "Usage: vocastra-say [options] [TEXT...]\n"
      "Hands TEXT, or else standard input, over to the vocastra daemon.\n\n",
      {},
      "Exit status: 0 handed over, with --wait said, with --heard played; 1 not handed over;\n"
      "2 wrong use; 3 dropped; 4 not in time, and withdrawn if possible; 5 pieces could not be "
      "made.\n",
      "put \"--\" before a text that begins with \"-\", or give it on standard input"};
  const auto take_encoding = [&](const char* name_) {
    if (!IsEncoding(name_)) {
      FailUsage(program, Format("-e \"%s\": not ascii, utf8 or utf16", name_));
    }
    options.encoding = name_;
  };
  const auto take_timeout = [&](const char* text_) {
    options.timeout = ParseSeconds(text_, 0);
    if (options.timeout < 0) {
      FailUsage(program, Format("-t \"%s\": not a number of seconds", text_));
    }
  };
  program.options = {
      {'c', "config", "FILE", "The daemon's configuration (default " VOCASTRA_CONFIG_FILE ")",
       Keep(options.config_path)},
      {'d', "directory", "ID",
       Format("Input directory (default: the only local one, or else the one\n%25scalled \"%s\")",
              "", kDefaultDirectory),
       [&](const char* id_) { options.directory_id = id_; }},
      {'e', "encoding", "NAME", "Write ascii, utf8 or utf16, whatever the configuration says",
       take_encoding},
      {'r', "raw", "", "Hand the bytes over as they are, an XML document for instance",
       Set(options.is_raw)},
      {'w', "wait", "", "Wait until all audio of the message has been made",
       Set(options.is_waiting)},
      {0, "heard", "", "Wait until the message was played", Set(options.is_listening)},
      {'q', "queue", "", "Hand over even if the service does not run", Set(options.is_queueing)},
      {0, "run", "DIR", "The station's run directory (default " + options.run + ")",
       Keep(options.run)},
      {'t', "timeout", "SECONDS", Format("Longest wait; 0: none (default %d)", kDefaultTimeout),
       take_timeout}};
  options.words = ParseCommandLine(program, argc_, argv_);
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

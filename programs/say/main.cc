// vocastra-say: puts a message into an input directory so that the daemon takes it as a whole.

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commandline.h"
#include "configuration.h"
#include "debug.h"
#include "directories.h"
#include "format.h"
#include "handover.h"
#include "health.h"
#include "outcome.h"
#include "xml.h"

namespace {

constexpr size_t kMaxInputBytes = 16 << 20;
constexpr int kDefaultTimeout = 300;  // Seconds.

enum ExitStatus {
  kSaid = 0,
  kNotHandedOver = 1,
  kWrongUse = 2,
  kDropped = 3,
  kTimedOut = 4,
  kIncomplete = 5
};

struct Options {
  std::optional<std::string> config_path;
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

// The configuration to read. The daemon's own may hold passwords, so users read the part that the
// station publishes.
std::string ConfigurationPath(const Options& options_) {
  const std::string published = options_.run + "/" + kDirectoriesFile;
  const bool is_published = access(published.c_str(), F_OK) == 0;
  std::string path = options_.config_path.value_or(is_published ? published : VOCASTRA_CONFIG_FILE);
  if (access(path.c_str(), R_OK) != 0) {
    const std::string cause = strerror(errno);
    const std::string remedy = options_.config_path
                                   ? "name a file that you may read, or leave out -c"
                                   : "start the service, which writes " + published;
    throw Format("cannot read %s: %s; %s", path.c_str(), cause.c_str(), remedy.c_str());
  }
  return path;
}

ExitStatus Await(const std::string& health_path_, const HandedOver& message_,
                 const Options& options_) {
  const std::optional<MessageRecord> end =
      WaitForEnd(health_path_, message_, options_.is_listening, options_.timeout);
  if (!end) {
    const bool is_withdrawn = Withdraw(message_, options_.run + "/status.xml");
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
  const std::string config = ConfigurationPath(options_);
  const std::unique_ptr<XMLElement> root = LoadXMLTree(config, "tts-config");
  const XMLElement& directory = FindLocalDirectory(*root, options_.directory_id, config);
  const LocalDirectory target(directory);
  const bool is_waiting = options_.is_waiting || options_.is_listening;
  if (is_waiting && target.is_cache) {
    throw Format("directory \"%s\" is in cache mode: nothing in it is spoken", target.id.c_str());
  }
  const std::string health_path = options_.run + "/health";
  if (!options_.is_queueing && !IsServiceRunning(health_path)) {
    throw Format("the service does not run, as %s tells; --queue hands over nevertheless",
                 health_path.c_str());
  }
  const Destination destination(*root, directory, options_.encoding, options_.is_raw);
  const HandedOver message = {target.id, target.path,
                              HandOver(destination, ReadText(options_), "say")};
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
      {'c', "config", "FILE",
       Format("Configuration (default: %s in the run directory, or,\n%25sif it is missing, %s)",
              kDirectoriesFile, "", VOCASTRA_CONFIG_FILE),
       [&](const char* path_) { options.config_path = path_; }},
      {'d', "directory", "ID",
       Format("Input directory (default: the only local one, or else the one\n%25scalled \"%s\")",
              "", kDefaultDirectory),
       [&](const char* id_) { options.directory_id = id_; }},
      {'e', "encoding", "NAME", "Write ascii, utf8 or utf16, whatever the configuration says",
       take_encoding},
      {'r', "raw", "", "Hand the bytes over as they are, such as an XML document",
       Set(options.is_raw)},
      {'w', "wait", "", "Wait until all audio of the message has been made",
       Set(options.is_waiting)},
      {0, "heard", "", "Wait until the player has played all of it", Set(options.is_listening)},
      {'q', "queue", "", "Hand over even if the service does not run", Set(options.is_queueing)},
      {0, "run", "DIR", "The station's run directory (default " + options.run + ")",
       Keep(options.run)},
      {'t', "timeout", "SECONDS", Format("Longest wait; 0: no limit (default %d)", kDefaultTimeout),
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

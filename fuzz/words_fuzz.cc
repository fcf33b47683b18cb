// Text that is split into words and snippets. First byte: the word limit; second byte: loops; the
// rest: the text as a parser may return it, valid or not.
//
// Words and snippets equal the model's; no word is over its limit.
#include <errno.h>
#include <spawn.h>

#include "debug.h"
#include "fileparser.h"
#include "fuzz.h"
#include "inputdirectory.h"
#include "model/text.h"
#include "xml.h"

namespace {

class FixedText : public FileParser {
 public:
  std::string ParseFile(const std::string& /*path_*/) const override { return text; }
  std::string text;
};

}  // namespace

// Starts no shell: the directory is empty, and a process for each input would take most of the
// time.
extern "C" int posix_spawn(pid_t* /*pid*/, const char* /*path*/,
                           const posix_spawn_file_actions_t* /*actions*/,
                           const posix_spawnattr_t* /*attributes*/, char* const* /*arguments*/,
                           char* const* /*environment*/) {
  return EAGAIN;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  static const fuzz::Scratch scratch;
  SetDebugMask(0);
  fuzz::Input input(data_, size_);
  const int byte = input.Byte();
  const int limit = byte < 128 ? byte : byte - 256;  // The limit may be negative.
  const int loops = input.Byte() % 4;
  FixedText parser;
  parser.text = input.Rest();

  XMLElement element("directory");
  element.SetAttributeString("type", "local");
  element.SetAttributeString("path", scratch.Path());
  element.SetAttributeInteger("loops", loops);
  unlink((scratch.Path() + "/message").c_str());  // A message without words stays.
  InputDirectory directory(element, "", "", limit);
  directory.SetFileParser(&parser);
  directory.Process();
  scratch.Write("message", "");
  directory.Process();

  const model::Words words = model::Splitting(model::Decode(parser.text)).words;
  for (const std::string& word : words) {
    fuzz::Require(utf8::distance(word.begin(), word.end()) <= 100, "no word is too long", word);
  }
  for (const model::Words& snippet : model::Snippets(words, limit, loops)) {
    fuzz::Require(directory.GetActiveMessageID() != 0, "the message lasts", parser.text);
    fuzz::Require(directory.GetWords() == snippet, "the snippet is that of the rules", parser.text);
  }
  fuzz::Require(directory.GetActiveMessageID() == 0, "the message ends", parser.text);
  return 0;
}

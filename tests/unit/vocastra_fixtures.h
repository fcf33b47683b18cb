// Shared by the tests of the class Vocastra, called the player.
#pragma once

#include "directory.h"
#include "input_fixtures.h"
#include "stand_ins/pauses.h"
#include "vocastra.h"

constexpr useconds_t kPassPause = 100000;
constexpr useconds_t kClipPause = 70000;
constexpr char kPauseTag[] = "\\pau=300\\ ";

// The text, followed by a comment that makes its checksum 0.
inline std::string WithCRCZero(const std::string& text_) {
  std::string candidate;
  for (int i = 0; candidate.empty() || CRCText(candidate) != "0"; ++i) {
    candidate = text_ + "<!--" + Number(i) + "-->";
  }
  return candidate;
}

// The id that the next active message of any directory will have.
inline int NextMessageID() {
  const TemporaryDirectory directory;
  const FakeParser parser;
  int id = 0;
  LogOf([&] {
    const auto input = Build({{"type", "local"}, {"path", directory.path}});
    input->SetFileParser(&parser);
    input->Process();
    directory.Write("m", "x");
    input->Process();
    id = input->GetActiveMessageID();
  });
  return id + 1;
}

// The command line.
struct Settings {
  std::string config;
  std::string status;
  std::string output;
  std::string translator;
  std::string glossary;
  std::string cifs_helper;
  std::string ftp_helper;
  int words = 10;
  int files = 10;
};

inline std::unique_ptr<Vocastra> Build(const Settings& settings_) {
  return std::make_unique<Vocastra>(settings_.config, settings_.status, settings_.output,
                                    settings_.translator, settings_.glossary, settings_.cifs_helper,
                                    settings_.ftp_helper, settings_.words, settings_.files);
}

// A player in a tree of its own: configuration, status file, output directory, a translator that
// notes its arguments and delivers the text as "audio", and an input directory for each id.
class VocastraTest : public testing::Test {
 protected:
  VocastraTest() {
    settings.config = tree / "config.xml";
    settings.status = tree / "status.xml";
    settings.output = tree.MakeDirectory("out");
    UseTranslator(
        "for argument; do printf '<%s>' \"$argument\"; done >>\"$0.calls\"\n"
        "cp \"$1\" \"$2\"\n");
  }
  ~VocastraTest() override {
    stand_ins::pauses.on_usleep = [] {};
    LogOf([&] { player.reset(); }, 0);
    stand_ins::pauses = {};
  }

  void UseTranslator(const std::string& body_) {
    settings.translator = tree.Write("translator", "#!/bin/sh\n" + body_);
    EXPECT_EQ(0, chmod(settings.translator.c_str(), 0755));
  }
  // The arguments of all calls of the translator.
  std::string TranslatorCalls() const { return ReadFile(settings.translator + ".calls"); }

  // The element of a local directory, which it makes if there is none.
  std::string Element(const std::string& id_, const std::string& attributes_ = "") const {
    mkdir(Input(id_).c_str(), 0777);
    return "<directory id='" + id_ + "' type='local' path='" + Input(id_) + "' " + attributes_ +
           "/>";
  }
  std::string Input(const std::string& id_) const { return tree / "in-" + id_; }
  void Drop(const std::string& id_, const std::string& text_,
            const std::string& name_ = "m") const {
    tree.Write("in-" + id_ + "/" + name_, text_);
  }
  void Configure(const std::string& elements_, const std::string& state_ = "run") const {
    tree.Write("config.xml", "<tts-config state='" + state_ + "'>" + elements_ + "</tts-config>");
  }
  // Builds the player and runs a first pass, so that messages dropped afterwards are new.
  void Start(const std::string& elements_, const std::string& state_ = "run") {
    Configure(elements_, state_);
    player = Build(settings);
    Run(0);
    stand_ins::pauses.usleeps.clear();
  }

  // The log of one pass, with 0x for the addresses of parsers.
  std::string Run(unsigned int mask_ = kDebugDefault) {
    return WithoutAddresses(LogOf([&] { player->Run(); }, mask_));
  }
  // The same for a pass that throws; the text is in thrown.
  std::string RunToFailure(unsigned int mask_ = kDebugDefault) {
    return WithoutAddresses(LogOf([&] { thrown = ThrownText([&] { player->Run(); }); }, mask_));
  }
  static std::string WithoutAddresses(const std::string& log_) {
    const std::string address = "using parser 0x";
    std::string text;
    size_t position = 0;
    for (size_t found = 0; (found = log_.find(address, position)) != std::string::npos;) {
      text += log_.substr(position, found - position) + address;
      position = log_.find(' ', found + address.size());
    }
    return text + log_.substr(position);
  }
  std::list<std::string> Delivered() const { return Directory(settings.output).GetFileNames(); }
  std::string DeliveredFile(const std::string& name_) const {
    return ReadFile(settings.output + "/" + name_);
  }
  std::string Status() const { return ReadFile(settings.status); }
  std::string StatusAttribute(const std::string& name_) const {
    return ParseXML(Status())->GetAttributeString(name_);
  }

  // The log lines of parsers and directories about a file with valid text.
  std::string Parsed(const std::string& id_, const std::string& text_,
                     const std::string& name_ = "m") const {
    return "Original is valid UTF-8\nFrom " + Input(id_) + "/" + name_ + ": " + text_ + "\n";
  }
  // The lines about a new file, which is indexed and taken in one pass.
  std::string Taken(const std::string& id_, const std::string& text_) const {
    return Parsed(id_, text_) + "Adding m " + CRCText(text_) + " to file_map\n" +
           Parsed(id_, text_);
  }
  std::string Created(const std::string& id_) const {
    return "Removing contents of directory " + Input(id_) + "\nCould not execute \"rm " +
           Input(id_) + "/* > /dev/null 2>&1\"\nCreated new input directory " + id_ + "\n";
  }
  static std::string Attached(const std::string& id_, const std::string& parser_ = "text-utf8") {
    return "Directory \"" + id_ + "\" using parser 0x " + parser_ + "\n";
  }
  std::string Processing() const { return "Processing configuration " + settings.config + "\n"; }

  TemporaryDirectory tree;
  Settings settings;
  std::unique_ptr<Vocastra> player;
  std::string thrown;
};

// Shared by the tests of input directories.
#pragma once

#include <list>
#include <utility>

#include "fileparser.h"
#include "inputdirectory.h"
#include "model/text.h"
#include "test_util.h"

using Words = std::list<std::string>;
using Attributes = std::map<std::string, std::string>;

inline std::string CRCText(const std::string& text_) { return Number(model::CRC(0, text_)); }

inline std::unique_ptr<InputDirectory> Build(const Attributes& attributes_, int word_limit_ = 10,
                                             const std::string& cifs_helper_ = "",
                                             const std::string& ftp_helper_ = "") {
  XMLElement element("directory");
  for (const auto& [name, value] : attributes_) {
    element.SetAttributeString(name, value);
  }
  return std::make_unique<InputDirectory>(element, cifs_helper_, ftp_helper_, word_limit_);
}

// The status record as it is written to the status file.
inline std::string StatusOf(const InputDirectory& input_) {
  return DumpOf(*std::unique_ptr<XMLElement>(input_.GetStatus()));
}

inline std::string StatusAttribute(const InputDirectory& input_, const std::string& name_) {
  return std::unique_ptr<XMLElement>(input_.GetStatus())->GetAttributeString(name_);
}

// Returns texts by file name, and for other names the file's own content. Throws a text that is in
// thrown.
class FakeParser : public FileParser {
 public:
  std::string ParseFile(const std::string& path_) const override {
    const std::string name = path_.substr(path_.rfind('/') + 1);
    if (const auto found = thrown.find(name); found != thrown.end()) {
      throw found->second;
    }
    const auto found = texts.find(name);
    return found != texts.end() ? found->second : ReadFile(path_);
  }
  std::map<std::string, std::string> texts;
  std::map<std::string, std::string> thrown;
};

// A parser made of the function that a test gives.
class FunctionParser : public FileParser {
 public:
  explicit FunctionParser(std::function<std::string(const std::string&)> function_)
      : function(std::move(function_)) {}
  std::string ParseFile(const std::string& path_) const override { return function(path_); }

 private:
  std::function<std::string(const std::string&)> function;
};

// A local directory, opened by each test with the attributes it needs.
class LocalDirectoryTest : public testing::Test {
 protected:
  ~LocalDirectoryTest() override { SetDebugMask(kDebugDefault); }

  void OpenWithoutScan(Attributes attributes_ = {}, int word_limit_ = 10) {
    attributes_.insert({{"type", "local"}, {"path", directory.path}});
    LogOf([&] { input = Build(attributes_, word_limit_); });
    input->SetFileParser(&parser);
  }
  // Does the first scan too, so that files written afterwards are new.
  void Open(const Attributes& attributes_ = {}, int word_limit_ = 10) {
    OpenWithoutScan(attributes_, word_limit_);
    Scan();
  }
  void OpenWithLastPlayed(Attributes attributes_ = {}) {
    attributes_["last-played-path"] = last_played.path;
    Open(attributes_);
  }
  std::string Scan(unsigned int mask_ = kDebugDefault) const {
    return LogOf([&] { input->Process(); }, mask_);
  }
  std::string Path(const std::string& name_ = "m") const { return directory / name_; }
  void Write(const std::string& text_) const { directory.Write("m", text_); }

  // Makes the text the active message; any other is dropped.
  void Activate(const std::string& text_) {
    input->StopMessage();
    Write(text_);
    Scan();
    ASSERT_EQ("m", input->GetActiveMessageFilename());
  }
  std::string Queued() const { return StatusAttribute(*input, "updated-file-count"); }

  TemporaryDirectory directory;
  TemporaryDirectory last_played;
  FakeParser parser;
  std::unique_ptr<InputDirectory> input;
};

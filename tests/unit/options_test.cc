// The options parsed from a command line. The system tests check the usage text.
#include "options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "debug.h"

namespace {

class OptionsTest : public testing::Test {
 protected:
  ~OptionsTest() override { SetDebugMask(kDebugDefault); }

  std::optional<Options> Parse(std::vector<std::string> arguments_) {
    arguments_.insert(arguments_.begin(), "vocastra");
    std::vector<char*> argv;
    for (std::string& argument : arguments_) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    testing::internal::CaptureStdout();
    std::optional<Options> options =
        ParseOptions(static_cast<int>(arguments_.size()), argv.data(), exit_status);
    fflush(stdout);
    output = testing::internal::GetCapturedStdout();
    return options;
  }

  int exit_status = -1;
  std::string output;
};

TEST_F(OptionsTest, HasDefaultsWithoutArguments) {
  const std::optional<Options> options = Parse({});
  ASSERT_TRUE(options);
  for (const DaemonOption& entry : DaemonOptions()) {
    EXPECT_TRUE(entry.text == nullptr || (*options.*entry.text).empty()) << entry.name;
  }
  EXPECT_EQ(10, options->text_snippet_word_limit);
  EXPECT_EQ(10, options->output_file_count_limit);
  EXPECT_EQ("", output);
}

TEST_F(OptionsTest, TakesEveryTextByEitherName) {
  int count = 0;
  for (const DaemonOption& entry : DaemonOptions()) {
    if (entry.text == nullptr) {
      continue;
    }
    ++count;
    for (const std::string& name :
         {std::string("-") + entry.letter, std::string("--") + entry.name}) {
      const std::optional<Options> options = Parse({name, "first", name, "a b"});
      ASSERT_TRUE(options) << name;
      EXPECT_EQ("a b", *options.*entry.text) << name;
    }
  }
  EXPECT_EQ(7, count);
}

TEST_F(OptionsTest, KeepsPathsApart) {
  const std::optional<Options> options = Parse({"-cC", "-sS", "-oO", "-tT", "-gG", "-iI", "-pP"});
  ASSERT_TRUE(options);
  EXPECT_EQ("C", options->config_file_path);
  EXPECT_EQ("S", options->status_file_path);
  EXPECT_EQ("O", options->output_directory_path);
  EXPECT_EQ("T", options->translator_file_path);
  EXPECT_EQ("G", options->glossary_file_path);
  EXPECT_EQ("I", options->cifs_helper_script_path);
  EXPECT_EQ("P", options->ftp_helper_app_path);
}

TEST_F(OptionsTest, ReadsNumbersAsStrtolDoes) {
  const struct {
    const char* text;
    int number;
  } rows[] = {{"5", 5}, {"-3", -3}, {"0x10", 16}, {"010", 8}, {" 2x", 2}, {"x", 0}, {"", 0}};
  for (const auto& row : rows) {
    const std::optional<Options> options =
        Parse({"-w", "7", "-w", row.text, "-f7", "--files", row.text});
    ASSERT_TRUE(options) << row.text;
    EXPECT_EQ(row.number, options->text_snippet_word_limit) << row.text;
    EXPECT_EQ(row.number, options->output_file_count_limit) << row.text;
  }
}

TEST_F(OptionsTest, SetsTheDebugMaskAtOnce) {
  EXPECT_FALSE(Parse({"-d", "0x4", "-z"}));
  EXPECT_TRUE(IsDebugEnabled(kDebugTrace));
  EXPECT_FALSE(IsDebugEnabled(kDebugNormal));
}

TEST_F(OptionsTest, ExitsWithSuccessAfterHelp) {
  EXPECT_FALSE(Parse({"-w", "3", "-h"}));
  EXPECT_EQ(0, exit_status);
  EXPECT_EQ(0U, output.find("Usage: vocastra [options]\n"));
}

TEST_F(OptionsTest, ExitsWithFailureAfterABadOption) {
  const struct {
    std::vector<std::string> arguments;
    const char* name;
  } rows[] = {
      {{"-z"}, "-z"},           {{"-b", "3"}, "-b"},      {{"-m", "3"}, "-m"},
      {{"--words"}, "--words"}, {{"--help=x"}, "--help"}, {{"--words", "3", "-z"}, "--words"},
  };
  for (const auto& row : rows) {
    EXPECT_FALSE(Parse(row.arguments)) << row.name;
    EXPECT_EQ(1, exit_status) << row.name;
    EXPECT_EQ(
        std::string("vocastra: Unrecognized option or bad value for option: ") + row.name + "\n",
        output);
  }
}

}  // namespace

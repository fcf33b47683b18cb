// Shared by the unit tests: temporary files, captured output, thrown strings, short texts.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "debug.h"
#include "xml.h"

constexpr char kNoLog[] = "";

// A temporary directory, which is removed with its contents.
class TemporaryDirectory {
 public:
  TemporaryDirectory() : path(Make()) {}
  ~TemporaryDirectory() {
    if (system(("chmod -R u+rwx " + path + "; rm -rf " + path).c_str()) != 0) {
      ADD_FAILURE() << "could not remove " << path;
    }
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string operator/(const std::string& name_) const { return path + "/" + name_; }

  // Each returns the path of what it made.
  std::string Write(const std::string& name_, const std::string& content_) const {
    std::ofstream(*this / name_, std::ios::binary) << content_;
    return *this / name_;
  }
  std::string MakeDirectory(const std::string& name_) const {
    EXPECT_EQ(0, mkdir((*this / name_).c_str(), 0777)) << name_;
    return *this / name_;
  }

  const std::string path;  // Without a trailing slash.

 private:
  static std::string Make() {
    char path[] = "/tmp/vocastra-test-XXXXXX";
    if (mkdtemp(path) == nullptr) {
      abort();
    }
    return path;
  }
};

inline std::string ReadFile(const std::string& path_) {
  std::ifstream file(path_, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

inline bool Exists(const std::string& path_) { return access(path_.c_str(), F_OK) == 0; }

inline unsigned int ModeOf(const std::string& path_) {
  struct stat status {};
  EXPECT_EQ(0, stat(path_.c_str(), &status)) << path_;
  return status.st_mode;
}

// This process's open descriptors of the file or directory at path_.
inline std::vector<int> DescriptorsOf(const std::string& path_) {
  struct stat wanted {};
  EXPECT_EQ(0, stat(path_.c_str(), &wanted)) << path_;
  std::vector<int> descriptors;
  for (int fd = 0; fd < 1024; ++fd) {
    struct stat found {};
    if (fstat(fd, &found) == 0 && found.st_dev == wanted.st_dev && found.st_ino == wanted.st_ino) {
      descriptors.push_back(fd);
    }
  }
  return descriptors;
}

// The action's output to standard error, that is, its log lines, with this debug mask.
inline std::string LogOf(const std::function<void()>& action_, unsigned int mask_ = kDebugDefault) {
  SetDebugMask(mask_);
  testing::internal::CaptureStderr();
  action_();
  std::string log = testing::internal::GetCapturedStderr();
  SetDebugMask(kDebugDefault);
  return log;
}

inline std::string WholeLogOf(const std::function<void()>& action_) {
  return LogOf(action_, kDebugAvailable);
}

// The action's output to standard output.
inline std::string OutputOf(const std::function<void()>& action_) {
  testing::internal::CaptureStdout();
  action_();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

// The string that the action throws. A failure if it throws none.
inline std::string ThrownText(const std::function<void()>& action_) {
  try {
    action_();
  } catch (const std::string& text) {
    return text;
  }
  ADD_FAILURE() << "nothing was thrown";
  return "";
}

// The action throws this text and logs it first.
inline void ExpectLoggedAndThrown(const std::string& text_, const std::function<void()>& action_) {
  EXPECT_EQ(text_ + "\n", LogOf([&] { EXPECT_EQ(text_, ThrownText(action_)); }));
}

// A tree from XML text; aborts the test if the text has no root.
inline std::unique_ptr<XMLElement> ParseXML(const std::string& text_) {
  const TemporaryDirectory directory;
  const XMLDocument document(directory.Write("document.xml", text_), "utf8");
  if (document.GetRoot() == nullptr) {
    abort();
  }
  return std::unique_ptr<XMLElement>(document.GetRoot());
}

// The text that write_ puts into a file.
inline std::string Written(const std::function<void(FILE*)>& write_) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* const file = open_memstream(&buffer, &size);
  write_(file);
  fclose(file);
  std::string content(buffer, size);
  free(buffer);
  return content;
}

inline std::string DumpOf(const XMLElement& element_, const std::string& indent_ = "") {
  return Written([&](FILE* file_) { element_.Dump(file_, indent_); });
}

inline std::string Number(int value_) { return std::to_string(value_); }

inline std::string Repeat(const std::string& piece_, size_t count_) {
  std::string text;
  for (size_t i = 0; i < count_; ++i) {
    text += piece_;
  }
  return text;
}

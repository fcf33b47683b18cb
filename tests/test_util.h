// What the unit tests share: temporary files, captured output, thrown strings, a fake parser.
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
#include "fileparser.h"
#include "xml.h"

// A directory of the test's own, removed with all that is in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    char path[] = "/tmp/vocastra-test-XXXXXX";
    if (mkdtemp(path) == nullptr) {
      abort();
    }
    path_ = path;
  }
  ~TemporaryDirectory() {
    if (system(("chmod -R u+rwx " + path_ + "; rm -rf " + path_).c_str()) != 0) {
      ADD_FAILURE() << "could not remove " << path_;
    }
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  // Without a trailing slash.
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  // Each returns the path of what it made.
  std::string Write(const std::string& name, const std::string& content) const {
    std::ofstream(*this / name, std::ios::binary) << content;
    return *this / name;
  }
  std::string MakeDirectory(const std::string& name) const {
    EXPECT_EQ(0, mkdir((*this / name).c_str(), 0777)) << name;
    return *this / name;
  }

 private:
  std::string path_;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

inline bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// This process's open descriptors of the file or directory at path.
inline std::vector<int> DescriptorsOf(const std::string& path) {
  struct stat wanted {};
  EXPECT_EQ(0, stat(path.c_str(), &wanted)) << path;
  std::vector<int> descriptors;
  for (int fd = 0; fd < 1024; ++fd) {
    struct stat found {};
    if (fstat(fd, &found) == 0 && found.st_dev == wanted.st_dev && found.st_ino == wanted.st_ino) {
      descriptors.push_back(fd);
    }
  }
  return descriptors;
}

// What the action writes to standard error, that is, its log lines, with this debug mask.
inline std::string LogOf(const std::function<void()>& action, unsigned int mask = kDebugDefault) {
  SetDebugMask(mask);
  testing::internal::CaptureStderr();
  action();
  std::string log = testing::internal::GetCapturedStderr();
  SetDebugMask(kDebugDefault);
  return log;
}

// What the action writes to standard output.
inline std::string OutputOf(const std::function<void()>& action) {
  testing::internal::CaptureStdout();
  action();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

// The string that the action throws. A failure if it throws none.
inline std::string ThrownText(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::string& text) {
    return text;
  }
  ADD_FAILURE() << "nothing was thrown";
  return "";
}

// A tree from XML text; aborts the test if the text has no root.
inline std::unique_ptr<XMLElement> ParseXML(const std::string& text) {
  const TemporaryDirectory directory;
  const XMLDocument document(directory.Write("document.xml", text), "utf8");
  if (document.GetRoot() == nullptr) {
    abort();
  }
  return std::unique_ptr<XMLElement>(document.GetRoot());
}

// Hands out texts by file name; for other names the file's own content. A text in thrown is
// thrown instead.
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

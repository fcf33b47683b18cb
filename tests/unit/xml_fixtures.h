// Shared by the tests of XML elements and documents.
#pragma once

#include "test_util.h"

// "name[text]" of the element and all below it, in document order.
inline std::string TextsOf(const XMLElement& element_) {
  std::string texts = element_.GetName() + "[" + element_.GetText() + "]";
  for (const XMLElement* child : element_.GetChildren("")) {
    texts += TextsOf(*child);
  }
  return texts;
}

// All properties of a tree as a text.
inline std::string Describe(const XMLElement& element_) {
  return DumpOf(element_) + TextsOf(element_);
}

inline const XMLElement* OnlyChild(const XMLElement& element_) {
  const std::list<const XMLElement*> children = element_.GetChildren("");
  EXPECT_EQ(1U, children.size());
  return children.front();
}

class XMLDocumentTest : public testing::Test {
 protected:
  const std::string& Write(const std::string& content_) {
    unlink(
        document_path.c_str());  // Some file systems flush a file to disk when it is written again.
    document_path = directory.Write("document.xml", content_);
    return document_path;
  }
  // Reads the content and takes its tree. For a document without a , root is null.
  void Read(const std::string& content_, const std::string& encoding_ = "utf8") {
    const XMLDocument document(Write(content_), encoding_);
    tree.reset(document.GetRoot());
    valid = document.IsValidXML();
    error = document.GetError();
  }
  // The same, and notes the log.
  void Load(const std::string& content_, const std::string& encoding_ = "utf8",
            unsigned int mask_ = kDebugDefault) {
    log = LogOf([&] { Read(content_, encoding_); }, mask_);
  }
  void ExpectValid() const {
    EXPECT_TRUE(valid);
    EXPECT_EQ("", error);
    EXPECT_EQ("", log);
  }
  // For many documents: runs the body, in which Read replaces Load, and checks the log once.
  static void ExpectNoLog(const std::function<void()>& body_) { EXPECT_EQ("", LogOf(body_)); }

  const TemporaryDirectory directory;
  std::string document_path;
  std::unique_ptr<const XMLElement> tree;
  bool valid = false;
  std::string error;
  std::string log;
};

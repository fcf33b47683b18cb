#include <new>

#include "stand_ins/expat.h"
#include "xml_fixtures.h"

namespace {

using stand_ins::expat;
using testing::ElementsAre;
using testing::IsEmpty;

class ExpatTest : public XMLDocumentTest {
 protected:
  ~ExpatTest() override {
    EXPECT_EQ(0, expat.parsers);  // Each has been freed.
    EXPECT_EQ(0, expat.final_feeds);
    expat = {};
  }
};

TEST_F(ExpatTest, AcceptsAnEmptyFile) {
  for (const std::string encoding : {"utf8", "ascii", "utf16"}) {
    Load("", encoding);
    ExpectValid();
    EXPECT_EQ(nullptr, tree);
  }
  EXPECT_THAT(expat.encodings, IsEmpty());  // It is not parsed at all.
  const XMLDocument document(document_path, "utf8");
  ExpectLoggedAndThrown("No \"tts-config\" root element", [&] { document.GetRoot("tts-config"); });
}

TEST_F(ExpatTest, AcceptsAsciiThatConvertsToNothing) {
  Load(std::string(3, '\0'), "ascii");
  ExpectValid();
  EXPECT_EQ(nullptr, tree);
  EXPECT_THAT(expat.encodings, IsEmpty());
}

TEST_F(ExpatTest, StopsFeedingAfterAnError) {
  Load("<a>" + std::string(1500, '\n') + "</b>" + std::string(5000, ' '));
  EXPECT_EQ("mismatched tag at line 1501", error);
  EXPECT_EQ(error + "\n", log);
  EXPECT_THAT(expat.feeds, ElementsAre(1024, 1024));
}

TEST_F(ExpatTest, FeedsPiecesOf1024Bytes) {
  const struct {
    size_t length;
    std::vector<int> feeds;
  } rows[] = {{7, {7}},
              {1023, {1023}},
              {1024, {1024}},
              {1025, {1024, 1}},
              {2047, {1024, 1023}},
              {2048, {1024, 1024}},
              {2049, {1024, 1024, 1}},
              {2500, {1024, 1024, 452}}};
  for (const auto& [length, feeds] : rows) {
    expat.feeds.clear();
    Load("<a>" + std::string(length - 7, 'x') + "</a>");
    ExpectValid();
    EXPECT_EQ(feeds, expat.feeds) << length;
    EXPECT_EQ(length - 7, tree->GetText().size());
  }
}

TEST_F(ExpatTest, FeedsTheConvertedText) {
  Load("<a>" + std::string(1000, '\xE9') + "</a>", "ascii");  // Two bytes each.
  EXPECT_THAT(expat.feeds, ElementsAre(1024, 983));
  EXPECT_EQ(Repeat("é", 1000), tree->GetText());
}

TEST_F(ExpatTest, TellsExpatTheEncoding) {
  const struct {
    const char* encoding;
    const char* told;
  } rows[] = {{"utf8", "UTF-8"},  {"ascii", "UTF-8"},  {"utf16", "UTF-16"}, {"", "UTF-8"},
              {"UTF16", "UTF-8"}, {"utf-16", "UTF-8"}, {"latin1", "UTF-8"}};
  for (const auto& [encoding, told] : rows) {
    expat.encodings.clear();
    Load("<a/>", encoding);
    EXPECT_THAT(expat.encodings, ElementsAre(told)) << encoding;
  }
}

TEST_F(ExpatTest, ThrowsForASecondRoot) {
  int calls = 0;
  expat.script = [&calls](void* data_) {
    const char* attributes[] = {nullptr};
    ++calls;
    expat.start(data_, "a", attributes);
    expat.start(data_, "inner", attributes);
    expat.end(data_, "inner");
    expat.end(data_, "a");
    expat.start(data_, "b", attributes);
    expat.end(data_, "b");  // Without effect: the failure remains.
  };
  const std::string& path = Write("<a/>" + std::string(2000, ' '));
  ExpectLoggedAndThrown("Root element must be a singleton",
                        [&] { const XMLDocument document(path, "utf8"); });
  EXPECT_EQ(1, calls);
}

TEST_F(ExpatTest, ThrowsForMoreEndsThanStarts) {
  expat.script = [](void* data_) {
    const char* attributes[] = {nullptr};
    expat.start(data_, "a", attributes);
    expat.end(data_, "a");
    expat.end(data_, "a");
    expat.end(data_, "a");
  };
  const std::string& path = Write("<a/>");
  ExpectLoggedAndThrown("XML parse error; closed more elements than were open",
                        [&] { const XMLDocument document(path, "utf8"); });
}

TEST_F(ExpatTest, StopsFeedingAfterAnInnerFailure) {
  expat.astray_at = "b";
  const std::string& path = Write("<a><b>text<c/></b></a>" + std::string(5000, ' ') + "</a>");
  ExpectLoggedAndThrown("XML parse error; closed more elements than were open",
                        [&] { const XMLDocument document(path, "utf8"); });
  EXPECT_THAT(expat.feeds, ElementsAre(1024));
  EXPECT_THAT(expat.started, ElementsAre("a", "b"));
}

TEST_F(ExpatTest, ThrowsWithoutAParser) {
  expat.out_of_memory = true;
  const std::string& path = Write("<a/>");
  EXPECT_THROW(XMLDocument(path, "utf8"), std::bad_alloc);
}

TEST_F(ExpatTest, TakesAnElementWithoutAttributeArray) {
  expat.script = [](void* data_) {
    expat.start(data_, "a", nullptr);
    expat.end(data_, "other");  // expat has compared the names already.
  };
  Load("<a/>");
  ExpectValid();
  EXPECT_EQ("<a/>\n", DumpOf(*tree));
}

}  // namespace

#include <pthread.h>

#include "xml_fixtures.h"

namespace {

// Runs the action where recursion as deep as a document would crash.
void OnASmallStack(const std::function<void()>& action_) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, 512 * 1024));
  pthread_t thread{};
  const auto run = [](void* function_) -> void* {
    (*static_cast<const std::function<void()>*>(function_))();
    return nullptr;
  };
  ASSERT_EQ(
      0, pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&action_)));
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

TEST(XMLDumpTest, IndentsByFourBlanksALevel) {
  const auto root = ParseXML(
      "<tts-status state='run'><directory id='a'><x/><y><z b='2' a='1'/></y></directory><e/>"
      "</tts-status>");
  EXPECT_EQ(
      "<tts-status state=\"run\">\n"
      "    <directory id=\"a\">\n"
      "        <x/>\n"
      "        <y>\n"
      "            <z a=\"1\" b=\"2\"/>\n"
      "        </y>\n"
      "    </directory>\n"
      "    <e/>\n"
      "</tts-status>\n",
      DumpOf(*root));
}

TEST(XMLDumpTest, BeginsWithTheIndentOfItsCaller) {
  const auto root = ParseXML("<a><b/></a>");
  EXPECT_EQ("--<a>\n--    <b/>\n--</a>\n", DumpOf(*root, "--"));
  EXPECT_EQ("\t<b/>\n", DumpOf(*OnlyChild(*root), "\t"));
}

TEST(XMLDumpTest, SortsAttributesByTheBytesOfTheirNames) {
  XMLElement element("e");
  for (const char* const name : {"b", "a-b", "a", "B", "\xC3\xA9", "aa", "1", "_"}) {
    element.SetAttributeString(name, "");
  }
  EXPECT_EQ("<e 1=\"\" B=\"\" _=\"\" a=\"\" a-b=\"\" aa=\"\" b=\"\" \xC3\xA9=\"\"/>\n",
            DumpOf(element));
}

TEST(XMLDumpTest, WritesNoText) {
  EXPECT_EQ("<a/>\n", DumpOf(*ParseXML("<a>text</a>")));
  EXPECT_EQ("<a x=\"1\">\n    <b/>\n</a>\n", DumpOf(*ParseXML("<a x=\"1\"> hi <b/> there </a>")));
}

TEST(XMLDumpTest, EscapesNothing) {
  EXPECT_EQ("<a x=\"\"<&>'%s\n\"/>\n",
            DumpOf(*ParseXML("<a x='&quot;&lt;&amp;&gt;&apos;%s&#10;'/>")));
  XMLElement element("a<b>&");
  element.SetAttributeString("c\"=", "%d");
  EXPECT_EQ("<a<b>& c\"==\"%d\"/>\n", DumpOf(element));
}

TEST(XMLDepthTest, BuildsFindsAndDeletes200000NestedElements) {
  OnASmallStack([] {
    auto root = std::make_unique<XMLElement>("root");
    XMLElement* leaf = root.get();
    for (int i = 0; i < 200000; ++i) {
      auto* const child = new XMLElement("e");
      leaf->AddChild(child);
      leaf = child;
    }
    EXPECT_TRUE(leaf->IsChildOf("root"));
    EXPECT_TRUE(leaf->IsChildOf("e"));
    EXPECT_FALSE(leaf->IsChildOf("other"));
    EXPECT_EQ(1U, root->GetChildren("e").size());
    root.reset();
  });
}

TEST(XMLDepthTest, ReadsADocumentOf200000NestedElements) {
  const TemporaryDirectory directory;
  const std::string path =
      directory.Write("deep.xml", Repeat("<e>", 200000) + "x" + Repeat("</e>", 200000));
  OnASmallStack([&] {
    const XMLDocument document(path, "utf8");
    EXPECT_TRUE(document.IsValidXML());
    const std::unique_ptr<const XMLElement> root(document.GetRoot());
    size_t depth = 1;
    const XMLElement* element = root.get();
    for (auto children = root->GetChildren(""); !children.empty(); ++depth) {
      element = children.front();
      children = element->GetChildren("");
    }
    EXPECT_EQ(200000U, depth);
    EXPECT_EQ("x", element->GetText());
  });
}

TEST(XMLDepthTest, DeletesATreeThatIsWideAndDeep) {
  OnASmallStack([] {
    XMLElement root("root");
    XMLElement* element = &root;
    for (int i = 0; i < 20000; ++i) {
      auto* const next = new XMLElement("next");
      element->AddChild(new XMLElement("before"));
      element->AddChild(next);
      element->AddChild(new XMLElement("after"));
      element = next;
    }
  });
}

TEST(XMLDepthTest, WritesADeepTree) {
  constexpr size_t kDepth = 2000;
  std::string expected = std::string(4 * kDepth, ' ') + "<leaf/>\n";
  XMLElement root("e");
  XMLElement* element = &root;
  for (size_t i = 1; i < kDepth; ++i) {
    auto* const child = new XMLElement("e");
    element->AddChild(child);
    element = child;
  }
  element->AddChild(new XMLElement("leaf"));
  std::string closing;
  std::string opening;
  for (size_t i = 0; i < kDepth; ++i) {
    opening += std::string(4 * i, ' ') + "<e>\n";
    closing += std::string(4 * (kDepth - 1 - i), ' ') + "</e>\n";
  }
  std::string dump;
  OnASmallStack([&] { dump = DumpOf(root); });
  EXPECT_TRUE(opening + expected + closing == dump);  // Too long to print.
}

}  // namespace

#include "xml.h"

#include <dlfcn.h>
#include <expat.h>
#include <pthread.h>

#include <algorithm>
#include <new>
#include <type_traits>

#include "test_util.h"

namespace {

static_assert(!std::is_copy_constructible_v<XMLElement>);
static_assert(!std::is_copy_constructible_v<XMLDocument> &&
              !std::is_copy_assignable_v<XMLDocument>);

// What expat is told, and what it does that a sound one never would. A script, while set, runs in
// place of its XML_Parse.
struct Expat {
  std::vector<std::string> encodings;
  std::vector<int> feeds;  // Their lengths.
  int final_feeds = 0;
  int parsers = 0;                   // Created and not yet freed.
  std::vector<std::string> started;  // Elements that it has delivered.
  XML_StartElementHandler start = nullptr;
  XML_EndElementHandler end = nullptr;
  std::function<void(XML_Parser parser)> script;
  std::string astray_at;  // The start of this element is followed by the ends of too many.
  bool out_of_memory = false;
};
Expat expat;

void StartElement(void* user_data, const char* name, const char** attributes) {
  expat.started.emplace_back(name);
  expat.start(user_data, name, attributes);
  for (int i = 0; i < 10 && name == expat.astray_at; ++i) {
    expat.end(user_data, name);
  }
}

template <typename Function>
Function Original(Function, const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The XML module calls these; they note the call and pass it on.
XML_Parser XML_ParserCreate(const XML_Char* encoding) {
  expat.encodings.emplace_back(encoding);
  if (expat.out_of_memory) {
    return nullptr;
  }
  ++expat.parsers;
  return Original(XML_ParserCreate, "XML_ParserCreate")(encoding);
}

void XML_ParserFree(XML_Parser parser) {
  --expat.parsers;
  Original(XML_ParserFree, "XML_ParserFree")(parser);
}

void XML_SetElementHandler(XML_Parser parser, XML_StartElementHandler start,
                           XML_EndElementHandler end) {
  expat.start = start;
  expat.end = end;
  Original(XML_SetElementHandler, "XML_SetElementHandler")(parser, StartElement, end);
}

XML_Status XML_Parse(XML_Parser parser, const char* data, int length, int is_final) {
  expat.feeds.push_back(length);
  expat.final_feeds += is_final != 0 ? 1 : 0;
  if (expat.script) {
    expat.script(parser);
    return XML_STATUS_OK;
  }
  static const auto original = Original(XML_Parse, "XML_Parse");
  return original(parser, data, length, is_final);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Runs the action where recursion as deep as a document would crash.
void OnASmallStack(const std::function<void()>& action) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, 512 * 1024));
  pthread_t thread{};
  const auto run = [](void* function) -> void* {
    (*static_cast<const std::function<void()>*>(function))();
    return nullptr;
  };
  ASSERT_EQ(0,
            pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&action)));
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

// What write puts into a file.
std::string Written(const std::function<void(FILE*)>& write) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* const file = open_memstream(&buffer, &size);
  write(file);
  fclose(file);
  std::string content(buffer, size);
  free(buffer);
  return content;
}

std::string DumpOf(const XMLElement& element, const std::string& indent = "") {
  return Written([&](FILE* file) { element.Dump(file, indent); });
}

std::vector<std::string> NamesOf(const std::list<const XMLElement*>& elements) {
  std::vector<std::string> names;
  for (const XMLElement* element : elements) {
    names.push_back(element->GetName());
  }
  return names;
}

// "name[text]" of the element and all below it, in document order.
std::string TextsOf(const XMLElement& element) {
  std::string texts = element.GetName() + "[" + element.GetText() + "]";
  for (const XMLElement* child : element.GetChildren("")) {
    texts += TextsOf(*child);
  }
  return texts;
}

// All that can be seen of a tree.
std::string Describe(const XMLElement& element) { return DumpOf(element) + TextsOf(element); }

const XMLElement* OnlyChild(const XMLElement& element) {
  const std::list<const XMLElement*> children = element.GetChildren("");
  EXPECT_EQ(1U, children.size());
  return children.front();
}

std::string Repeated(size_t count, const std::string& text) {
  std::string repeated;
  for (size_t i = 0; i < count; ++i) {
    repeated += text;
  }
  return repeated;
}

std::string Utf16(const std::u16string& text, bool big_endian) {
  std::string bytes;
  for (const char16_t unit : text) {
    const char high = static_cast<char>(unit >> 8);
    const char low = static_cast<char>(unit & 0xFF);
    bytes += big_endian ? std::string{high, low} : std::string{low, high};
  }
  return bytes;
}

// --- Elements ---

TEST(XMLElementTest, BeginsEmpty) {
  const XMLElement named("name");
  EXPECT_EQ("name", named.GetName());
  EXPECT_EQ("", named.GetText());
  EXPECT_EQ(nullptr, named.GetParent());
  EXPECT_THAT(named.GetChildren(""), IsEmpty());
  EXPECT_EQ("<name/>\n", DumpOf(named));
  const XMLElement unnamed;
  EXPECT_EQ("", unnamed.GetName());
  EXPECT_EQ("", unnamed.GetText());
  EXPECT_EQ(nullptr, unnamed.GetParent());
  EXPECT_EQ("</>\n", DumpOf(unnamed));
}

TEST(XMLElementTest, TakesAttributesFromAnArray) {
  const char* attributes[] = {"b", "2", "a", "1", "b", "3", "empty", "", nullptr};
  const XMLElement element("e", attributes);
  EXPECT_EQ("e", element.GetName());
  EXPECT_EQ("<e a=\"1\" b=\"2\" empty=\"\"/>\n", DumpOf(element));
}

TEST(XMLElementTest, TakesAttributesUpToTheFirstNull) {
  const char* none[] = {nullptr};
  EXPECT_EQ("<e/>\n", DumpOf(XMLElement("e", none)));
  EXPECT_EQ("<e/>\n", DumpOf(XMLElement("e", nullptr)));
  const char* no_value[] = {"a", "1", "b", nullptr, "c", "3", nullptr};
  EXPECT_EQ("<e a=\"1\"/>\n", DumpOf(XMLElement("e", no_value)));
}

TEST(XMLElementTest, CollectsText) {
  XMLElement element("e");
  element.AppendText(" a ");
  element.AppendText("");
  element.AppendText(std::string("\0b\n", 3));
  EXPECT_EQ(std::string(" a \0b\n", 6), element.GetText());
}

TEST(XMLElementTest, OwnsItsChildrenInTheOrderOfTheirAddition) {
  XMLElement root("root");
  auto* const b = new XMLElement("b");
  auto* const a = new XMLElement("a");
  root.AddChild(b);
  root.AddChild(a);
  a->AddChild(new XMLElement("c"));
  EXPECT_EQ(&root, b->GetParent());
  EXPECT_EQ(&root, static_cast<const XMLElement*>(a)->GetParent());
  EXPECT_EQ(a, OnlyChild(*a)->GetParent());
  EXPECT_EQ(nullptr, root.GetParent());
  EXPECT_EQ("<root>\n    <b/>\n    <a>\n        <c/>\n    </a>\n</root>\n", DumpOf(root));
}

TEST(XMLElementTest, FindsChildrenByName) {
  const auto root = ParseXML("<a><x n='1'/><y><x n='no'/></y><x n='2'/></a>");
  EXPECT_THAT(NamesOf(root->GetChildren("")), ElementsAre("x", "y", "x"));
  EXPECT_THAT(NamesOf(root->GetChildren("x")), ElementsAre("x", "x"));
  EXPECT_EQ("1", root->GetChildren("x").front()->GetAttributeString("n"));
  EXPECT_EQ("2", root->GetChildren("x").back()->GetAttributeString("n"));
  EXPECT_THAT(NamesOf(root->GetChildren("y")), ElementsAre("y"));
  for (const char* const name : {"z", "X", "a", "xx", "x "}) {
    EXPECT_THAT(root->GetChildren(name), IsEmpty()) << name;
  }
}

TEST(XMLElementTest, KnowsItsAncestors) {
  const auto a = ParseXML("<a><b><c/></b></a>");
  const XMLElement& b = *OnlyChild(*a);
  const XMLElement& c = *OnlyChild(b);
  EXPECT_TRUE(c.IsChildOf("a"));
  EXPECT_TRUE(c.IsChildOf("b"));
  EXPECT_TRUE(b.IsChildOf("a"));
  EXPECT_FALSE(c.IsChildOf("c"));
  EXPECT_FALSE(a->IsChildOf("a"));
  EXPECT_FALSE(b.IsChildOf("c"));
  EXPECT_FALSE(c.IsChildOf("A"));
  EXPECT_FALSE(c.IsChildOf("aa"));
}

TEST(XMLElementTest, IsItsOwnNamesakesChild) {
  const auto a = ParseXML("<a><b><a/></b></a>");
  EXPECT_TRUE(OnlyChild(*OnlyChild(*a))->IsChildOf("a"));
}

TEST(XMLElementTest, IsNeverAChildOfTheEmptyName) {
  XMLElement root("root");
  auto* const unnamed = new XMLElement();
  auto* const leaf = new XMLElement("leaf");
  root.AddChild(unnamed);
  unnamed->AddChild(leaf);
  EXPECT_FALSE(leaf->IsChildOf(""));
  EXPECT_FALSE(unnamed->IsChildOf(""));
  EXPECT_TRUE(leaf->IsChildOf("root"));
}

// --- Attributes ---

TEST(XMLElementTest, ReturnsAttributesAsStrings) {
  const auto element = ParseXML("<d name='value' empty='' N=' &lt;n&#10; '/>");
  EXPECT_EQ("value", element->GetAttributeString("name"));
  EXPECT_EQ("value", element->GetAttributeString("name", "default"));
  EXPECT_EQ("", element->GetAttributeString("empty"));
  EXPECT_EQ("", element->GetAttributeString("empty", "x"));
  EXPECT_EQ(" <n\n ", element->GetAttributeString("N"));
  EXPECT_EQ("default", element->GetAttributeString("n", "default"));
  EXPECT_EQ("", element->GetAttributeString("missing", ""));
}

TEST(XMLElementTest, ReturnsAttributesAsIntegers) {
  const auto element = ParseXML("<d a='12' b='-0x10' c='010' empty=''/>");
  EXPECT_EQ(12, element->GetAttributeInteger("a"));
  EXPECT_EQ(12, element->GetAttributeInteger("a", 5));
  EXPECT_EQ(-16, element->GetAttributeInteger("b"));
  EXPECT_EQ(10, element->GetAttributeInteger("c"));
  EXPECT_EQ(5, element->GetAttributeInteger("empty", 5));
  EXPECT_EQ(-5, element->GetAttributeInteger("missing", -5));
}

// The action throws this text and logs it first.
void ExpectLoggedAndThrown(const std::string& text, const std::function<void()>& action) {
  EXPECT_EQ(text + "\n", LogOf([&] { EXPECT_EQ(text, ThrownText(action)); }));
}

TEST(XMLElementTest, ThrowsForAnAttributeThatIsNotThere) {
  const auto element = ParseXML("<d id='1'/>");
  for (const char* const name : {"n", "ID", ""}) {
    const std::string text = std::string("Element d has no attribute ") + name;
    ExpectLoggedAndThrown(text, [&] { element->GetAttributeString(name); });
    ExpectLoggedAndThrown(text, [&] { element->GetAttributeInteger(name); });
  }
  EXPECT_EQ("<d id=\"1\"/>\n", DumpOf(*element));
}

TEST(XMLElementTest, ThrowsForAnAttributeThatIsNoInteger) {
  for (const std::string value : {"x", "1x", " ", "12 ", "2147483648", "0X1F"}) {
    XMLElement element("d");
    element.SetAttributeString("n", value);
    const std::string text =
        "While processing attribute \"n\" of \"d\": Could not convert \"" + value + "\" to integer";
    ExpectLoggedAndThrown(text, [&] { element.GetAttributeInteger("n"); });
    ExpectLoggedAndThrown(text, [&] { element.GetAttributeInteger("n", 5); });
    EXPECT_EQ(value, element.GetAttributeString("n"));
  }
}

TEST(XMLElementTest, TakesAnEmptyIntegerOnlyWithADefault) {
  const auto element = ParseXML("<d n=''/>");
  EXPECT_EQ(5, element->GetAttributeInteger("n", 5));
  ExpectLoggedAndThrown(
      "While processing attribute \"n\" of \"d\": Could not convert \"\" to integer",
      [&] { element->GetAttributeInteger("n"); });
}

TEST(XMLElementTest, KeepsTheFirstValueOfAnAttribute) {
  XMLElement element("e");
  element.SetAttributeString("a", "1");
  element.SetAttributeString("a", "2");
  element.SetAttributeInteger("a", 3);
  EXPECT_EQ("1", element.GetAttributeString("a"));
  element.SetAttributeString("empty", "");
  element.SetAttributeString("empty", "x");
  EXPECT_EQ("", element.GetAttributeString("empty"));
}

TEST(XMLElementTest, WritesIntegersInDecimal) {
  XMLElement element("e");
  element.SetAttributeInteger("a", -42);
  element.SetAttributeInteger("b", 0);
  element.SetAttributeInteger("max", 2147483647);
  element.SetAttributeInteger("min", -2147483647 - 1);
  EXPECT_EQ("<e a=\"-42\" b=\"0\" max=\"2147483647\" min=\"-2147483648\"/>\n", DumpOf(element));
  EXPECT_EQ(-2147483647 - 1, element.GetAttributeInteger("min"));
}

// --- Comparison and assignment ---

TEST(XMLElementTest, ComparesNameAndAttributes) {
  const struct {
    const char* a;
    const char* b;
    bool equal;
  } rows[] = {
      {"<d/>", "<d/>", true},
      {"<d id='1' x='2'>hello<c/></d>", "<d x='2' id='1'/>", true},
      {"<d id='1'/>", "<d id='1' x='2'/>", false},
      {"<d id='1'/>", "<d id='2'/>", false},
      {"<d id='1'/>", "<d ID='1'/>", false},
      {"<d id=''/>", "<d/>", false},
      {"<d/>", "<e/>", false},
      {"<d/>", "<D/>", false},
      {"<d a='1' b='2'/>", "<d a='2' b='1'/>", false},
  };
  for (const auto& [a, b, equal] : rows) {
    EXPECT_EQ(equal, *ParseXML(a) == *ParseXML(b)) << a << " and " << b;
    EXPECT_EQ(equal, *ParseXML(b) == *ParseXML(a)) << a << " and " << b;
  }
}

TEST(XMLElementTest, AssignsNameAndAttributesOnly) {
  const auto parent = ParseXML("<p><a x='1' y='2'>text<kept/></a></p>");
  auto* const target = const_cast<XMLElement*>(OnlyChild(*parent));
  const auto source = ParseXML("<q><b y='3'>other<lost/></b></q>");
  EXPECT_EQ(target, &(*target = *OnlyChild(*source)));
  EXPECT_TRUE(*target == *OnlyChild(*source));
  EXPECT_EQ("<p>\n    <b y=\"3\">\n        <kept/>\n    </b>\n</p>\n", DumpOf(*parent));
  EXPECT_EQ("text", target->GetText());
  EXPECT_EQ(parent.get(), target->GetParent());
  EXPECT_EQ("q[]b[other]lost[]", TextsOf(*source));
}

TEST(XMLElementTest, SurvivesAssignmentToItself) {
  const auto element = ParseXML("<a x='1'>text<b/></a>");
  const std::string before = Describe(*element);
  const XMLElement& same = *element;
  *element = same;
  EXPECT_EQ(before, Describe(*element));
}

// --- Writing ---

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

// --- Depth ---

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
      directory.Write("deep.xml", Repeated(200000, "<e>") + "x" + Repeated(200000, "</e>"));
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

// --- Documents ---

class XMLDocumentTest : public testing::Test {
 protected:
  ~XMLDocumentTest() override {
    EXPECT_EQ(0, expat.parsers);  // Each has been freed.
    EXPECT_EQ(0, expat.final_feeds);
    expat = Expat();
  }

  const std::string& Write(const std::string& content) {
    unlink(path_.c_str());  // Some file systems flush a file to disk when it is written again.
    path_ = directory_.Write("document.xml", content);
    return path_;
  }
  // Reads the content and takes its tree. For a document without a root, root_ is null.
  void Read(const std::string& content, const std::string& encoding = "utf8") {
    const XMLDocument document(Write(content), encoding);
    root_.reset(document.GetRoot());
    valid_ = document.IsValidXML();
    error_ = document.GetError();
  }
  // The same, and notes the log.
  void Load(const std::string& content, const std::string& encoding = "utf8",
            unsigned int mask = kDebugDefault) {
    log_ = LogOf([&] { Read(content, encoding); }, mask);
  }
  void ExpectValid() const {
    EXPECT_TRUE(valid_);
    EXPECT_EQ("", error_);
    EXPECT_EQ("", log_);
  }
  // For many documents: runs the body, in which Read replaces Load, with one look at the log.
  static void ExpectNoLog(const std::function<void()>& body) { EXPECT_EQ("", LogOf(body)); }

  const TemporaryDirectory directory_;
  std::string path_;
  std::unique_ptr<const XMLElement> root_;
  bool valid_ = false;
  std::string error_;
  std::string log_;
};

TEST_F(XMLDocumentTest, ReadsATree) {
  Load(
      "<?xml version=\"1.0\"?>\n"
      "<!DOCTYPE tts-config [<!ENTITY name \"entity\">]>\n"
      "<!-- comment --><tts-config state='run'>\n"
      "  <directory id=\"a\" path='b'>&name; &#233;&amp;<![CDATA[<x/>]]></directory>\n"
      "  <?target data?><e/>\n"
      "</tts-config>\n<!-- end -->\n");
  ExpectValid();
  EXPECT_EQ(
      "<tts-config state=\"run\">\n    <directory id=\"a\" path=\"b\"/>\n    <e/>\n</tts-config>\n"
      "tts-config[\n  \n  \n]directory[entity é&<x/>]e[]",
      Describe(*root_));
}

TEST_F(XMLDocumentTest, JoinsTheTextAroundChildren) {
  Load("<a x=\"1\"> hi <b> in </b> there </a>");
  EXPECT_EQ("a[ hi  there ]b[ in ]", TextsOf(*root_));
}

TEST_F(XMLDocumentTest, ThrowsIfTheFileCannotBeOpened) {
  const std::string path = directory_ / "missing";
  ExpectLoggedAndThrown("Could not open \"" + path + "\" for reading",
                        [&] { const XMLDocument document(path, "utf8"); });
}

TEST_F(XMLDocumentTest, ThrowsForWhatIsNoRegularFile) {
  const std::string fifo = directory_ / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  for (const std::string& path : {directory_.path(), fifo, std::string("/dev/zero")}) {
    ExpectLoggedAndThrown("Could not open \"" + path + "\" for reading",
                          [&] { const XMLDocument document(path, "utf8"); });
  }
}

TEST_F(XMLDocumentTest, ClosesTheFile) {
  Load("<a/>");
  EXPECT_THAT(DescriptorsOf(path_), IsEmpty());
}

TEST_F(XMLDocumentTest, AnEmptyFileIsValidAndHasNoRoot) {
  for (const std::string encoding : {"utf8", "ascii", "utf16"}) {
    Load("", encoding);
    ExpectValid();
    EXPECT_EQ(nullptr, root_);
  }
  EXPECT_THAT(expat.encodings, IsEmpty());  // It is not parsed at all.
  const XMLDocument document(path_, "utf8");
  ExpectLoggedAndThrown("No \"tts-config\" root element", [&] { document.GetRoot("tts-config"); });
}

TEST_F(XMLDocumentTest, AsciiThatVanishesIsAnEmptyFile) {
  Load(std::string(3, '\0'), "ascii");
  ExpectValid();
  EXPECT_EQ(nullptr, root_);
  EXPECT_THAT(expat.encodings, IsEmpty());
}

TEST_F(XMLDocumentTest, HandsOutARootOfTheRightNameOnly) {
  const XMLDocument document(Write("<a><b/></a>"), "utf8");
  const std::unique_ptr<const XMLElement> root(document.GetRoot());
  EXPECT_EQ(root.get(), document.GetRoot("a"));
  for (const std::string name : {"b", "A", "", "aa"}) {
    ExpectLoggedAndThrown("No \"" + name + "\" root element", [&] { document.GetRoot(name); });
  }
}

TEST_F(XMLDocumentTest, TheTreeOutlivesTheDocument) {
  auto document = std::make_unique<XMLDocument>(Write("<a x='1'><b/></a>"), "utf8");
  const std::unique_ptr<const XMLElement> root(document->GetRoot());
  document.reset();
  EXPECT_EQ("<a x=\"1\">\n    <b/>\n</a>\n", DumpOf(*root));
}

TEST_F(XMLDocumentTest, TheDocumentOutlivesTheTree) {
  const XMLDocument document(Write("<a><b/></a>"), "utf8");
  delete document.GetRoot();
  EXPECT_TRUE(document.IsValidXML());
}

TEST_F(XMLDocumentTest, WritesItsTree) {
  const XMLDocument document(Write("<?xml version='1.0'?><a y='2' x='1'>text<b/></a>"), "utf8");
  const std::unique_ptr<const XMLElement> root(document.GetRoot());
  EXPECT_EQ("<a x=\"1\" y=\"2\">\n    <b/>\n</a>\n",
            Written([&](FILE* file) { document.Dump(file); }));
}

TEST_F(XMLDocumentTest, WritesNothingWithoutATree) {
  const XMLDocument document(Write(""), "utf8");
  EXPECT_EQ("", Written([&](FILE* file) { document.Dump(file); }));
}

TEST_F(XMLDocumentTest, TracesTheEndsOfElements) {
  Load("<a><b/><c></c></a>", "utf8", kDebugTrace);
  EXPECT_EQ("Original is valid UTF-8\nEndElement: b\nEndElement: c\nEndElement: a\n", log_);
}

// --- Errors ---

TEST_F(XMLDocumentTest, LogsMalformedXmlOnce) {
  const struct {
    const char* content;
    const char* error;
  } rows[] = {
      {"<a><b></a>", "mismatched tag at line 1"},
      {"<a>\n\n<b></a></a></a>", "mismatched tag at line 3"},
      {"<a>\n<b x=1/></a>", "not well-formed (invalid token) at line 2"},
      {"<a>\r\n\r\n& </a>", "not well-formed (invalid token) at line 3"},
      {"<a x='1'\n x='2'/>", "duplicate attribute at line 2"},
      {"<a>&missing;</a>", "undefined entity at line 1"},
      {"<a>&#0;</a>", "reference to invalid character number at line 1"},
      {"text <a/>", "syntax error at line 1"},
      {"\ntext <a/>", "syntax error at line 2"},
      {"</a>", "not well-formed (invalid token) at line 1"},
      {"<a/><b/>", "junk after document element at line 1"},
      {"<a></a>\n<a/>", "junk after document element at line 2"},
      {"<a/>\ntext", "junk after document element at line 2"},
      {"<a></a></a>", "not well-formed (invalid token) at line 1"},
      {"<a>]]></a>", "not well-formed (invalid token) at line 1"},
      {" <?xml version='1.0'?><a/>", "XML or text declaration not at start of entity at line 1"},
  };
  for (const auto& [content, error] : rows) {
    Load(content);
    EXPECT_FALSE(valid_) << content;
    EXPECT_EQ(error, error_) << content;
    EXPECT_EQ(std::string(error) + "\n", log_) << content;
  }
}

TEST_F(XMLDocumentTest, AZeroByteIsMalformed) {
  Load(std::string("<a>\0</a>", 8));
  EXPECT_EQ("not well-formed (invalid token) at line 1", error_);
}

TEST_F(XMLDocumentTest, KeepsTheTreeBeforeAnError) {
  Load("<a x='1'>text<b/><c><d></c><e/></a>");
  EXPECT_EQ("mismatched tag at line 1", error_);
  EXPECT_EQ("a[text]b[]c[]d[]", TextsOf(*root_));
  Load("<a><b/></a><second><c/></second>");
  EXPECT_EQ("junk after document element at line 1", error_);
  EXPECT_EQ("a[]b[]", TextsOf(*root_));
}

TEST_F(XMLDocumentTest, StopsFeedingAfterAnError) {
  Load("<a>" + std::string(1500, '\n') + "</b>" + std::string(5000, ' '));
  EXPECT_EQ("mismatched tag at line 1501", error_);
  EXPECT_EQ(error_ + "\n", log_);
  EXPECT_THAT(expat.feeds, ElementsAre(1024, 1024));
}

TEST_F(XMLDocumentTest, AcceptsWhatMerelyEndsEarly) {
  for (const char* const content :
       {"<a>", "<a", "<", "<a><b>", "<a><b/>", "<a>text", "<a x='", "<a>&am", "<a><![CDATA[x",
        "<!-- comment", "<?xml version", "<!DOCTYPE a [", " \n", "<a></", "<a>]]"}) {
    Load(content);
    ExpectValid();
    EXPECT_EQ(std::string(content).substr(0, 3) == "<a>", root_ != nullptr) << content;
  }
  Load("<a>");
  EXPECT_EQ("a[]", TextsOf(*root_));
}

// A document with some of everything. Elements' names are unique.
const char kSample[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
    "<!DOCTYPE root [<!ENTITY ent \"entity\"><!ATTLIST two d CDATA \"def\">]>\n"
    "<!-- comment with <tags> & é -->\n"
    "<root a='1' b=\"two &lt;é&quot; 'x'\">text é &ent; &amp; &#8364;\r\n"
    "  <one/>\n"
    "  <two c='日本'><![CDATA[<raw> ]] > & \xF0\x9F\x98\x80]]>more<three\n x = 'y' /></two>\n"
    "  <?target some data?><!-- inner --><four>\xF0\x9F\x98\x80 end</four>\n"
    "</root>\n<!-- after --> \n";

// A comment of n bytes.
std::string Comment(size_t n) { return "<!--" + std::string(n - 7, 'x') + "-->"; }

size_t CountElements(const XMLElement* element) {
  size_t count = element != nullptr ? 1 : 0;
  if (element != nullptr) {
    for (const XMLElement* child : element->GetChildren("")) {
      count += CountElements(child);
    }
  }
  return count;
}

TEST_F(XMLDocumentTest, AcceptsEveryTruncationOfAValidFile) {
  ExpectNoLog([&] {
    for (const size_t shift : {10U, 700U}) {  // Moves the ends of the feeds.
      const std::string sample =
          std::string(kSample).replace(std::string(kSample).find("<!--"), 0, Comment(shift));
      std::vector<size_t> start_tag_ends;
      for (const char* const tag : {"<root ", "<one", "<two ", "<three\n", "<four"}) {
        start_tag_ends.push_back(sample.find('>', sample.find(tag)) + 1);
      }
      for (size_t cut = 0; cut <= sample.size(); ++cut) {
        Read(sample.substr(0, cut));
        ExpectValid();
        EXPECT_EQ(std::count_if(start_tag_ends.begin(), start_tag_ends.end(),
                                [cut](size_t end) { return end <= cut; }),
                  CountElements(root_.get()))
            << "cut at " << cut << ", shifted by " << shift;
      }
    }
  });
}

TEST_F(XMLDocumentTest, DeliversTheTextBeforeATruncation) {
  const std::string text = "text é 日本 \xF0\x9F\x98\x80 end";
  ExpectNoLog([&] {
    for (size_t cut = 0; cut <= text.size(); ++cut) {
      std::string expected = text.substr(0, cut);
      if (cut < text.size() && (text[cut] & 0xC0) == 0x80) {  // In the middle of a character.
        while ((text[expected.size()] & 0xC0) == 0x80) {
          expected.pop_back();
        }
        expected += "\uFFFD";
      }
      Read("<a>" + text.substr(0, cut));
      ExpectValid();
      ASSERT_NE(nullptr, root_);
      EXPECT_EQ(expected, root_->GetText()) << cut;
    }
  });
}

// --- Feeds ---

TEST_F(XMLDocumentTest, FeedsPiecesOf1024Bytes) {
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
    EXPECT_EQ(length - 7, root_->GetText().size());
  }
}

TEST_F(XMLDocumentTest, FeedsWhatTheTextIsAfterItsConversion) {
  Load("<a>" + std::string(1000, '\xE9') + "</a>", "ascii");  // Two bytes each.
  EXPECT_THAT(expat.feeds, ElementsAre(1024, 983));
  EXPECT_EQ(Repeated(1000, "é"), root_->GetText());
}

TEST_F(XMLDocumentTest, ReadsCharactersThatStraddleFeeds) {
  ExpectNoLog([&] {
    for (const std::string character : {"é", "日", "\xF0\x9F\x98\x80"}) {
      for (const size_t boundary : {1024U, 2048U, 3072U}) {
        for (size_t offset = boundary - 8; offset <= boundary + 4; ++offset) {
          const std::string in_text(offset - 3, 'x');
          Read("<a>" + in_text + character + "y</a>");
          ExpectValid();
          ASSERT_NE(nullptr, root_);
          EXPECT_EQ(in_text + character + "y", root_->GetText()) << character << " at " << offset;
          const std::string in_value(offset - 6, 'x');
          Read("<a b='" + in_value + character + "'/>");
          ExpectValid();
          ASSERT_NE(nullptr, root_);
          EXPECT_EQ(in_value + character, root_->GetAttributeString("b"))
              << character << " at " << offset;
        }
      }
    }
  });
}

TEST_F(XMLDocumentTest, ReadsNamesThatStraddleFeeds) {
  ExpectNoLog([&] {
    for (size_t offset = 1016; offset <= 1028; ++offset) {
      Read(Comment(offset - 2) + "<aéb c日d='1'/>");
      ExpectValid();
      ASSERT_NE(nullptr, root_);
      EXPECT_EQ("<aéb c日d=\"1\"/>\n", DumpOf(*root_)) << offset;
    }
  });
}

TEST_F(XMLDocumentTest, ReadsUtf16CharactersThatStraddleFeeds) {
  const std::pair<std::u16string, std::string> characters[] = {
      {u"é", "é"}, {u"日", "日"}, {u"\xD83D\xDE00", "\xF0\x9F\x98\x80"}};
  ExpectNoLog([&] {
    for (const auto& [units, utf8] : characters) {
      for (size_t offset = 506; offset <= 514; ++offset) {  // In units of 2 bytes.
        for (const bool big_endian : {false, true}) {
          const std::string filling(offset - 4, 'x');
          const std::u16string wide_filling(offset - 4, u'x');
          Read(Utf16(u"\uFEFF<a>" + wide_filling + units + u"y</a>", big_endian), "utf16");
          ExpectValid();
          ASSERT_NE(nullptr, root_);
          EXPECT_EQ(filling + utf8 + "y", root_->GetText()) << utf8 << " at " << offset;
        }
      }
    }
  });
}

TEST_F(XMLDocumentTest, ReadsTheSameWhereverAFeedEnds) {
  Read(kSample);
  ExpectValid();
  const std::string whole = Describe(*root_);
  const std::string sample = kSample;
  const size_t prolog = sample.find("<!--");
  ExpectNoLog([&] {
    for (size_t shift = 1024 - sample.size(); shift < 1024; ++shift) {
      Read(std::string(sample).insert(prolog, Comment(shift)));
      ExpectValid();
      ASSERT_NE(nullptr, root_);
      EXPECT_EQ(whole, Describe(*root_)) << shift;
    }
  });
}

// expat can hold back what is incomplete at the end of a feed, for much longer than it seems.
TEST_F(XMLDocumentTest, LosesNothingAfterALongComment) {
  ExpectNoLog([&] {
    for (size_t n = 10; n <= 9000; n += 3) {
      Read("<r>" + Comment(n) + "<a/><b/></r>");
      ExpectValid();
      ASSERT_NE(nullptr, root_) << n;
      ASSERT_EQ("r[]a[]b[]", TextsOf(*root_)) << n;
    }
  });
}

TEST_F(XMLDocumentTest, LosesNothingAfterALongAttributeValue) {
  ExpectNoLog([&] {
    for (size_t n = 10; n <= 9000; n += 3) {
      const std::string value(n, 'v');
      Read("<r x='" + value + "'><a/><b y='" + value + "'/></r>");
      ExpectValid();
      ASSERT_NE(nullptr, root_) << n;
      ASSERT_EQ("r[]a[]b[]", TextsOf(*root_)) << n;
      ASSERT_EQ(value, root_->GetAttributeString("x")) << n;
      ASSERT_EQ(value, root_->GetChildren("b").front()->GetAttributeString("y")) << n;
    }
  });
}

TEST_F(XMLDocumentTest, LosesNothingAfterOtherLongTokens) {
  ExpectNoLog([&] {
    for (size_t n = 10; n <= 9000; n += 3) {
      const std::string x(n, 'x');
      Read("<?p " + x + "?><r><?p " + x + "?><![CDATA[" + x + "]]><" + x + "/>" + x + "<b/></r>");
      ExpectValid();
      ASSERT_NE(nullptr, root_) << n;
      ASSERT_EQ("r[" + x + x + "]" + x + "[]b[]", TextsOf(*root_)) << n;
    }
  });
}

TEST_F(XMLDocumentTest, ReadsALongDocument) {
  Load("<r>" + Repeated(100000, "<e a='1'>x</e>\n") + "</r>");
  ExpectValid();
  EXPECT_EQ(100000U, root_->GetChildren("e").size());
  EXPECT_EQ(std::string(100000, '\n'), root_->GetText());
}

// --- Encodings ---

TEST_F(XMLDocumentTest, TellsExpatTheEncoding) {
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

TEST_F(XMLDocumentTest, MendsInvalidUtf8) {
  for (const std::string encoding : {"utf8", "", "latin1", "ASCII"}) {
    Load("<a b='caf\xE9'>\xC0\x80\xFF</a>", encoding, kDebugAvailable);
    EXPECT_EQ("caf\uFFFD", root_->GetAttributeString("b")) << encoding;
    EXPECT_EQ("\uFFFD\uFFFD", root_->GetText()) << encoding;
    EXPECT_EQ("Re-encoding invalid parser output to UTF-8\nEndElement: a\n", log_) << encoding;
  }
  Load("<a b='caf\xE9'/>");
  ExpectValid();  // Mending is no error.
}

TEST_F(XMLDocumentTest, SkipsAUtf8Mark) {
  Load("\xEF\xBB\xBF<a/>");
  ExpectValid();
  EXPECT_EQ("a[]", TextsOf(*root_));
}

TEST_F(XMLDocumentTest, ItsCallerKnowsTheEncodingBetterThanTheFile) {
  Load("<?xml version='1.0' encoding='ISO-8859-1'?><a>é</a>");
  ExpectValid();
  EXPECT_EQ("é", root_->GetText());
}

TEST_F(XMLDocumentTest, ConvertsExtendedAscii) {
  Load("<a b='caf\xE9'>\xA8Qu\xE9? \xA4\xBF" + std::string(1, '\0') + "</a>", "ascii",
       kDebugAvailable);
  EXPECT_EQ("café", root_->GetAttributeString("b"));
  EXPECT_EQ("¿Qué? ñ\u009F", root_->GetText());
  EXPECT_EQ("Original is valid UTF-8\nEndElement: a\n", log_);
}

TEST_F(XMLDocumentTest, MendsTheExtendedAsciiThatHasNoCharacter) {
  Load("<a>\x85</a>", "ascii", kDebugAvailable);
  EXPECT_EQ("\uFFFDe", root_->GetText());
  EXPECT_EQ("Re-encoding invalid parser output to UTF-8\nEndElement: a\n", log_);
}

TEST_F(XMLDocumentTest, ReadsUtf16InEitherByteOrder) {
  const std::u16string xml = u"<?xml version='1.0'?><a b='1'>text<c/></a>";
  for (const std::u16string& text : {u"\uFEFF" + xml, xml}) {
    for (const bool big_endian : {false, true}) {
      Load(Utf16(text, big_endian), "utf16", kDebugAvailable);
      EXPECT_TRUE(valid_);
      EXPECT_EQ("<a b=\"1\">\n    <c/>\n</a>\na[text]c[]", Describe(*root_));
      EXPECT_EQ("EndElement: c\nEndElement: a\n", log_);  // No word of UTF-8.
    }
  }
}

TEST_F(XMLDocumentTest, AcceptsUtf16ThatEndsEarly) {
  const std::string bytes = Utf16(u"\uFEFF<a>text<c/></a>", false);
  ExpectNoLog([&] {
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
      Read(bytes.substr(0, cut), "utf16");
      ExpectValid();
      EXPECT_EQ(cut >= 8, root_ != nullptr) << cut;
    }
  });
}

TEST(XMLElementTest, TakesOverTheTreesOfDocuments) {
  auto outer = std::make_unique<XMLElement>("outer");
  XMLElement* const a = ParseXML("<a><b><c/></b></a>").release();
  outer->AddChild(a);
  const_cast<XMLElement*>(OnlyChild(*a))->AddChild(ParseXML("<d><e/></d>").release());
  a->AddChild(new XMLElement("f"));
  outer->AddChild(new XMLElement("g"));
  EXPECT_EQ("outer[]a[]b[]c[]d[]e[]f[]g[]", TextsOf(*outer));
  outer.reset();
}

TEST(XMLElementTest, AssignsFromWithinItsOwnTree) {
  const auto root = ParseXML("<a x='1'><b y='2' z='3'/></a>");
  *root = *OnlyChild(*root);
  root->SetAttributeString("y", "kept out");
  root->SetAttributeString("x", "new");
  EXPECT_EQ(
      "<b x=\"new\" y=\"2\" z=\"3\">\n"
      "    <b y=\"2\" z=\"3\"/>\n"
      "</b>\n",
      DumpOf(*root));
}

TEST(XMLElementTest, AnAssignedElementOutlivesItsSource) {
  XMLElement target;
  target = *ParseXML("<d id='1' path='/x'/>");
  EXPECT_EQ("<d id=\"1\" path=\"/x\"/>\n", DumpOf(target));
}

TEST(XMLElementTest, SortsAnArrayOfAttributesByBytesAndKeepsTheFirst) {
  const char* attributes[] = {"\xC3\xA9", "1", "b",        "2", "B",    "3",
                              "b",        "4", "\xC3\xA9", "5", nullptr};
  EXPECT_EQ("<e B=\"3\" b=\"2\" \xC3\xA9=\"1\"/>\n", DumpOf(XMLElement("e", attributes)));
}

// --- Memory ---

// Few bytes with a large tree: each "&e;" becomes ten elements.
std::string DocumentOfElements(int count) {
  return "<!DOCTYPE a [<!ENTITY e \"" + Repeated(10, "<b/>") + "\">]>\n<a>" +
         Repeated(count / 10, "&e;") + "</a>";
}

TEST_F(XMLDocumentTest, StopsWhereTheTreeExceedsItsLimit) {
  // 10,000 elements take less than 4 MiB, 100,000 more than that and 64 times their 30 KB.
  Load(DocumentOfElements(10000));
  ExpectValid();
  EXPECT_EQ(10000u, root_->GetChildren("b").size());

  Load(DocumentOfElements(100000));
  EXPECT_FALSE(valid_);
  EXPECT_EQ("out of memory at line 2", error_);
  EXPECT_EQ("out of memory at line 2\n", log_);
  EXPECT_LT(10000u, root_->GetChildren("b").size());  // Stays reachable, as after any error.
  EXPECT_GT(100000u, root_->GetChildren("b").size());
}

TEST_F(XMLDocumentTest, StopsWhereTheTextExceedsItsLimit) {
  Load("<!DOCTYPE a [<!ENTITY e \"" + std::string(1000, 'x') + "\">]><a>" + Repeated(8000, "&e;") +
       "</a>");
  EXPECT_EQ("out of memory at line 1\n", log_);
  EXPECT_FALSE(valid_);
}

TEST_F(XMLDocumentTest, HoldsEveryTreeWithoutEntities) {
  const std::string elements = Repeated(1000000, "<b/>");  // The largest tree for its bytes.
  Load("<a>" + elements + "</a>");
  ExpectValid();
  EXPECT_EQ(1000000u, root_->GetChildren("b").size());
}

TEST_F(XMLDocumentTest, StopsAfterTooManyAttributeDeclarations) {
  const auto document = [](int count) {
    std::string declarations;
    for (int i = 0; i < count; ++i) {
      declarations += " a" + std::to_string(i) + " CDATA #IMPLIED";
    }
    return "<!DOCTYPE a [<!ATTLIST a" + declarations + ">]><a/>";
  };
  Load(document(10000));
  ExpectValid();
  Load(document(10001));
  EXPECT_EQ("out of memory at line 1\n", log_);
  EXPECT_FALSE(valid_);
}

TEST_F(XMLDocumentTest, CountsEachDocumentOnItsOwn) {
  Load(DocumentOfElements(10000));
  const std::unique_ptr<const XMLElement> first = std::move(root_);
  Load(DocumentOfElements(10000));
  ExpectValid();
}

// --- An expat that goes astray ---

TEST_F(XMLDocumentTest, ThrowsForASecondRoot) {
  int calls = 0;
  expat.script = [&calls](void* data) {
    const char* attributes[] = {nullptr};
    ++calls;
    expat.start(data, "a", attributes);
    expat.start(data, "inner", attributes);
    expat.end(data, "inner");
    expat.end(data, "a");
    expat.start(data, "b", attributes);
    expat.end(data, "b");  // Without effect: the failure stands.
  };
  const std::string& path = Write("<a/>" + std::string(2000, ' '));
  ExpectLoggedAndThrown("Root element must be a singleton",
                        [&] { const XMLDocument document(path, "utf8"); });
  EXPECT_EQ(1, calls);
}

TEST_F(XMLDocumentTest, ThrowsForMoreEndsThanStarts) {
  expat.script = [](void* data) {
    const char* attributes[] = {nullptr};
    expat.start(data, "a", attributes);
    expat.end(data, "a");
    expat.end(data, "a");
    expat.end(data, "a");
  };
  const std::string& path = Write("<a/>");
  ExpectLoggedAndThrown("XML parse error; closed more elements than were open",
                        [&] { const XMLDocument document(path, "utf8"); });
}

TEST_F(XMLDocumentTest, EndsAParseThatFailsInTheMiddle) {
  expat.astray_at = "b";
  const std::string& path = Write("<a><b>text<c/></b></a>" + std::string(5000, ' ') + "</a>");
  ExpectLoggedAndThrown("XML parse error; closed more elements than were open",
                        [&] { const XMLDocument document(path, "utf8"); });
  EXPECT_THAT(expat.feeds, ElementsAre(1024));
  EXPECT_THAT(expat.started, ElementsAre("a", "b"));
}

TEST_F(XMLDocumentTest, ThrowsIfThereIsNoParser) {
  expat.out_of_memory = true;
  const std::string& path = Write("<a/>");
  EXPECT_THROW(XMLDocument(path, "utf8"), std::bad_alloc);
}

TEST_F(XMLDocumentTest, TakesAnElementWithoutAttributeArray) {
  expat.script = [](void* data) {
    expat.start(data, "a", nullptr);
    expat.end(data, "other");  // expat has compared the names already.
  };
  Load("<a/>");
  ExpectValid();
  EXPECT_EQ("<a/>\n", DumpOf(*root_));
}

// --- Loading a tree in one step ---

class LoadXMLTreeTest : public XMLDocumentTest {};

TEST_F(LoadXMLTreeTest, ReturnsTheTree) {
  Write("<a x='é'><b/></a>");
  EXPECT_EQ("", LogOf([&] {
              EXPECT_EQ("<a x=\"é\">\n    <b/>\n</a>\n", DumpOf(*LoadXMLTree(path_, "a")));
            }));
}

TEST_F(LoadXMLTreeTest, AcceptsATreeThatEndsEarly) {
  Write("<a><b/><c");
  EXPECT_EQ("<a>\n    <b/>\n</a>\n", DumpOf(*LoadXMLTree(path_, "a")));
}

TEST_F(LoadXMLTreeTest, ThrowsIfTheFileCannotBeOpened) {
  const std::string path = directory_ / "missing";
  ExpectLoggedAndThrown("Could not open \"" + path + "\" for reading",
                        [&] { LoadXMLTree(path, "a"); });
}

TEST_F(LoadXMLTreeTest, ThrowsWithoutTheRoot) {
  for (const char* const content : {"", "<b/>", "<A/>", "<b><a/></b>", "<!-- -->"}) {
    Write(content);
    ExpectLoggedAndThrown("No \"a\" root element", [&] { LoadXMLTree(path_, "a"); });
  }
}

TEST_F(LoadXMLTreeTest, ThrowsTheErrorOfMalformedXml) {
  Write("<a>\n<b></a>");
  ExpectLoggedAndThrown("mismatched tag at line 2", [&] { LoadXMLTree(path_, "a"); });
  Write("<a/>\n\n<a/>");
  ExpectLoggedAndThrown("junk after document element at line 3", [&] { LoadXMLTree(path_, "a"); });
}

TEST_F(LoadXMLTreeTest, ThrowsForTheRootRatherThanForTheError) {
  for (const char* const content : {"<b>\n<b></c></b>", "\ntext <a/>"}) {
    Write(content);
    const std::string log = LogOf(
        [&] { EXPECT_EQ("No \"a\" root element", ThrownText([&] { LoadXMLTree(path_, "a"); })); });
    EXPECT_THAT(log, testing::EndsWith(" at line 2\nNo \"a\" root element\n")) << content;
  }
}

}  // namespace

#include <type_traits>

#include "xml_fixtures.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_copy_constructible_v<XMLElement>);

std::vector<std::string> NamesOf(const std::list<const XMLElement*>& elements_) {
  std::vector<std::string> names;
  for (const XMLElement* element : elements_) {
    names.push_back(element->GetName());
  }
  return names;
}

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

TEST(XMLElementTest, HasNoAncestorOfTheEmptyName) {
  XMLElement root("root");
  auto* const unnamed = new XMLElement();
  auto* const leaf = new XMLElement("leaf");
  root.AddChild(unnamed);
  unnamed->AddChild(leaf);
  EXPECT_FALSE(leaf->IsChildOf(""));
  EXPECT_FALSE(unnamed->IsChildOf(""));
  EXPECT_TRUE(leaf->IsChildOf("root"));
}

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

TEST(XMLElementTest, ThrowsForAMissingAttribute) {
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

TEST(XMLElementTest, SurvivesAssignmentToItself) {
  const auto element = ParseXML("<a x='1'>text<b/></a>");
  const std::string before = Describe(*element);
  const XMLElement& same = *element;
  *element = same;
  EXPECT_EQ(before, Describe(*element));
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

}  // namespace

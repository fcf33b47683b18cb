// Hostile documents: they try to include other files, or to use up the memory.
#include <stddef.h>

#include "glossary.h"
#include "test_util.h"
#include "xmlfileparser.h"

namespace {

// A document that refers to an existing file.
class ExternalEntityTest : public testing::Test {
 protected:
  // The tree of a document with this DOCTYPE and these contents of its root.
  std::unique_ptr<XMLElement> Load(const std::string& doctype_, const std::string& content_) {
    const std::string text = "<!DOCTYPE r " + doctype_ + ">\n<r>" + content_ + "</r>";
    const XMLDocument document(scratch.Write("document.xml", text), "utf8");
    error = document.GetError();
    return std::unique_ptr<XMLElement>(document.GetRoot());
  }

  const TemporaryDirectory scratch;
  const std::string secret = scratch.Write("secret", "not for the listener");
  const std::string secret_dtd = scratch.Write(
      "secret.dtd", "<!ENTITY e 'not for the listener'><!ATTLIST t x CDATA 'not for the reader'>");
  std::string error;
};

TEST_F(ExternalEntityTest, EntityIsLeftOut) {
  const std::string doctypes[] = {
      "[<!ENTITY e SYSTEM \"" + secret + "\">]",
      "[<!ENTITY e PUBLIC \"p\" \"" + secret + "\">]",
      "[<!ENTITY % p SYSTEM \"" + secret_dtd + "\">%p;]",
      "SYSTEM \"" + secret_dtd + "\"",
  };
  for (const std::string& doctype : doctypes) {
    const auto root = Load(doctype, "before &e; after<t/>");
    ASSERT_TRUE(root) << doctype;
    EXPECT_EQ("before  after", root->GetText()) << doctype;
    EXPECT_EQ("none", root->GetFirstChild()->GetAttributeString("x", "none")) << doctype;
    EXPECT_EQ("", error) << doctype;
  }
}

TEST_F(ExternalEntityTest, GeneralEntityInAttributeIsAnError) {
  Load("[<!ENTITY e SYSTEM \"" + secret + "\">]", "<t x=\"&e;\"/>");
  EXPECT_EQ("reference to external entity in attribute at line 2", error);
}

// Shows that the tests above would notice an included file: an entity of the document itself is
// expanded.
TEST_F(ExternalEntityTest, EntityOfTheDocumentIsExpanded) {
  const auto root =
      Load("[<!ENTITY e 'text'><!ATTLIST t x CDATA 'value'>]", "before &e; after<t/>");
  ASSERT_TRUE(root);
  EXPECT_EQ("before text after", root->GetText());
  EXPECT_EQ("value", root->GetFirstChild()->GetAttributeString("x", "none"));
}

TEST_F(ExternalEntityTest, MessageDoesNotSpeakAnotherFile) {
  const auto element =
      ParseXML("<parser id='p' type='xml'><field tag='t' attr='' attr_value=''/></parser>");
  const std::string message =
      "<!DOCTYPE r [<!ENTITY e SYSTEM \"" + secret + "\">]><r><t>one &e;</t><t>two</t></r>";
  const XMLFileParser parser(element.get(), "utf8");
  EXPECT_EQ("one two", parser.ParseFile(scratch.Write("message.xml", message)));
}

TEST_F(ExternalEntityTest, GlossaryDoesNotSpeakAnotherFile) {
  const std::string text = "<!DOCTYPE glossary SYSTEM \"" + secret_dtd +
                           "\" [<!ATTLIST word speech CDATA 'said'>]>" +
                           "<glossary><word text='a'/></glossary>";
  const Glossary glossary(scratch.Write("glossary.xml", text));
  EXPECT_EQ("said", glossary.SubstituteSpeech("a"));
}

// Each entity is ten times as long as the one before: 10 GB from less than a kilobyte.
TEST(HostileDocumentTest, ExpansionOfNestedEntitiesIsLimited) {
  std::string declarations = "<!ENTITY e0 '0123456789'>";
  for (int i = 1; i < 10; ++i) {
    std::string references;
    for (int j = 0; j < 10; ++j) {
      references += "&e" + std::to_string(i - 1) + ";";
    }
    declarations += "<!ENTITY e" + std::to_string(i) + " '" + references + "'>";
  }
  const TemporaryDirectory directory;
  const std::string text = "<!DOCTYPE r [" + declarations + "]>\n<r>&e9;</r>";
  const XMLDocument document(directory.Write("document.xml", text), "utf8");
  const std::unique_ptr<XMLElement> root(document.GetRoot());
  EXPECT_FALSE(document.IsValidXML());
  constexpr size_t kLimit = 16 << 20;
  EXPECT_GT(kLimit, root->GetText().size());
}

}  // namespace

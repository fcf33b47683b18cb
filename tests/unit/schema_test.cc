// The schema of the configuration is made from the table of attributes.
#include "schema.h"

#include <gtest/gtest.h>

#include "attributes.h"
#include "test_util.h"

namespace {

TEST(SchemaTest, MatchesTheFileInTheTree) {
  EXPECT_EQ(ReadFile(SOURCE_DIR "/schema/tts-config.rnc"),
            MakeSchema(ReadFile(SOURCE_DIR "/programs/check/tts-config.rnc.in")))
      << "build the target \"schema\"";
}

TEST(SchemaTest, ReplacesTheNamesOfAttributes) {
  EXPECT_EQ(
      "a {\n  attribute ftp-poll-rate { integer }?,\n"
      "  attribute ftp-mode { ftp-mode }? }\n",
      MakeSchema("a {\n  @directory ftp@ }\n"));
  EXPECT_EQ("no attribute\n", MakeSchema("no attribute\n"));
}

TEST(SchemaTest, NamesEveryAttributeOfTheConfiguration) {
  const std::string schema = MakeSchema(ReadFile(SOURCE_DIR "/programs/check/tts-config.rnc.in"));
  for (const char* element : {"tts-config", "directory", "parser", "field"}) {
    EXPECT_FALSE(AttributesOf(element).empty()) << element;
    for (const Attribute& attribute : AttributesOf(element)) {
      const std::string pattern = std::string("attribute ") + attribute.name + " { ";
      EXPECT_THAT(schema, testing::HasSubstr(pattern)) << element << " " << attribute.name;
    }
  }
}

}  // namespace

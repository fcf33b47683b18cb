#include "templates.h"
#include "test_util.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

std::string Described(const std::string& line_) {
  const Templates templates = ParseTemplates(line_);
  if (templates.all.empty()) {
    return templates.mistakes.empty() ? "nothing" : templates.mistakes.front();
  }
  std::string text = templates.all[0].title + "/" + templates.all[0].directory + "/";
  for (const Template::Part& part : templates.all[0].parts) {
    text += (part.is_blank ? "<" : "(") + part.text + (part.is_blank ? ">" : ")");
  }
  return text;
}

TEST(ParseTemplatesTest, Lines) {
  const std::map<std::string, std::string> lines = {
      {"", "nothing"},
      {"  # a | b | c", "nothing"},
      {"A train|lobby|Go", "A train/lobby/(Go)"},
      {"\xEF\xBB\xBF A  train | lobby | Go {to  place} now.\r",
       "A train/lobby/(Go )<to place>( now.)"},
      {"t|d|{a}{b}|{a}", "t/d/<a><b>(|)<a>"},
      {"t|d|{} { } {a {b} c} {", "t/d/({} { } {a )<b>( c} {)"},
      {"t|d", "Line 1 is not \"Title | directory | text\"."},
      {"t| |x", "Line 1 lacks a title, a directory or a text."},
      {"t|d|", "Line 1 lacks a title, a directory or a text."},
      {"t|d|\xFF", "Line 1 is not valid UTF-8."},
      {"t|d|" + std::string(4092, 'x'), "t/d/(" + std::string(4092, 'x') + ")"},
      {"t|d|" + std::string(4093, 'x'), "Line 1 is longer than 4096 bytes."}};
  for (const auto& [line, expected] : lines) {
    EXPECT_EQ(expected, Described(line)) << line;
  }
}

TEST(ParseTemplatesTest, FirstOfATitleCounts) {
  const Templates templates = ParseTemplates("a|d|1\n\nb|d|2\na|d|3\n");
  EXPECT_THAT(templates.all, SizeIs(2));
  EXPECT_EQ("1", templates.Find("a")->parts[0].text);
  EXPECT_EQ(nullptr, templates.Find("c"));
  EXPECT_THAT(templates.mistakes, ElementsAre("Line 4 has the title of an earlier one, \"a\"."));
}

TEST(ParseTemplatesTest, LimitsTemplatesMistakesAndBlanks) {
  std::string many;
  for (int i = 0; i < 500; ++i) {
    many += Number(i) + "|d|x\n";
  }
  EXPECT_THAT(ParseTemplates(many).all, SizeIs(200));
  EXPECT_THAT(ParseTemplates(many).mistakes, SizeIs(200));
  EXPECT_EQ("Line 1 has more than 20 blanks.",
            Described("t|d|{1}{2}{3}{4}{5}{6}{7}{8}{9}{a}{b}{c}{d}{e}{f}{g}{h}{i}{j}{k}{l}"));
}

TEST(ReadTemplatesTest, DirectoryIsAMistakeButNotAMissingFile) {
  const TemporaryDirectory directory;
  EXPECT_THAT(ReadTemplates(directory / "none").mistakes, IsEmpty());
  EXPECT_THAT(ReadTemplates(directory.path).mistakes, ElementsAre(HasSubstr(directory.path)));
  EXPECT_THAT(ReadTemplates(directory.Write("t", "a|b|c")).all, SizeIs(1));
}

TEST(FilledTest, PutsValuesInOneLineAndRequiresAll) {
  const Templates templates = ParseTemplates("t|d|To {place} from {number}: {place}!");
  const Template& found = templates.all[0];
  EXPECT_THAT(found.Blanks(), ElementsAre("place", "number"));
  EXPECT_EQ("To {number} x from 2: {number} x!",
            Filled(found, {{"blank-0", " {number}\n x "}, {"blank-1", "2"}, {"blank-2", "y"}}));
  EXPECT_EQ("Fill in \"number\".", ThrownText([&] {
              Filled(found, {{"blank-0", "x"}, {"blank-1", " \n"}});
            }));
}

}  // namespace

#include "vocastra_fixtures.h"

namespace {

class GlossaryUseTest : public VocastraTest {};

std::string Glossary(const std::string& speech_) {
  return "<glossary><word text='Dr' speech='" + speech_ + "'/></glossary>";
}

TEST_F(GlossaryUseTest, RebuildsTheGlossaryInEveryPass) {
  settings.glossary = tree.Write("glossary.xml", Glossary("doctor"));
  Start("");
  const std::string log = "Processing glossary " + settings.glossary +
                          "\nOriginal is valid UTF-8\nEndElement: word\nEndElement: glossary\n";
  EXPECT_EQ(log, Run(kDebugAvailable));
  EXPECT_EQ(log, Run(kDebugAvailable));
}

TEST_F(GlossaryUseTest, KeepsAGlossaryWhoseChecksumIsZero) {
  settings.glossary = tree.Write("glossary.xml", WithCRCZero(Glossary("doctor")));
  Configure("");
  player = Build(settings);
  EXPECT_THAT(Run(kDebugAvailable), testing::HasSubstr("Processing glossary"));
  EXPECT_EQ(kNoLog, Run(kDebugAvailable));
}

TEST_F(GlossaryUseTest, KeepsTheGlossaryWhenItsFileVanishes) {
  settings.glossary = tree.Write("glossary.xml", Glossary("doctor"));
  Start(Element("a"));
  ASSERT_EQ(0, unlink(settings.glossary.c_str()));
  Drop("a", "Dr. No");
  Run();
  EXPECT_EQ(kPauseTag + std::string("doctor. No "), DeliveredFile("0_a.text_live_first.raw"));
}

TEST_F(GlossaryUseTest, ReplacesEveryWordOfTheGlossary) {
  settings.glossary = tree.Write(
      "glossary.xml",
      "<glossary><word text='Dr' speech='doctor'/><word text='St' speech='%s $1'/></glossary>");
  Start(Element("a"));
  Drop("a", "Dr. St, Dr Drs");
  Run();
  EXPECT_EQ(kPauseTag + std::string("doctor. %s $1, doctor Drs "),
            DeliveredFile("0_a.text_live_first.raw"));
}

TEST_F(GlossaryUseTest, UsesAnEditedGlossaryFromTheNextPassOn) {
  settings.glossary = tree.Write("glossary.xml", Glossary("doctor"));
  settings.words = 1;
  Start(Element("a"));
  Drop("a", "Dr Dr Dr Dr");
  stand_ins::pauses.on_usleep = [&] { tree.Write("glossary.xml", Glossary("drive")); };
  Run();
  Drop("a", "Dr", "n");
  Run();
  EXPECT_EQ("doctor doctor ", DeliveredFile("1_a.text_live_cont.raw"));
  EXPECT_EQ(kPauseTag + std::string("drive "), DeliveredFile("2_a.text_live_first.raw"));
}

TEST_F(GlossaryUseTest, EndsThePassIfTheGlossaryCannotBeRead) {
  settings.glossary = tree / "glossary.xml";
  Configure(Element("a"));
  player = Build(settings);
  const std::string missing = "Could not open \"" + settings.glossary + "\" for reading";
  EXPECT_EQ(Processing() + Created("a") + Attached("a") + "Now in \"run\" state\n" + missing + "\n",
            RunToFailure());
  EXPECT_EQ("Reading glossary " + settings.glossary + ": " + missing, thrown);
  EXPECT_EQ(missing + "\n", RunToFailure()) << "the configuration has been applied";
  EXPECT_FALSE(Exists(settings.status));
}

TEST_F(GlossaryUseTest, ScansNoDirectoryWhileTheGlossaryIsBroken) {
  settings.glossary = tree.Write("glossary.xml", Glossary("doctor"));
  Start(Element("a"));
  tree.Write("glossary.xml", "<glossary></oops>");
  Drop("a", "Dr");
  EXPECT_EQ("mismatched tag at line 1\n", RunToFailure()) << "the file is not indexed";
  EXPECT_TRUE(Exists(Input("a") + "/m")) << "nor taken";
  tree.Write("glossary.xml", Glossary("drive"));
  Run();
  EXPECT_EQ(kPauseTag + std::string("drive "), DeliveredFile("0_a.text_live_first.raw"));
}

TEST_F(GlossaryUseTest, DropsTheOldGlossaryIfTheNewOneIsMalformed) {
  settings.glossary = tree.Write("glossary.xml", Glossary("doctor"));
  Start(Element("a"));
  tree.Write("glossary.xml", "<glossary>\n<word text='Dr'>\n</glossary>");
  EXPECT_EQ("mismatched tag at line 3\n", RunToFailure());
  EXPECT_EQ("Reading glossary " + settings.glossary + ": mismatched tag at line 3", thrown);
  // The checksum of a missing file is that of the last one, but there is no glossary to keep.
  ASSERT_EQ(0, unlink(settings.glossary.c_str()));
  RunToFailure();
  EXPECT_EQ("Reading glossary " + settings.glossary + ": Could not open \"" + settings.glossary +
                "\" for reading",
            thrown);
}

}  // namespace

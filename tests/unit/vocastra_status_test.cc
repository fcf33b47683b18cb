#include <fcntl.h>

#include <algorithm>

#include "vocastra_fixtures.h"

namespace {

class StatusFileTest : public VocastraTest {};

TEST_F(StatusFileTest, ShowsTheMessageThatIsPlayedAndThoseThatWait) {
  settings.words = 1;
  Start(Element("a", "loops='2'") + Element("b", "priority='1'"));
  Drop("a", "1 2 3");
  Drop("b", "text", "n");
  Drop("b", "text", "o");
  const int id = NextMessageID();
  std::vector<std::string> states;
  stand_ins::pauses.on_usleep = [&] { states.push_back(Status()); };
  Run();
  ASSERT_EQ(7U, states.size());
  const auto status = [&](int timestamp_, int playing_, const std::string& a_,
                          const std::string& b_) {
    const auto directory = [&](const std::string& name_, const std::string& rest_) {
      return "    <directory id=\"" + name_ + "\" path=\"" + Input(name_) +
             "\" status=\"1\" total-file-count=" + rest_;
    };
    return "<tts-status now-playing=\"" + Number(playing_) +
           "\" output-bound=\"0\" state=\"run\" timestamp=\"" + Number(timestamp_) + "\">\n" +
           directory("a", a_) + directory("b", b_) + "</tts-status>\n";
  };
  const auto message = [](const std::string& name_, int message_id_, int plays_) {
    return ">\n        <message filename=\"" + name_ + "\" id=\"" + Number(message_id_) +
           "\" plays=\"" + Number(plays_) + "\"/>\n    </directory>\n";
  };
  const std::string none = "\"0\" updated-file-count=\"0\"";
  const std::string n = "\"1\" updated-file-count=\"1\"" + message("n", id + 1, 0);
  EXPECT_EQ(status(1, id, none + message("m", id, 0), n), states[1]) << "after 1 2";
  EXPECT_EQ(status(2, id, none + message("m", id, 1), n), states[2]) << "after 3";
  EXPECT_EQ(status(4, id, none + "/>\n", n), states[4]) << "after the second play";
  const std::string o = "\"1\" updated-file-count=\"0\"" + message("o", id + 2, 0);
  EXPECT_EQ(status(5, id + 1, none + "/>\n", o), states[5]) << "after n";
  EXPECT_EQ(status(6, id + 2, none + "/>\n", none + "/>\n"), states[6]) << "after o";
  Run();
  EXPECT_EQ(status(7, 0, none + "/>\n", none + "/>\n"), Status());
}

TEST_F(StatusFileTest, ShowsNoMessageOnceTheWordsOfTheLastOneAreLost) {
  UseTranslator("exit 3\n");
  Start(Element("a"));
  Drop("a", "text");
  const int id = NextMessageID();
  Run();
  EXPECT_EQ(Number(id), StatusAttribute("now-playing"));
  Run();
  EXPECT_EQ("0", StatusAttribute("now-playing"));
}

TEST_F(StatusFileTest, WritesAStatusWithoutDirectories) {
  Start("", "a&amp;b");
  EXPECT_EQ("<tts-status now-playing=\"0\" output-bound=\"0\" state=\"a&b\" timestamp=\"0\"/>\n",
            Status());
}

TEST_F(StatusFileTest, WritesNoStatusWithoutAPath) {
  settings.status = "";
  Start(Element("a"));
  EXPECT_EQ(kNoLog, Run(0x3));
  EXPECT_FALSE(Exists(tree / "status.xml"));
}

TEST_F(StatusFileTest, LogsAStatusFileThatCannotBeOpenedAndDoesNotCountIt) {
  settings.status = tree.MakeDirectory("status");
  settings.words = 1;
  Start(Element("a"));
  const std::string failure = "Could not open \"" + settings.status + "\" for writing\n";
  EXPECT_EQ(failure, Run());
  Drop("a", "1 2 3");
  const std::string engine = "calling engine\ndone calling engine\ncopying ";
  EXPECT_EQ(Taken("a", "1 2 3") + engine + "0_a.text_live_first.raw\n" + failure + engine +
                "1_a.text_live_cont.raw\n" + failure,
            Run());
  ASSERT_EQ(0, rmdir(settings.status.c_str()));
  EXPECT_EQ(kNoLog, Run());
  EXPECT_EQ("0", StatusAttribute("timestamp"));
}

TEST_F(StatusFileTest, DoesNotWaitForAReaderOfItsStatus) {
  settings.status = tree / "fifo";
  ASSERT_EQ(0, mkfifo(settings.status.c_str(), 0600));
  Start("");
  EXPECT_EQ("Could not open \"" + settings.status + "\" for writing\n", Run());
  const int reader = open(settings.status.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  EXPECT_EQ(kNoLog, Run());
  char text[1000] = "";
  const ssize_t length = read(reader, text, sizeof(text) - 1);
  close(reader);
  EXPECT_EQ("<tts-status now-playing=\"0\" output-bound=\"0\" state=\"run\" timestamp=\"0\"/>\n",
            std::string(text, static_cast<size_t>(std::max<ssize_t>(length, 0))));
}

TEST_F(StatusFileTest, MakesAStatusFileThatTheUmaskAllowsOthersToRead) {
  for (const mode_t mask : {0U, 027U}) {
    unlink(settings.status.c_str());
    const mode_t saved = umask(mask);
    Start("");
    umask(saved);
    EXPECT_EQ(S_IFREG | (0666U & ~mask), ModeOf(settings.status));
  }
}

TEST_F(StatusFileTest, FollowsALinkToItsStatusFile) {
  ASSERT_EQ(0, symlink("elsewhere", settings.status.c_str()));
  Start("");
  EXPECT_EQ("0", StatusAttribute("timestamp"));
  EXPECT_TRUE(Exists(tree / "elsewhere"));
}

TEST_F(StatusFileTest, RewritesTheStatusFileInPlace) {
  Start(Element("a"));
  const std::string link = tree / "link";
  ASSERT_EQ(0, ::link(settings.status.c_str(), link.c_str()));
  tree.Write("status.xml", std::string(10000, 'x'));
  Run();
  EXPECT_EQ(Status(), ReadFile(link));
  EXPECT_EQ("1", StatusAttribute("timestamp"));
}

TEST_F(StatusFileTest, EndsThePassIfADirectorysStatusFails) {
  const std::string last_played = tree.MakeDirectory("last");
  Start(Element("a", "dir-mode='cache' last-played-path='" + last_played + "'"));
  ASSERT_EQ(0, rmdir(last_played.c_str()));
  EXPECT_EQ(kNoLog, RunToFailure());
  EXPECT_EQ("Could not open directory " + last_played + "/", thrown);
  EXPECT_EQ("", Status());
  EXPECT_THAT(DescriptorsOf(settings.status), testing::IsEmpty());
  ASSERT_EQ(0, mkdir(last_played.c_str(), 0777));
  Run();
  EXPECT_EQ("2", StatusAttribute("timestamp")) << "the write that failed counts";
}

}  // namespace

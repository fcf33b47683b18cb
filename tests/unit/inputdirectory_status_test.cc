#include "input_fixtures.h"

namespace {

using testing::ElementsAre;

class StatusTest : public LocalDirectoryTest {};

TEST_F(StatusTest, ReportsItsStateWithoutAMessage) {
  LogOf([&] { input = Build({{"id", "a"}, {"type", "local"}, {"path", directory.path}}); });
  const std::string path = directory.path;
  EXPECT_EQ("<directory id=\"a\" path=\"" + path +
                "\" status=\"0\" total-file-count=\"0\" updated-file-count=\"0\"/>\n",
            StatusOf(*input));
  Scan();
  EXPECT_EQ("<directory id=\"a\" path=\"" + path +
                "\" status=\"1\" total-file-count=\"0\" updated-file-count=\"0\"/>\n",
            StatusOf(*input));
}

TEST_F(StatusTest, ReportsItsActiveMessage) {
  Open({{"id", "a"}, {"display-id", "lobby"}, {"loops", "2"}}, 1);
  directory.Write("n", "next");
  Activate("one two three");
  const std::string id = Number(input->GetActiveMessageID());
  const auto status_with_plays = [&](const std::string& plays_) {
    return "<directory id=\"a\" path=\"" + directory.path +
           "\" status=\"1\" total-file-count=\"2\" updated-file-count=\"1\">\n    <message "
           "filename=\"m\" id=\"" +
           id + "\" plays=\"" + plays_ + "\"/>\n</directory>\n";
  };
  EXPECT_EQ(status_with_plays("0"), StatusOf(*input));
  EXPECT_THAT(input->GetWords(), ElementsAre("one", "two"));
  EXPECT_EQ(status_with_plays("0"), StatusOf(*input));
  EXPECT_THAT(input->GetWords(), ElementsAre("three"));
  EXPECT_EQ(status_with_plays("1"), StatusOf(*input));
}

TEST_F(StatusTest, ReportsItsPathAsConfigured) {
  const std::string path = directory / "";
  LogOf([&] { input = Build({{"type", "local"}, {"path", path}}); });
  EXPECT_EQ(path, StatusAttribute(*input, "path"));
}

TEST_F(StatusTest, ReportsNoUpdatedFilesInCacheModeWithoutLastPlayedDirectory) {
  Open({{"dir-mode", "cache"}});
  EXPECT_EQ("0", Queued());
}

TEST_F(StatusTest, CannotReportTheCopiesOfAMissingLastPlayedDirectory) {
  const std::string path = last_played.MakeDirectory("gone");
  Open({{"dir-mode", "cache"}, {"last-played-path", path}});
  ASSERT_EQ(0, rmdir(path.c_str()));
  EXPECT_EQ("Could not open directory " + path + "/", ThrownText([&] { input->GetStatus(); }));
}

}  // namespace

#include "player_fixtures.h"
#include "urgency.h"

namespace {

TEST(UrgencyTest, DisplayIdHasThePriorityOfItsMostUrgentDirectory) {
  const TemporaryDirectory directory;
  Urgency urgency(directory.Write("config", kConfiguration), "");
  EXPECT_EQ(kLeastUrgent, urgency.Of("alarm"));
  const std::string log = LogOf([&] { urgency.ReadConfiguration(); });
  EXPECT_THAT(log, ::testing::HasSubstr("priority"));  // Of "bad".
  for (const auto& [id, priority] : {std::pair("lobby", 5),
                                     {"alarm", 1},
                                     {"hall", 3},
                                     {"plain", 0},
                                     {"news", kLeastUrgent},
                                     {"bad", kLeastUrgent},
                                     {"", kLeastUrgent}}) {
    EXPECT_EQ(priority, urgency.Of(id)) << id;
  }
}

TEST(UrgencyTest, ConfigurationIsReadAgainWhenItChanges) {
  const TemporaryDirectory directory;
  const std::string path = directory / "config";
  Urgency urgency(path, "");
  EXPECT_NE("", ThrownText([&] { urgency.ReadConfiguration(); }));
  urgency.ReadConfiguration();  // This does not throw, as the file is still missing.
  directory.Write("config", "<tts-config><directory id=\"a\" priority=\"4\"/></tts-config>");
  urgency.ReadConfiguration();
  EXPECT_EQ(4, urgency.Of("a"));
  directory.Write("config", "<tts-config>");
  directory.Write("config", "<tts-config><broken</tts-config>");
  EXPECT_NE("", ThrownText([&] { urgency.ReadConfiguration(); }));
  EXPECT_EQ(4, urgency.Of("a"));
  directory.Write("config", "<tts-config><directory id=\"a\" priority=\"-6\"/></tts-config>");
  urgency.ReadConfiguration();
  EXPECT_EQ(-6, urgency.Of("a"));
}

TEST(UrgencyTest, StatusHasTheActiveDirectories) {
  const TemporaryDirectory directory;
  Urgency urgency(directory.Write("config", kConfiguration), directory / "status");
  LogOf([&] { urgency.ReadConfiguration(); });
  urgency.ReadStatus();
  EXPECT_EQ(-1, urgency.Timestamp());
  EXPECT_EQ(kLeastUrgent, urgency.MostUrgentActive());

  directory.Write("status", StatusText(7, "news", true));
  urgency.ReadStatus();
  EXPECT_EQ(7, urgency.Timestamp());
  EXPECT_EQ(5, urgency.MostUrgentActive());
  EXPECT_TRUE(urgency.IsActive("lobby"));
  EXPECT_FALSE(urgency.IsActive("news"));
  EXPECT_TRUE(urgency.IsOutputBound());
  EXPECT_FALSE(urgency.IsStopped());

  directory.Write("status", StatusText(8, "alarm", false).substr(0, 100));
  urgency.ReadStatus();
  EXPECT_EQ(7, urgency.Timestamp());

  directory.Write("status", StatusText(9, "", false, "stop"));
  urgency.ReadStatus();
  EXPECT_EQ(kLeastUrgent, urgency.MostUrgentActive());
  EXPECT_FALSE(urgency.IsOutputBound());
  EXPECT_TRUE(urgency.IsStopped());

  unlink((directory / "status").c_str());
  urgency.ReadStatus();
  EXPECT_EQ(-1, urgency.Timestamp());
}

}  // namespace

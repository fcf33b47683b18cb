#include <tuple>

#include "remote_fixtures.h"
#include "stand_ins/clock.h"

namespace {

class RemoteDirectoryTest : public HelperTest {
 protected:
  ~RemoteDirectoryTest() override { Destroy(input); }

  void Open(const std::string& type_, const Attributes& attributes_ = {}) {
    input = Start(type_, "/bin/true", attributes_);
    input->SetFileParser(&parser);
    watch = StatusAttribute(*input, "path");
  }
  void Write(const std::string& name_, const std::string& text_) const {
    std::ofstream(watch + "/" + name_) << text_;
  }
  // As the helper does after it has looked at the remote side.
  void Beat(const std::string& text_) const { Write(".helper.timestamp", text_); }
  std::string Scan(unsigned int mask_ = kDebugDefault) const {
    return LogOf([&] { input->Process(); }, mask_);
  }
  std::string Receiving() const { return "Directory " + watch + "/ is receiving updates\n"; }
  std::string NotReceiving() const {
    return "Directory " + watch + "/ is no longer receiving updates\n";
  }

  FakeParser parser;
  std::unique_ptr<InputDirectory> input;
  std::string watch;
};

TEST_F(RemoteDirectoryTest, RecordsButNeverQueuesFilesWhileNoTimestampAppears) {
  Open("cifs", {{"id", "a"}});
  Write("m", "old");
  EXPECT_EQ("Adding m " + CRCText("old") + " to file_map\n", Scan(kDebugAvailable));
  Write("m", "changed");
  stand_ins::now += 1000;
  EXPECT_EQ("Updating m in file_map\n", Scan(kDebugAvailable));
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  EXPECT_EQ("<directory id=\"a\" path=\"" + watch +
                "\" status=\"0\" total-file-count=\"1\" updated-file-count=\"0\"/>\n",
            StatusOf(*input));
}

TEST_F(RemoteDirectoryTest, BecomesAvailableWhenTheTimestampAppears) {
  for (const RemoteType& remote : kRemoteTypes) {
    Destroy(input);
    Open(remote.type);
    EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
    Beat("1");
    EXPECT_EQ(Receiving(), Scan(kDebugAvailable));
    EXPECT_EQ("1", StatusAttribute(*input, "status")) << remote.type;
    Beat("2");
    EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  }
}

TEST_F(RemoteDirectoryTest, QueuesNothingThatWasThereWhenItBecameAvailable) {
  Open("ftp");
  Write("early", "early");
  Scan();
  Write("late", "late");
  Beat("1");
  EXPECT_EQ(Receiving() + "Adding late " + CRCText("late") + " to file_map\n", Scan());
  Write("new", "new");
  EXPECT_EQ("Adding new " + CRCText("new") + " to file_map\n", Scan());
  EXPECT_EQ("new", input->GetActiveMessageFilename());
  EXPECT_TRUE(Exists(watch + "/early"));
  EXPECT_FALSE(Exists(watch + "/new"));
}

TEST_F(RemoteDirectoryTest, LooksForFilesAndTimestampInItsSubdirectory) {
  Open("cifs", {{"subdir", "sub"}});
  EXPECT_EQ("Could not open directory " + watch + "/sub/", ThrownText([&] { input->Process(); }));
  ASSERT_EQ(0, mkdir((watch + "/sub").c_str(), 0700));
  Beat("1");
  EXPECT_EQ(kNoLog, Scan());
  Write("sub/.helper.timestamp", "1");
  Write("sub/m", "old");
  EXPECT_EQ("Directory " + watch + "/sub/ is receiving updates\nAdding m " + CRCText("old") +
                " to file_map\n",
            Scan());
}

TEST_F(RemoteDirectoryTest, TimesOutOnlyAfterItsTimeout) {
  const std::vector<std::tuple<std::string, Attributes, time_t>> cases = {
      {"cifs", {}, 5},
      {"cifs", {{"ftp-poll-rate", "60"}}, 5},
      {"ftp", {}, 10},
      {"ftp", {{"ftp-poll-rate", "7"}}, 12},
      {"ftp", {{"ftp-poll-rate", "0"}}, 5},
      {"ftp", {{"ftp-poll-rate", "-3"}}, 2},
      {"ftp", {{"ftp-poll-rate", "2147483647"}}, time_t{2147483647} + 5}};
  for (const auto& [type, attributes, timeout] : cases) {
    Destroy(input);
    stand_ins::now = 1000000;
    Open(type, attributes);
    Beat("1");
    Scan();
    stand_ins::now += timeout;
    EXPECT_EQ(kNoLog, Scan(kDebugAvailable)) << type << timeout;
    EXPECT_EQ("1", StatusAttribute(*input, "status"));
    stand_ins::now += 1;
    EXPECT_EQ(NotReceiving(), Scan(kDebugAvailable)) << type << timeout;
    EXPECT_EQ("0", StatusAttribute(*input, "status"));
    stand_ins::now += 1;
    EXPECT_EQ(kNoLog, Scan(kDebugAvailable)) << type << timeout;
  }
}

TEST_F(RemoteDirectoryTest, TimesOutEvenIfItCannotBeListed) {
  Open("cifs", {{"subdir", "sub"}});
  ASSERT_EQ(0, mkdir((watch + "/sub").c_str(), 0700));
  Write("sub/.helper.timestamp", "1");
  Scan();
  ASSERT_EQ(0, rename((watch + "/sub").c_str(), (watch + "/away").c_str()));
  stand_ins::now += 6;
  EXPECT_EQ("Directory " + watch + "/sub/ is no longer receiving updates\n",
            WholeLogOf([&] { ThrownText([&] { input->Process(); }); }));
  EXPECT_EQ("0", StatusAttribute(*input, "status"));
}

TEST_F(RemoteDirectoryTest, StaysAvailableWhileTheTimestampChanges) {
  Open("cifs");
  Beat("0");
  EXPECT_EQ(Receiving(), Scan());
  for (int i = 1; i < 20; ++i) {
    stand_ins::now += 5;
    Beat(Number(i));
    EXPECT_EQ(kNoLog, Scan(kDebugAvailable)) << i;
  }
}

// At 03:14:07 on 19 January 2038 a 32-bit count of seconds overflows; devices outlive it.
TEST_F(RemoteDirectoryTest, TimesOutAfterJanuary2038) {
  static_assert(sizeof(time_t) == 8);
  stand_ins::now = 0x7FFFFFFF;
  Open("cifs");
  Beat("1");
  EXPECT_EQ(Receiving(), Scan());
  stand_ins::now += 5;
  EXPECT_EQ(kNoLog, Scan());
  stand_ins::now += 1;
  EXPECT_EQ(NotReceiving(), Scan());
  Beat("2");
  EXPECT_EQ(Receiving(), Scan());
}

TEST_F(RemoteDirectoryTest, IgnoresATimestampThatIsRewrittenUnchanged) {
  Open("cifs");
  Beat("same");
  Scan();
  stand_ins::now += 6;
  Beat("same");
  EXPECT_EQ(NotReceiving(), Scan());
  ASSERT_EQ(0, unlink((watch + "/.helper.timestamp").c_str()));
  EXPECT_EQ(kNoLog, Scan());
  Beat("same");
  EXPECT_EQ(kNoLog, Scan());
  Beat("other");
  EXPECT_EQ(Receiving(), Scan());
}

TEST_F(RemoteDirectoryTest, IgnoresATimestampWithChecksumZero) {
  Open("cifs");
  Beat("");
  EXPECT_EQ(kNoLog, Scan());
  Beat(std::string(2, '\0'));
  EXPECT_EQ(kNoLog, Scan());
  Beat("1");
  EXPECT_EQ(Receiving(), Scan());
  stand_ins::now += 6;
  Beat(std::string(1, '\0'));
  EXPECT_EQ(NotReceiving(), Scan());
}

TEST_F(RemoteDirectoryTest, StaysAvailableAfterALateUpdate) {
  Open("cifs");
  Beat("1");
  Scan();
  stand_ins::now += 100;
  Beat("2");
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable)) << "the update is looked at before the time-out";
}

TEST_F(RemoteDirectoryTest, SpeaksFilesThatArriveWhenUpdatesHaveStopped) {
  Open("cifs");
  Beat("1");
  Scan();
  stand_ins::now += 6;
  EXPECT_EQ(NotReceiving(), Scan());
  Write("m", "new");
  Scan();
  EXPECT_EQ("m", input->GetActiveMessageFilename());
}

TEST_F(RemoteDirectoryTest, IgnoresPreview) {
  const TemporaryDirectory last_played;
  LogOf([&] { Open("cifs", {{"preview", "1"}, {"last-played-path", last_played.path}}); });
  Beat("1");
  Scan();
  Write("m", "new");
  Scan();
  EXPECT_EQ(1, input->GetPreview());
  EXPECT_EQ(kNoLog, Scan());
  EXPECT_EQ("0", StatusAttribute(*input, "updated-file-count"));
}

}  // namespace

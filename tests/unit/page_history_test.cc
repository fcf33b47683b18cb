#include "history.h"
#include "test_util.h"

namespace {

using testing::SizeIs;

MessageRecord Record(const std::string& file_, MessageRecord::State state_,
                     long long arrived_ = 100, long long ended_ = 0) {
  MessageRecord record;
  record.directory = "d";
  record.file = file_;
  record.state = state_;
  record.arrived = arrived_;
  record.ended = ended_;
  return record;
}

class HistoryTest : public testing::Test {
 protected:
  long long Add(const std::string& file_, const std::string& text_ = "text") {
    Entry entry;
    entry.directory = "d";
    entry.file = file_;
    entry.text = text_;
    entry.user = "anna";
    entry.arrived = 100;
    return history->Add(std::move(entry));
  }

  void Tell(const std::vector<MessageRecord>& records_, long long now_ = 101) {
    Health health;
    health.messages = records_;
    history->Update(health, true, now_, [](Entry& entry_) { entry_.text = "read"; });
  }

  void Restart() { history = std::make_unique<History>(directory.path); }

  const Entry& Last() const { return history->Entries().back(); }

  const TemporaryDirectory directory;
  std::unique_ptr<History> history = std::make_unique<History>(directory.path);
};

TEST_F(HistoryTest, OwnMessageIsFollowedToItsEndAndKept) {
  const long long id = Add("m", "One\n two");
  Tell({Record("m", MessageRecord::kWaiting, 101)});
  Tell({Record("m", MessageRecord::kSpeaking, 101)});
  EXPECT_FALSE(Last().IsOver());
  Tell({Record("m", MessageRecord::kSaid, 101, 105)});
  Tell({Record("m", MessageRecord::kHeard, 101, 105)}, 108);
  Restart();
  ASSERT_THAT(history->Entries(), SizeIs(1));
  EXPECT_EQ(id, Last().id);
  EXPECT_EQ("One two", Last().text);
  EXPECT_EQ("anna", Last().user);
  EXPECT_EQ(MessageRecord::kHeard, Last().state);
  EXPECT_EQ(101, Last().arrived);
  EXPECT_EQ(108, Last().ended);
  EXPECT_TRUE(Last().IsOver());
}

TEST_F(HistoryTest, MessagesOfOthersAreReadAndTheSameNameMayComeAgain) {
  Tell({Record("m", MessageRecord::kHeard, 50, 60), Record("m", MessageRecord::kWaiting, 100)});
  Tell({Record("m", MessageRecord::kHeard, 50, 60), Record("m", MessageRecord::kHeard, 100, 110)});
  ASSERT_THAT(history->Entries(), SizeIs(2));
  EXPECT_EQ("", history->Entries()[0].text);  // Its file was gone.
  EXPECT_EQ("read", Last().text);
  EXPECT_EQ("", Last().user);
  EXPECT_EQ(60, history->Entries()[0].ended);
}

TEST_F(HistoryTest, MessageThatTheStationDoesNotKnowIsForgottenAfterAWhile) {
  Add("m");
  Tell({}, 120);
  EXPECT_EQ(Entry::kOpen, Last().fate);
  Tell({}, 131);
  EXPECT_EQ(Entry::kForgotten, Last().fate);
  Tell({Record("m", MessageRecord::kSpeaking)}, 132);
  EXPECT_EQ(Entry::kOpen, Last().fate);
}

TEST_F(HistoryTest, WithdrawnMessageStaysWithdrawnUnlessItIsSpoken) {
  for (const bool is_said : {false, true}) {
    const long long id = Add(is_said ? "a" : "b");
    history->NoteWithdrawn(id, "otto");
    Tell({Record(is_said ? "a" : "b", is_said ? MessageRecord::kSaid : MessageRecord::kDropped)});
    EXPECT_EQ(is_said ? Entry::kOpen : Entry::kWithdrawn, Last().fate);
    EXPECT_EQ("otto", Last().withdrawn_by);
  }
}

TEST_F(HistoryTest, KeepsTheLast200AndCutsLongTexts) {
  for (int i = 0; i < 210; ++i) {
    Add("m" + Number(i));
  }
  Add("long", "a" + Repeat("\xC3\xA9", 3000));
  EXPECT_THAT(history->Entries(), SizeIs(200));
  EXPECT_EQ(nullptr, history->Find(1));
  EXPECT_THAT(history->LastChanged(), SizeIs(12));
  Restart();
  EXPECT_THAT(history->Entries(), SizeIs(200));
  EXPECT_EQ("a" + Repeat("\xC3\xA9", 1999), Last().text);
  EXPECT_FALSE(Last().is_whole);
  EXPECT_EQ(212, Add("next"));
}

TEST_F(HistoryTest, SkipsUnreadableLines) {
  Add("m");
  const std::string line = ReadFile(directory / "history");
  directory.Write("history", "\n{\n{\"id\":1}\n[]\nnull\n\xFF\n" + line + line +
                                 line.substr(0, line.size() / 2));
  Restart();
  EXPECT_THAT(history->Entries(), SizeIs(1));
  EXPECT_EQ("m", Last().file);
}

TEST_F(HistoryTest, LogsOnceThatTheFileCannotBeWritten) {
  directory.MakeDirectory("history.new");
  EXPECT_EQ("cannot write " + (directory / "history") + ": Is a directory\n", LogOf([&] {
              Add("a");
              Add("b");
            }));
  EXPECT_THAT(history->Entries(), SizeIs(2));
}

}  // namespace

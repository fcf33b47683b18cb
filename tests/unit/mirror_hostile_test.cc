// Hostile and faulty servers.

#include <malloc.h>

#include "mirror_fixtures.h"

namespace {

using testing::EndsWith;
using testing::StartsWith;

constexpr size_t kFileLines = 20;  // In a minute.
constexpr char kLeftOut[] = "more messages about files are left out for a minute\n";

size_t LinesOf(const std::string& text_) {
  return static_cast<size_t>(std::count(text_.begin(), text_.end(), '\n'));
}

using MirrorHostileTest = MirrorTest;

TEST_F(MirrorHostileTest, UnsafeNamesAreRefusedOnce) {
  const std::string longest(255, 'x');
  const std::vector<std::string> unsafe = {"",      ".",          "..",         ".hidden",    "-rf",
                                           "~root", "a b",        "a/b",        "$(id)",      "q'x",
                                           "a\nb",  "semi;colon", "t\xc3\xbcr", longest + "x"};
  const std::vector<std::string> safe = {"a", "_", "0", "A.b_c+d=e@f-9", longest};
  for (const std::string& name : unsafe) {
    server.Put(name, "Evil.");
  }
  server.Put(std::string("a\0b", 3), "Evil.");
  for (const std::string& name : safe) {
    server.Put(name, "Good.");
  }
  EXPECT_EQ("", Look());
  const std::string log = Run(100);
  EXPECT_EQ(unsafe.size() + 1, LinesOf(log));
  for (const char* const name : {"", "-rf", "$(id)", "a?b", "t??r"}) {
    EXPECT_THAT(log, testing::HasSubstr("refused the name \"" + std::string(name) + "\"\n"));
  }
  EXPECT_EQ(safe.size(), Local().size());
}

TEST_F(MirrorHostileTest, UnsafeNameThatOneLookShowsIsNotReported) {
  Look();
  server.Put("a b", "Evil.");
  Look();
  server.files.clear();
  EXPECT_EQ("", Run(20));
}

TEST_F(MirrorHostileTest, FileWithoutSizeAndTimeIsRefusedAlone) {
  server.Put("a.txt", "A.");
  server.listing = [](const std::function<void(const RemoteFile&)>& take_) {
    take_({"b.txt", 0, "", false, true});
    take_({"a.txt", 2, "1"});
  };
  EXPECT_EQ("refused b.txt, as the server does not tell its size and time\n", Run(100));
  EXPECT_EQ((Files{{"a.txt", "A."}}), Local());
}

TEST_F(MirrorHostileTest, NameThatIsListedTwiceIsTakenOnce) {
  server.Put("a.txt", "A.");
  server.listing = [](const std::function<void(const RemoteFile&)>& take_) {
    for (const uint64_t size : {2U, 5U, 2U}) {
      take_({"a.txt", size, "1"});
      take_({"a b", size, "1"});
    }
  };
  EXPECT_EQ("refused the name \"a b\"\n", Run(100));
  EXPECT_EQ((Files{{"a.txt", "A."}}), Local());
}

TEST_F(MirrorHostileTest, SlowFileLetsOthersPassAndGoesOnLater) {
  Run(20);
  server.Put("a_slow", Repeat("0123456789", 50), "1");  // It is older, so it comes first.
  server.piece = 20;
  server.seconds["a_slow"] = 1;
  server.Put("b", "B.", "2");
  std::map<std::string, double> delivered;
  std::string beat = BeatText();
  const double start = server.clock;
  double last_beat = start;
  double pause = 0;
  server.on_piece = [&](const std::string&, uint64_t) {
    if (BeatText() != beat) {
      beat = BeatText();
      last_beat = server.clock;
    }
    pause = std::max(pause, server.clock - last_beat);
  };
  while (server.clock < start + 100) {
    EXPECT_EQ("", Look());
    for (const auto& [name, content] : Local()) {
      delivered.try_emplace(name, server.clock - start);
    }
  }
  EXPECT_LT(delivered["b"], 5 + 3 + 10);
  EXPECT_EQ(Repeat("0123456789", 50), Local()["a_slow"]);
  // Each byte was fetched once, although the file took several turns.
  EXPECT_EQ(5, server.Count("fetch a_slow"));
  EXPECT_EQ("fetch a_slow 400",
            *std::find_if(server.calls.rbegin(), server.calls.rend(), [](const std::string& call_) {
              return call_.rfind("fetch a_slow", 0) == 0;
            }));
  EXPECT_LT(pause, 2.5);
}

TEST_F(MirrorHostileTest, EndlessFilesDelayNoOther) {
  Run(20);
  for (int i = 0; i < 20; ++i) {
    const std::string name = "endless" + std::to_string(i);
    server.Put(name, std::string(1 << 20, 'x'), "0");
    server.seconds[name] = 2;
  }
  Run(100);
  for (int i = 0; i < 10; ++i) {
    const std::string name = "message" + std::to_string(i);
    server.Put(name, "Hear me.", "9");
    const double start = server.clock;
    while (Local().count(name) == 0) {
      ASSERT_EQ("", Look());
    }
    EXPECT_LT(server.clock - start, 5 + 3 + 2 * 10 + 1) << i;
  }
  // Their parts do not fill the disk.
  const std::vector<std::string> names = Names();
  EXPECT_GE(8, std::count_if(names.begin(), names.end(), [](const std::string& name_) {
              return name_.rfind(".helper.part.", 0) == 0;
            }));
}

TEST_F(MirrorHostileTest, EndlessFileDoesNotHoldUpTheFirstBeatForever) {
  server.Put("endless", std::string(1 << 20, 'x'));
  server.seconds["endless"] = 2;
  const double start = server.clock;
  while (BeatText().empty()) {
    ASSERT_EQ("", Look());
  }
  EXPECT_LT(server.clock - start, 100);
}

TEST_F(MirrorHostileTest, SlowOldFileIsDeliveredBeforeTheFirstBeat) {
  server.Put("old", std::string(1000, 'x'));
  server.seconds["old"] = 3;
  while (BeatText().empty()) {
    ASSERT_EQ("", Look());
  }
  EXPECT_EQ(1000, Local()["old"].size());
}

TEST_F(MirrorHostileTest, SlowFileThatChangesIsFetchedAgainFromItsStart) {
  Run(20);
  server.Put("a", std::string(1000, 'x'), "1");
  server.seconds["a"] = 3;
  while (server.Count("fetch") == 0) {
    Look();
  }
  server.Put("a", std::string(1000, 'y'), "2");
  EXPECT_EQ("", Run(100));
  EXPECT_EQ(std::string(1000, 'y'), Local()["a"]);
}

TEST_F(MirrorHostileTest, FileWithoutAnExactTimeDelaysNoOther) {
  Run(20);
  server.Put("a", "A.", "1");
  server.Put("b", "B.", "2");
  server.on_call = [this](const std::string& call_) {
    server.clock += call_ == "time a" ? 1000 : 0;
  };
  EXPECT_EQ("", Run(5 + 3 + 10));
  EXPECT_EQ((Files{{"b", "B."}}), Local());
}

TEST_F(MirrorHostileTest, TenThousandLargeFilesDoNotFillTheLog) {
  for (int i = 0; i < 10'000; ++i) {
    server.files["large" + std::to_string(i)] = {"", "1", "", (1 << 20) + 1};
  }
  server.Put("a", "A.");
  const std::string log = Run(20);
  EXPECT_EQ(kFileLines + 1, LinesOf(log));
  EXPECT_THAT(log, StartsWith("large0 is larger than 1048576 bytes\n"));
  EXPECT_THAT(log, EndsWith(kLeftOut));
  EXPECT_EQ((Files{{"a", "A."}}), Local());
  EXPECT_EQ("", Run(200));
  EXPECT_EQ(1, server.Count("fetch"));

  server.Put("large0", "Small.", "2");
  EXPECT_EQ("fetched large0 now\n", Run(20));
}

TEST_F(MirrorHostileTest, LargestFileIsDelivered) {
  server.piece = 10'000;
  server.Put("a", std::string(1 << 20, 'x'));
  EXPECT_EQ("", Run(20));
  EXPECT_EQ(1 << 20, Local()["a"].size());
}

TEST_F(MirrorHostileTest, NamesThatChangeInEachLookDoNotFillTheLog) {
  int number = 0;
  server.listing = [&](const std::function<void(const RemoteFile&)>& take_) {
    for (int i = 0; i < 2000; ++i) {
      const int half = (number + i) / 1000;  // Each name is in two listings.
      take_({"evil name " + std::to_string(half * 1000 + i % 1000), 1, "1"});
    }
    number += 1000;
  };
  EXPECT_GE(22 * kFileLines, LinesOf(Run(1200)));
}

TEST_F(MirrorHostileTest, ReasonsThatChangeDoNotFillTheLog) {
  int number = 0;
  server.on_call = [&](const std::string&) { throw "error " + std::to_string(++number); };
  EXPECT_EQ(4, LinesOf(Run(1000)));
}

struct Endless {
  const char* name;
  size_t name_size;
  double seconds;  // Between entries.
  const char* message;
};

constexpr char kTooMany[] = "more than 100000 files, or than 8388608 bytes in their names\n";
constexpr Endless kEndless[] = {
    {"short names", 10, 0, kTooMany},
    {"long names", 250, 0, kTooMany},
    {"very long names", 1 << 20, 0, kTooMany},
    {"slow entries", 10, 0.01, "no end after 60 seconds\n"},
};

TEST_F(MirrorHostileTest, EndlessListingIsEnded) {
  for (const Endless& row : kEndless) {
    SCOPED_TRACE(row.name);
    uint64_t number = 0;
    server.listing = [&](const std::function<void(const RemoteFile&)>& take_) {
      for (;;) {
        server.clock += row.seconds;
        const std::string text = std::to_string(++number);
        take_({std::string(row.name_size - text.size(), 'x') + text, 1, "1"});
      }
    };
    mirror.reset();
    const size_t memory = mallinfo2().uordblks;
    const double start = server.clock;
    EXPECT_EQ(std::string("no updates: ") + row.message, Look());
    EXPECT_GT(start + 60 + settings.poll_seconds + 256 * row.seconds, server.clock);
    EXPECT_EQ("", Run(12));
    EXPECT_GT(memory + (6 << 20), mallinfo2().uordblks);  // Of that listing nothing is left.
  }
  EXPECT_EQ("", BeatText());
  server.listing = nullptr;
  server.Put("a", "A.");
  EXPECT_EQ("works again\n", Run(20));
  EXPECT_EQ((Files{{"a", "A."}}), Local());
}

TEST_F(MirrorHostileTest, HundredThousandFilesAreListed) {
  server.listing = [&](const std::function<void(const RemoteFile&)>& take_) {
    for (int i = 0; i < 100'000 - 1; ++i) {
      take_({"file" + std::to_string(i), (1 << 20) + 1, "1"});
    }
    take_({"a", 2, "1"});
  };
  server.files["a"] = {"A.", "1", "", 0};
  EXPECT_EQ(kFileLines + 1, LinesOf(Run(20)));
  EXPECT_EQ((Files{{"a", "A."}}), Local());
}

// A change of a file of ten bytes while it is fetched.
struct Change {
  const char* name;
  const char* content;  // Of the file that comes,
  uint64_t listed;      // which has this size in the listing,
  const char* time;     // and this time after the transfer.
};

constexpr Change kChanges[] = {
    {"shorter", "012345678", 10, "1"},
    {"empty", "", 10, "1"},
    {"longer", "0123456789x", 10, "1"},
    {"much longer", "0123456789012345678901234567890123456789", 10, "1"},
    {"later", "0123456789", 10, "2"},
};

TEST_F(MirrorHostileTest, FileThatChangesWhileItIsFetchedIsNotDelivered) {
  for (const Change& change : kChanges) {
    SCOPED_TRACE(change.name);
    mirror.reset();
    server.piece = 7;
    server.files["a"] = {change.content, "1", "same", change.listed};
    server.on_call = [&](const std::string& call_) {
      // The listing does not show the change.
      server.files["a"].time = call_.rfind("fetch", 0) == 0 ? change.time : server.files["a"].time;
      server.files["a"].time = call_ == "list" ? "1" : server.files["a"].time;
    };
    EXPECT_EQ("a changed while it was fetched\n", Run(100));
    EXPECT_EQ(Files(), Local());
    server.on_call = [](const std::string&) {};
    server.Put("a", "At last.", change.name);
    EXPECT_EQ("fetched a now\n", Run(100));
    EXPECT_EQ("At last.", TakeLocal("a"));
  }
}

TEST_F(MirrorHostileTest, ConnectionMayBeCutAtAnyByte) {
  const std::string content = "0123456789";
  server.piece = 1;
  for (uint64_t cut = 0; cut < content.size(); ++cut) {
    SCOPED_TRACE(cut);
    server.Put("a", content, std::to_string(cut));
    int cuts = 0;
    server.on_piece = [&](const std::string&, uint64_t sent_) {
      if (sent_ == cut && ++cuts <= 2) {
        throw std::string("connection lost");
      }
    };
    EXPECT_EQ("cannot fetch a: connection lost\nfetched a now\n", Run(200));
    EXPECT_EQ(content, TakeLocal("a"));
    EXPECT_EQ("", Run(20));
    EXPECT_EQ(Files(), Local());
  }
}

TEST_F(MirrorHostileTest, FileIsFetchedFromItsStartIfTheServerCannotResume) {
  server.piece = 1;
  server.Put("a", "0123456789");
  int cuts = 0;
  server.on_piece = [&](const std::string&, uint64_t sent_) {
    if (sent_ == 5 && ++cuts == 1) {
      throw std::string("connection lost");
    }
  };
  server.on_call = [](const std::string& call_) {
    if (call_ == "fetch a 5") {
      throw std::string("REST not understood");
    }
  };
  EXPECT_EQ("cannot fetch a: connection lost\nfetched a now\n", Run(200));
  EXPECT_EQ("0123456789", TakeLocal("a"));
}

TEST_F(MirrorHostileTest, LostServerIsReportedRatherThanTheFile) {
  server.Put("a", "A.");
  bool is_gone = false;
  server.on_piece = [&](const std::string&, uint64_t) { is_gone = true; };
  server.on_call = [&](const std::string&) {
    if (is_gone) {
      throw std::string("gone");
    }
  };
  EXPECT_EQ("no updates: gone\n", Run(20));
  EXPECT_EQ("", BeatText());
  server.on_piece = [&](const std::string&, uint64_t) {};
  is_gone = false;
  EXPECT_EQ("works again\n", Run(20));
  EXPECT_EQ((Files{{"a", "A."}}), Local());
}

TEST_F(MirrorHostileTest, FilesThatCannotBeFetchedDelayNoOther) {
  for (int i = 0; i < 1000; ++i) {
    server.Put("bad" + std::to_string(i), "Bad.", "0");
  }
  server.Put("good", "Good.", "9");
  server.on_call = [](const std::string& call_) {
    if (call_.rfind("fetch bad", 0) == 0) {
      throw std::string("Permission denied");
    }
  };
  EXPECT_EQ(kFileLines + 1, LinesOf(Run(40)));
  EXPECT_EQ((Files{{"good", "Good."}}), Local());
  EXPECT_NE("", BeatText());
}

TEST_F(MirrorHostileTest, FileThatVanishesBeforeItIsFetchedIsNotReported) {
  server.Put("a", "A.");
  server.on_call = [this](const std::string& call_) {
    if (call_[0] == 'f') {
      server.files.clear();
    }
  };
  EXPECT_EQ("", Run(20));
  EXPECT_EQ(Files(), Local());
}

}  // namespace

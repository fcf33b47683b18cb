#include <dirent.h>

#include <nlohmann/json.hpp>

#include "clock.h"
#include "desk.h"
#include "health.h"
#include "playerstate.h"
#include "test_util.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

constexpr char kEvil[] = "</textarea><script>alert('\"&')</script>";

class DeskTest : public testing::Test {
 protected:
  DeskTest() {
    directory.Write(
        "run/directories.xml",
        "<tts-config state=\"run\"><directory id=\"near\" type=\"local\" path=\"" + in +
            "\" priority=\"5\" conv-opts=\"speed=350\" loops=\"2\"/>"
            "<directory id=\"form\" type=\"local\" path=\"" +
            in +
            "\" parser=\"p\" encoding=\"utf16\" priority=\"7\"/>"
            "<directory id=\"kept\" type=\"local\" path=\"/in\" dir-mode=\"cache\"/>"
            "<directory id=\"far\" type=\"ftp\" priority=\"1\"/>"
            "<directory id=\"&lt;i>\" type=\"local\" path=\"/nowhere\"/>"
            "<parser id=\"p\" type=\"xml\"><field tag=\"t\" attr=\"\" attr_value=\"\"/></parser>"
            "</tts-config>");
    directory.Write("templates", "T|near|To {place}.\n" + std::string(kEvil) + "|near|{<b>}\nx\n");
    chmod(directory.Write("translator", "#!/bin/sh\ncp \"$1\" \"$2\"\n").c_str(), 0755);
    health.station = getpid();
    health.daemon = getpid();
    Tell();
    desk = std::make_unique<Desk>(DeskPaths{run, directory.MakeDirectory("state"),
                                            directory / "templates", directory / "translator"});
  }

  void Tell() {
    WriteHealth(run + "/health", health);
    if (desk) {
      EXPECT_TRUE(desk->OnRunChanged());
      EXPECT_FALSE(desk->OnRunChanged());
    }
  }

  // The status, and the text or the redirection's target.
  Response Get(const std::string& path_, Role role_ = Role::kOperate) {
    return desk->Handle({"GET", path_, {}, false}, {"anna", role_, "token-1"});
  }

  Response Post(const std::string& path_, const std::map<std::string, std::string>& form_,
                bool wants_json_ = true, Role role_ = Role::kSay) {
    return desk->Handle({"POST", path_, form_, wants_json_}, {"anna", role_, "token-1"});
  }

  // "200 notice" or "422 error".
  std::string Answer(const std::string& path_, const std::map<std::string, std::string>& form_) {
    Response response;
    log += LogOf([&] { response = Post(path_, form_); });
    const json answer = json::parse(response.body);
    const char* const key = response.status == 200 ? "notice" : "error";
    return Number(response.status) + " " + answer.at(key).get<std::string>();
  }

  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    DIR* const listing = opendir(in.c_str());
    while (const dirent* entry = readdir(listing)) {
      if (entry->d_name[0] != '.') {
        names.emplace_back(entry->d_name);
      }
    }
    closedir(listing);
    return names;
  }

  MessageRecord Record(const std::string& file_, MessageRecord::State state_) const {
    MessageRecord record;
    record.directory = "near";
    record.file = file_;
    record.state = state_;
    record.arrived = time(nullptr);
    record.ended = state_ == MessageRecord::kWaiting ? 0 : record.arrived;
    return record;
  }

  const TemporaryDirectory directory;
  const std::string run = directory.MakeDirectory("run");
  const std::string in = directory.MakeDirectory("in");
  Health health;
  std::string log;
  std::unique_ptr<Desk> desk;
};

TEST_F(DeskTest, PageOffersWhatTheUserMayAnnounce) {
  const std::string page = Get("/").body;
  EXPECT_THAT(page, AllOf(HasSubstr("<option data-pace=\"5.00\" data-loops=\"2\" value=\"near\">"),
                          HasSubstr("value=\"&lt;i&gt;\""), HasSubstr("name=\"field-0\""),
                          HasSubstr("aria-label=\"place\""), HasSubstr("value=\"token-1\"")));
  EXPECT_THAT(page, AllOf(Not(HasSubstr("value=\"kept\"")), Not(HasSubstr("value=\"far\""))));
  EXPECT_THAT(Get("/", Role::kLook).body,
              AllOf(HasSubstr("Nothing is playing."), Not(HasSubstr("action=\"/say\""))));
  EXPECT_LE(page.size() + Desk::OpenFile("/style.css")->body.size() +
                Desk::OpenFile("/desk.js")->body.size() + Desk::OpenFile("/icon.svg")->body.size(),
            60u * 1024);
  EXPECT_EQ(std::nullopt, Desk::OpenFile("/"));
}

TEST_F(DeskTest, WrongRequestsAreRefused) {
  struct Row {
    const char* path;
    std::map<std::string, std::string> form;
    const char* answer;
  };
  const Row rows[] = {
      {"/say", {}, "422 There is no directory \"\"."},
      {"/say", {{"directory", "../in"}}, "422 There is no directory \"../in\"."},
      {"/say", {{"directory", "near"}, {"text", " ., "}}, "422 There is nothing to say."},
      {"/say", {{"directory", "form"}}, "422 Parser \"p\" finds nothing to say in the document."},
      {"/say", {{"template", "U"}}, "422 There is no template \"U\" any more."},
      {"/say", {{"template", "T"}}, "422 Fill in \"place\"."},
      {"/say",
       {{"directory", "kept"}, {"text", "x"}},
       "422 Directory \"kept\" is in cache mode: nothing in it is spoken."},
      {"/preview", {{"directory", "near"}, {"text", "!"}}, "422 There is nothing to say."},
      {"/again", {{"id", "1"}}, "404 This message is no longer known."},
      {"/again", {}, "404 This message is no longer known."},
      {"/withdraw", {{"id", "1x"}}, "404 This message is no longer known."},
      {"/", {}, "405 This page does not allow that method."},
      {"/x", {}, "404 There is no such page."}};
  for (const Row& row : rows) {
    EXPECT_EQ(row.answer, Answer(row.path, row.form)) << row.path;
  }
  EXPECT_THAT(Answer("/say", {{"directory", "far"}, {"text", "x"}}), HasSubstr("of type \"ftp\""));
  EXPECT_THAT(Files(), IsEmpty());
  EXPECT_EQ(403, Post("/say", {}, true, Role::kLook).status);
  EXPECT_EQ(403, Get("/device", Role::kSay).status);
  EXPECT_EQ(404, Get("/preview/1.wav").status);
  EXPECT_EQ(404, Get("/preview/../../etc/passwd").status);
}

TEST_F(DeskTest, RefusedFormComesBackEscaped) {
  const Response response = Post("/say", {{"directory", kEvil}, {"text", kEvil}}, false);
  EXPECT_EQ(422, response.status);
  EXPECT_THAT(response.body, AllOf(HasSubstr("&lt;/textarea&gt;&lt;script&gt;alert(&#39;&quot;"),
                                   Not(HasSubstr("<script>")), Not(HasSubstr("<b>}"))));
  EXPECT_THAT(desk->LoginPage(kEvil), Not(HasSubstr("<script>alert")));
}

TEST_F(DeskTest, MessageIsHandedOverAndFollowed) {
  EXPECT_EQ("200 Handed over.", Answer("/say", {{"template", "T"}, {"blank-0", "<i>Faro"}}));
  ASSERT_EQ(1u, Files().size());
  const std::string file = Files()[0];
  EXPECT_EQ("To <i>Faro.", ReadFile(in + "/" + file));
  EXPECT_THAT(log, MatchesRegex("user anna says in near, as desk-[0-9-]+: To <i>Faro\\.\n"));
  health.messages = {Record(file, MessageRecord::kSaid)};
  Tell();
  PlayerState player;
  player.pid = getpid();
  player.playing = "7_near.text_live_first.raw";
  player.since = time(nullptr);
  WritePlayerState(run + "/player", player);
  EXPECT_TRUE(desk->OnRunChanged());
  const auto event = [&] { return json::parse(desk->Events({"anna", Role::kLook, "secret"})); };
  EXPECT_THAT(event()["now"], AllOf(HasSubstr("To &lt;i&gt;Faro."), HasSubstr("by anna")));
  EXPECT_THAT(event().dump(), Not(HasSubstr("secret")));
  player.playing = "";
  WritePlayerState(run + "/player", player);
  health.messages[0].state = MessageRecord::kHeard;
  Tell();
  EXPECT_THAT(event()["now"], HasSubstr("Nothing is playing."));
  EXPECT_THAT(event()["rows"][0]["html"],
              AllOf(HasSubstr("heard in full"), Not(HasSubstr("Say again"))));
  EXPECT_EQ("200 Handed over again.", Answer("/again", {{"id", "1"}}));
  EXPECT_EQ(2u, Files().size());
}

TEST_F(DeskTest, FormWithoutJavaScriptRedirectsToThePage) {
  Response response;
  LogOf([&] { response = Post("/say", {{"directory", "near"}, {"text", "Go"}}, false); });
  EXPECT_EQ(303, response.status);
  EXPECT_EQ("/", response.location);
  EXPECT_THAT(Get("/").body, HasSubstr(">Handed over.</p>"));
  EXPECT_THAT(Get("/").body, Not(HasSubstr("Handed over.")));
}

TEST_F(DeskTest, DocumentIsInTheEncodingOfItsDirectory) {
  EXPECT_EQ("200 Handed over.", Answer("/say", {{"directory", "form"}, {"field-0", "é"}}));
  const std::string document = ReadFile(in + "/" + Files().at(0));
  EXPECT_EQ(std::string("\xFF\xFE<\0v\0", 6), document.substr(0, 6));
  EXPECT_THAT(document, HasSubstr(std::string("\xE9\0", 2)));
}

TEST_F(DeskTest, MessageCanBeWithdrawnUntilItIsTaken) {
  for (const char* text : {"One", "Two"}) {
    EXPECT_EQ("200 Handed over.", Answer("/say", {{"directory", "near"}, {"text", text}}));
  }
  const std::string second = Files()[0] > Files()[1] ? Files()[0] : Files()[1];
  const std::string first = Files()[0] > Files()[1] ? Files()[1] : Files()[0];
  health.messages = {Record(first, MessageRecord::kWaiting),
                     Record(second, MessageRecord::kWaiting)};
  Tell();
  EXPECT_THAT(Get("/").body, AllOf(HasSubstr("Withdraw: One"), HasSubstr("Withdraw: Two")));
  directory.Write(
      "run/status.xml",
      "<tts-status now-playing=\"0\" output-bound=\"0\" state=\"run\" timestamp=\"1\">\n"
      "    <directory id=\"near\" path=\"/\" status=\"1\" total-file-count=\"1\" "
      "updated-file-count=\"0\">\n        <message filename=\"" +
          first + "\" id=\"1\" plays=\"0\"/>\n    </directory>\n</tts-status>\n");
  EXPECT_EQ("409 Too late: the message was taken already.", Answer("/withdraw", {{"id", "1"}}));
  EXPECT_EQ("200 Withdrawn.", Answer("/withdraw", {{"id", "2"}}));
  EXPECT_THAT(Files(), ElementsAre(first));
  EXPECT_THAT(log, HasSubstr("\nuser anna withdraws in near " + second + ": Two\n"));
  EXPECT_EQ("409 Too late: the message was taken already.", Answer("/withdraw", {{"id", "2"}}));
}

TEST_F(DeskTest, MessageOfOthersIsReadAndEscaped) {
  directory.Write("in/other", std::string("Line\n") + kEvil);
  health.messages = {Record("other", MessageRecord::kWaiting)};
  health.problems = {{"x", kEvil, kEvil, 1}};
  Tell();
  const std::string page = Get("/").body;
  EXPECT_THAT(page, AllOf(HasSubstr("Line &lt;/textarea&gt;"), Not(HasSubstr("<script>"))));
  EXPECT_THAT(Get("/device").body,
              AllOf(HasSubstr("Line 3 is not"), Not(HasSubstr("<script>alert"))));
}

TEST_F(DeskTest, EndOfTheServiceIsNoticedWhileSomebodyWatches) {
  EXPECT_EQ(-1, desk->NextTimeout());
  health.station = 0;
  desk->Events({"anna", Role::kLook, ""});
  EXPECT_GE(2000, desk->NextTimeout());
  EXPECT_LT(0, desk->NextTimeout());
  Tell();
  EXPECT_EQ("503 The device does not speak now: its service does not run.",
            Answer("/say", {{"directory", "near"}, {"text", "Go"}}));
  EXPECT_THAT(Get("/").body, HasSubstr("its service does not run"));
}

TEST_F(DeskTest, PreviewIsMadeAndAnnouncesNothing) {
  const json answer = json::parse(
      Post("/preview", {{"directory", "near"}, {"text", "One two three four five."}}).body);
  EXPECT_EQ(1, answer["seconds"]);
  const std::string path = "/preview/" + answer["id"].dump() + ".wav";
  for (const double deadline = Now() + 60; Now() < deadline && Get(path).status == 202; Nap(5)) {
    desk->OnChild();
  }
  EXPECT_EQ("audio/wav", Get(path).type);
  EXPECT_THAT(Get(path).body, HasSubstr("\\pau=300\\ One two three four five."));
  EXPECT_THAT(Files(), IsEmpty());
  EXPECT_EQ(404, desk->Handle({"GET", path, {}, false}, {"otto", Role::kSay, ""}).status);
}

TEST(DeskWithoutFilesTest, StillAnswers) {
  const TemporaryDirectory directory;
  Desk desk({directory / "run", directory / "state", "", ""});
  const Response page = desk.Handle({"GET", "/", {}, false}, {"anna", Role::kSay, ""});
  EXPECT_EQ(200, page.status);
  EXPECT_THAT(page.body,
              AllOf(HasSubstr("its service does not run"), HasSubstr("Nothing can be said here")));
}

}  // namespace

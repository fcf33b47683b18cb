#include "gate.h"
#include "test_util.h"

namespace {

constexpr char kPassword[] = "correct horse";

// Pages whose answers say what was requested.
class FakePages : public Pages {
 public:
  Response Handle(const Request& request_, const Viewer& viewer_) override {
    return {200, "text/html", request_.method + " " + request_.path + " by " + viewer_.user, ""};
  }
  std::optional<Response> OpenFile(const std::string& path_) const override {
    return path_ == "/desk.js" ? std::optional<Response>({200, "text/javascript", "js", ""})
                               : std::nullopt;
  }
  std::string LoginPage(const std::string& why_) const override { return "login: " + why_; }
  std::string Events(const Viewer& viewer_) override { return viewer_.user; }
  bool OnRunChanged() override { return true; }
  void OnChild() override {}
  int NextTimeout() const override { return -1; }
  void OnTimeout() override {}
};

class GateTest : public testing::Test {
 protected:
  GateTest() {
    Add("anna", Role::kSay);
    Add("ben", Role::kLook);
  }

  void Add(const std::string& name_, Role role_, const std::string& password_ = kPassword) {
    AddUser(path, name_, password_, &role_, "no-such-group");
  }

  Answer Send(const std::string& method_, const std::string& path_,
              const std::map<std::string, std::string>& form_ = {}) {
    return gate.Handle({{method_, path_, form_, wants_json}, session, "192.0.2.1"}, now);
  }
  Answer TryLogIn(const std::string& user_, const std::string& password_) {
    return Send("POST", "/login", {{"user", user_}, {"password", password_}});
  }
  void LogIn(const std::string& user_) {
    EXPECT_EQ("A login from 192.0.2.1\n", LogOf([&] {
                                            session =
                                                TryLogIn(user_, kPassword).session.value_or("none");
                                          }).replace(0, user_.size() + 10, "A login"));
  }
  std::string Token() { return gate.Find(session, now)->token; }

  static std::string Summary(const Answer& answer_) {
    return Number(answer_.response.status) + " " + answer_.response.location +
           answer_.response.body;
  }

  const TemporaryDirectory directory;
  const std::string path = directory / "users";
  FakePages pages;
  Users users{path};
  Gate gate{pages, users};
  std::string session;
  bool wants_json = false;
  double now = 1000;
};

TEST_F(GateTest, StrangersReachOnlyTheLogin) {
  EXPECT_EQ("200 login: ", Summary(Send("GET", "/login")));
  EXPECT_EQ("200 js", Summary(Send("GET", "/desk.js")));
  session = "wrong";
  for (const std::string target :
       {"/", "/say", "/device", "/preview/1.wav", "/logout", "/desk.jsx"}) {
    EXPECT_EQ("303 /login", Summary(Send("GET", target))) << target;
    EXPECT_EQ("303 /login", Summary(Send("POST", target))) << target;
  }
  EXPECT_EQ(401, Send("GET", "/events").response.status);
  wants_json = true;
  EXPECT_EQ("401 {\"error\":\"Log in.\"}\n", Summary(Send("POST", "/say")));
}

TEST_F(GateTest, LoginOpensASession) {
  LogIn("anna");
  EXPECT_EQ(64u, session.size());
  EXPECT_EQ("200 GET / by anna", Summary(Send("GET", "/")));
  EXPECT_EQ("303 /", Summary(Send("GET", "/login")));
}

TEST_F(GateTest, WrongNameAndWrongPasswordLookTheSame) {
  for (const std::string user : {"anna", "nobody"}) {
    EXPECT_EQ("A login from 192.0.2.1 failed\n", LogOf([&] {
                EXPECT_EQ("403 login: The name or the password is wrong.",
                          Summary(TryLogIn(user, "wrong horse")));
              }));
  }
}

TEST_F(GateTest, LoginsAreSlowedDown) {
  for (int i = 0; i < Throttle::kFree; ++i) {
    TryLogIn("anna", "wrong horse");
    now += 0.5;
  }
  const Answer answer = TryLogIn("anna", kPassword);
  EXPECT_EQ("429 login: Too many attempts. Try again in 1 seconds.", Summary(answer));
  EXPECT_EQ(1, answer.retry_after);
  EXPECT_FALSE(answer.session);
  now += 1;
  LogIn("anna");
}

TEST_F(GateTest, EveryPostNeedsTheToken) {
  LogIn("anna");
  const std::string token = Token();
  for (const std::string& wrong : {std::string(), token.substr(1), session, std::string(64, '0')}) {
    for (const std::string target : {"/say", "/logout"}) {
      EXPECT_EQ(403, Send("POST", target, {{"token", wrong}}).response.status) << target;
    }
  }
  EXPECT_EQ("200 POST /say by anna", Summary(Send("POST", "/say", {{"token", token}})));
}

TEST_F(GateTest, UserWhoMayOnlyLookCanLogOut) {
  LogIn("ben");
  EXPECT_EQ(403, Send("POST", "/say", {{"token", Token()}}).response.status);
  EXPECT_EQ("200 GET / by ben", Summary(Send("GET", "/")));
  const Answer answer = Send("POST", "/logout", {{"token", Token()}});
  EXPECT_EQ("303 /login", Summary(answer));
  EXPECT_EQ("", answer.session.value_or("none"));
  EXPECT_EQ("303 /login", Summary(Send("GET", "/")));
}

TEST_F(GateTest, SessionsEnd) {
  LogIn("anna");
  const std::string first = session;
  session.clear();
  LogIn("anna");
  EXPECT_TRUE(gate.Find(first, now));
  now += Sessions::kHours * 3600;
  EXPECT_FALSE(gate.Find(first, now));
  LogIn("anna");
  Add("anna", Role::kSay, "another one");
  EXPECT_FALSE(gate.Find(session, now));
  LogIn("ben");
  directory.Write("users", "");
  EXPECT_FALSE(gate.Find(session, now));
}

TEST_F(GateTest, RoleChangesAtOnce) {
  LogIn("anna");
  const std::string lines = ReadFile(path);
  directory.Write("users", std::string(lines).replace(lines.find(":say:"), 5, ":look:"));
  EXPECT_EQ(Role::kLook, gate.Find(session, now)->role);
}

TEST_F(GateTest, LoginEndsThePreviousSession) {
  LogIn("anna");
  const std::string first = session;
  LogIn("ben");
  EXPECT_FALSE(gate.Find(first, now));
}

TEST_F(GateTest, BodiesOfStrangersAreNotRead) {
  const auto limit = [this](const std::string& path_) {
    return gate.BodyLimit({{"POST", path_, {}, false}, session, ""}, now);
  };
  EXPECT_EQ(4096u, limit("/login"));
  EXPECT_EQ(0u, limit("/say"));
  LogIn("anna");
  EXPECT_EQ(65536u, limit("/say"));
}

TEST(SessionsTest, FurtherSessionEndsTheOldest) {
  Sessions sessions;
  std::vector<std::string> ids;
  for (size_t i = 0; i <= Sessions::kPerUser; ++i) {
    ids.push_back(sessions.Open("anna", "", static_cast<double>(i)));
  }
  const std::string other = sessions.Open("ben", "", 1);
  EXPECT_EQ(nullptr, sessions.Find(ids[0], 30));
  EXPECT_NE(nullptr, sessions.Find(ids[1], 30));
  EXPECT_NE(nullptr, sessions.Find(other, 30));
}

TEST(MakeSecretTest, SecretsDiffer) {
  const std::string secret = MakeSecret();
  EXPECT_THAT(secret, testing::MatchesRegex("[0-9a-f]+"));
  EXPECT_EQ(64u, secret.size());
  EXPECT_FALSE(IsSameSecret(secret, MakeSecret()));
  EXPECT_TRUE(IsSameSecret(secret, std::string(secret)));
  EXPECT_FALSE(IsSameSecret(secret, secret.substr(1)));
}

}  // namespace

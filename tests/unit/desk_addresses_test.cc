#include "addresses.h"
#include "test_util.h"

namespace {

struct Row {
  std::string text;
  bool is_loopback;
  std::string client;
};

TEST(ListenAddressTest, FindsLoopbackAndClientNetwork) {
  for (const auto& [text, is_loopback, client] :
       {Row{"127.0.0.1:8080", true, "127.0.0.1"}, Row{"127.9.9.9:1", true, "127.9.9.9"},
        Row{"0.0.0.0:0", false, "0.0.0.0"}, Row{"192.0.2.1:65535", false, "192.0.2.1"},
        Row{"[::1]:8080", true, "::1"}, Row{"[::]:8080", false, "::"},
        Row{"[2001:db8:1:2:3:4:5:6]:1", false, "2001:db8:1:2::"},
        Row{"[::ffff:192.0.2.1]:1", false, "192.0.2.1"}}) {
    const ListenAddress address = ParseListenAddress(text);
    EXPECT_EQ(is_loopback, IsLoopback(address)) << text;
    EXPECT_EQ(client, ClientOf(reinterpret_cast<const sockaddr*>(&address.socket))) << text;
  }
}

TEST(ListenAddressTest, RejectsOtherTexts) {
  for (const std::string text : {"", ":", "8080", ":8080", "127.0.0.1", "127.0.0.1:", "127.0.0.1:x",
                                 "127.0.0.1:65536", "127.0.0.1:-1", "127.0.0.1:0x50",
                                 "localhost:80", "::1:80", "[::1]", "[]:80", "[1.1.1.1]:80"}) {
    EXPECT_NE("", ThrownText([&] { ParseListenAddress(text); })) << text;
  }
}

TEST(ListenTest, SocketNameHasTheRealPort) {
  const int fd = Listen(ParseListenAddress("127.0.0.1:0"));
  const std::string name = NameOfSocket(fd);
  EXPECT_THAT(name, testing::MatchesRegex("127\\.0\\.0\\.1:[1-9][0-9]*"));
  EXPECT_EQ("Address already in use", ThrownText([&] { Listen(ParseListenAddress(name)); }));
  close(fd);
}

TEST(ClientForwardedTest, ReturnsTheLastAddress) {
  for (const auto& [header, client] :
       std::map<std::string, std::string>{{"192.0.2.1", "192.0.2.1"},
                                          {"6.6.6.6, 192.0.2.1 ", "192.0.2.1"},
                                          {"192.0.2.1,", ""},
                                          {"", ""},
                                          {"unknown", ""},
                                          {"192.0.2.1, evil", ""},
                                          {"a,2001:db8::1", "2001:db8::"}}) {
    EXPECT_EQ(client, ClientForwarded(header)) << header;
  }
}

}  // namespace

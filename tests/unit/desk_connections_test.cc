#include <sys/socket.h>

#include <array>

#include "connections.h"
#include "test_util.h"

namespace {

// The client's end of a connection; sees whether the server's end was cut.
class Client {
 public:
  Client() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data())); }
  ~Client() {
    close(ends[0]);
    close(ends[1]);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  int Server() const { return ends[1]; }
  bool IsCut() const {
    char byte = '\0';
    return read(ends[0], &byte, 1) == 0;
  }

 private:
  std::array<int, 2> ends = {};
};

class ConnectionsTest : public testing::Test {
 protected:
  Connection& Add(const Client& client_, const std::string& name_, double now_) {
    return connections.Add(client_.Server(), name_, now_);
  }

  Connections connections;
  Client client;
};

TEST_F(ConnectionsTest, HasNoTimeoutWithoutAConnection) { EXPECT_EQ(-1, connections.Timeout(5)); }

TEST_F(ConnectionsTest, CutsAClientThatSendsNoCompleteRequest) {
  Add(client, "a", 100);
  EXPECT_EQ(10001, connections.Timeout(100));
  connections.CutLate(109.9);
  EXPECT_FALSE(client.IsCut());
  connections.CutLate(110);
  EXPECT_TRUE(client.IsCut());
  EXPECT_EQ(-1, connections.Timeout(110));
}

TEST_F(ConnectionsTest, EachStepHasItsLimit) {
  Connection& connection = Add(client, "a", 100);
  Connections::ExpectReading(connection, 100);
  EXPECT_EQ(60001, connections.Timeout(100));
  Connections::ExpectEvent(connection, 100);
  EXPECT_EQ(20001, connections.Timeout(100));
  Connections::ExpectRequest(connection, 100);
  EXPECT_EQ(10001, connections.Timeout(100));
  Connections::ExpectNothing(connection);
  EXPECT_EQ(-1, connections.Timeout(100));
}

TEST_F(ConnectionsTest, CutsAClientThatHasLeftAfterItsAnswer) {
  Connection& connection = Add(client, "a", 100);
  connections.CutAbandoned();
  connection.has_left = true;
  Connections::ExpectReading(connection, 100);
  connections.CutAbandoned();
  EXPECT_FALSE(client.IsCut());
  Connections::ExpectRequest(connection, 100);
  connections.CutAbandoned();
  EXPECT_TRUE(client.IsCut());
}

TEST_F(ConnectionsTest, ExtraConnectionCutsTheOldestOfTheClientWithTheMost) {
  Add(client, "quiet", 1);
  const std::vector<Client> many(Connections::kMaxOthers - 1);
  for (size_t i = 0; i < many.size(); ++i) {
    Add(many[i], "noisy", 2 + static_cast<double>(i));
  }
  const Client another;
  EXPECT_FALSE(many[0].IsCut());
  Add(another, "third", 500);
  EXPECT_TRUE(many[0].IsCut());
  EXPECT_FALSE(many[1].IsCut() || client.IsCut() || another.IsCut());
}

TEST_F(ConnectionsTest, EventStreamsAreCountedSeparately) {
  const std::vector<Client> many(Connections::kMaxWatchers);
  for (const Client& watcher : many) {
    EXPECT_TRUE(connections.Watch(Add(watcher, "a", 1)));
  }
  Connection& connection = Add(client, "b", 2);
  EXPECT_FALSE(connections.Watch(connection));
  for (size_t i = 1; i < Connections::kMaxOthers; ++i) {
    connections.Add(-1, "a", 3);
  }
  EXPECT_FALSE(many[0].IsCut() || client.IsCut());
}

TEST_F(ConnectionsTest, EventStreamThatEndsMakesRoom) {
  std::vector<Connection*> watchers;
  for (size_t i = 0; i < Connections::kMaxWatchers; ++i) {
    watchers.push_back(&connections.Add(-1, "a", 1));
    connections.Watch(*watchers.back());
  }
  connections.Unwatch(*watchers[0]);
  connections.Unwatch(*watchers[0]);
  EXPECT_TRUE(connections.Watch(*watchers[0]));
  connections.Remove(*watchers[1]);
  Connection& connection = connections.Add(-1, "b", 1);
  EXPECT_TRUE(connections.Watch(connection));
  EXPECT_FALSE(connections.Watch(connections.Add(-1, "b", 1)));
}

}  // namespace

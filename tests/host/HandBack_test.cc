// Handed-back connections carried to their destination over real loopback sockets: bytes exact
// both ways, half-closes passed through, refusals and resets passed on as resets.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <set>
#include <thread>

#include "HostTesting.h"
#include "host/HandBackCarrier.h"
#include "platform/posix/Sockets.h"
#include "platform/testing/LoopbackServer.h"

namespace tarnwick::host {
namespace {

class HandBackTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    std::string error;
    listener_ = bindTcpSocket(loopbackAddress(GetParam(), 0), error);
    ASSERT_TRUE(listener_) << error;
    ASSERT_EQ(::listen(listener_.get(), 16), 0);
  }

  // The loop stops before the objects its handlers may be holding go.
  void TearDown() override { loop_->stop(); }

  // A client whose connection the carrier takes to `port` on the same loopback address.
  std::unique_ptr<TestClient> carriedClient(std::uint16_t port) {
    auto client = std::make_unique<TestClient>(*localAddress(listener_.get()));
    UniqueFd accepted(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    EXPECT_TRUE(accepted);
    carrier_->carry(std::move(accepted), loopbackAddress(GetParam(), port));
    return client;
  }

  std::shared_ptr<HostLoop> loop_ = std::make_shared<HostLoop>();
  std::shared_ptr<HandBackCarrier> carrier_ =
      std::make_shared<HandBackCarrier>(loop_, std::nullopt);
  UniqueFd listener_;
};

TEST_P(HandBackTest, CarriesBytesExactlyAndPassesTheClientsEndOn) {
  LoopbackServer destination(GetParam());
  auto client = carriedClient(destination.port());
  const std::string request = patterned(3 << 20);
  std::thread sender([&] {
    client->send(request);
    client->shutdownWrite();
  });
  LoopbackServer::Peer* peer = destination.peer(0);
  ASSERT_NE(peer, nullptr);
  const std::string received = peer->readToEnd();
  sender.join();
  EXPECT_TRUE(received == request) << received.size();
  EXPECT_TRUE(peer->sawEnd());
  // The client has ended its side and still reads the whole answer.
  const std::string answer = patterned(2 << 20).substr(7);
  std::thread answerer([&] {
    peer->write(answer);
    peer->shutdownWrite();
  });
  const std::string got = client->readToEnd();
  answerer.join();
  EXPECT_TRUE(got == answer) << got.size();
  EXPECT_EQ(client->error(), 0);
}

TEST_P(HandBackTest, PassesTheDestinationsEndOnWhileTheClientKeepsSending) {
  LoopbackServer destination(GetParam());
  auto client = carriedClient(destination.port());
  LoopbackServer::Peer* peer = destination.peer(0);
  ASSERT_NE(peer, nullptr);
  peer->write("banner\r\n");
  peer->shutdownWrite();
  EXPECT_EQ(client->readToEnd(), "banner\r\n");
  EXPECT_EQ(client->error(), 0);
  client->send("still talking");
  client->shutdownWrite();
  EXPECT_EQ(peer->readToEnd(), "still talking");
}

TEST_P(HandBackTest, ARefusedDestinationResetsTheClient) {
  LoopbackServer refusing(GetParam(), LoopbackServer::Mode::Refuse);
  // Only reads: a send racing the reset would take the error and leave the read a plain end.
  auto client = carriedClient(refusing.port());
  EXPECT_EQ(client->readToEnd(), "");
  EXPECT_EQ(client->error(), ECONNRESET);
}

TEST_P(HandBackTest, ADestinationResetResetsTheClient) {
  auto destination = std::make_unique<LoopbackServer>(GetParam());
  auto client = carriedClient(destination->port());
  ASSERT_NE(destination->peer(0), nullptr);
  client->send("x");
  EXPECT_EQ(destination->peer(0)->read(1), "x");
  client->send("unread");
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // lets the bytes arrive
  // Closing with unread bytes makes the kernel reset the destination's side.
  destination.reset();
  client->readToEnd();
  EXPECT_EQ(client->error(), ECONNRESET);
}

TEST_P(HandBackTest, CarriesManyConnectionsAtOnce) {
  LoopbackServer destination(GetParam());
  constexpr std::size_t kConnections = 64;
  std::vector<std::unique_ptr<TestClient>> clients;
  for (std::size_t i = 0; i < kConnections; ++i) {
    clients.push_back(carriedClient(destination.port()));
    clients.back()->send("connection " + std::to_string(i));
    clients.back()->shutdownWrite();
  }
  std::set<std::string> seen;
  for (std::size_t i = 0; i < kConnections; ++i) {
    LoopbackServer::Peer* peer = destination.peer(i);
    ASSERT_NE(peer, nullptr);
    seen.insert(peer->readToEnd());
    peer->shutdownWrite();
  }
  EXPECT_EQ(seen.size(), kConnections);
  for (auto& client : clients) {
    EXPECT_EQ(client->readToEnd(), "");
    EXPECT_EQ(client->error(), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Families, HandBackTest, ::testing::Values("127.0.0.1", "::1"),
                         [](const auto& param) { return param.param == "::1" ? "V6" : "V4"; });

}  // namespace
}  // namespace tarnwick::host

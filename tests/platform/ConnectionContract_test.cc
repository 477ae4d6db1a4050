// The behaviour every connection shares, checked on the scripted connection (simulated runtime)
// and on the real one (loopback sockets): test doubles that drift from the real thing hide bugs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>

#include "ConnectionEvents.h"
#include "platform/testing/LoopbackServer.h"
#include "platform/testing/ScriptedConnection.h"
#include "platform/testing/SimulatedRuntime.h"

namespace tarnwick {
namespace {

using ::testing::ElementsAre;

enum class Peer { Listening, Stalled, Refusing };

class ConnectionHarness {
 public:
  virtual ~ConnectionHarness() = default;
  virtual std::shared_ptr<NWConnection> make(Peer peer) = 0;
  // Starts on queue(); the scripted harness then plays the peer's answer to the dial.
  virtual void start(const std::shared_ptr<NWConnection>& connection) = 0;
  virtual std::shared_ptr<DispatchQueue> queue() = 0;
  virtual bool settle(const std::function<bool()>& done) = 0;
  // What the listening peer has received, once `count` bytes are there.
  virtual std::string peerReceived(std::size_t count) = 0;
  virtual void peerEndsStream() = 0;
};

class ScriptedHarness : public ConnectionHarness {
 public:
  std::shared_ptr<NWConnection> make(Peer peer) override {
    peer_ = peer;
    connection_ = std::make_shared<ScriptedConnection>(
        NWEndpoint::hostPort("127.0.0.1", *NWEndpointPort::make(9)));
    return connection_;
  }
  void start(const std::shared_ptr<NWConnection>& connection) override {
    connection->start(queue_);
    if (peer_ == Peer::Listening) connection_->becomeReady();
    if (peer_ == Peer::Refusing) connection_->fail(ECONNREFUSED);
  }
  std::shared_ptr<DispatchQueue> queue() override { return queue_; }
  bool settle(const std::function<bool()>& done) override { return env_->runUntil(done); }
  std::string peerReceived(std::size_t) override {
    env_->runUntilIdle();
    return std::string(textOf(connection_->sent()));
  }
  void peerEndsStream() override { connection_->deliverEnd(); }

 private:
  std::shared_ptr<SimulatedRuntime> env_ = SimulatedRuntime::create();
  std::shared_ptr<DispatchQueue> queue_ = env_->makeQueue("contract", QualityOfService::Default);
  std::shared_ptr<ScriptedConnection> connection_;
  Peer peer_ = Peer::Listening;
};

class RealHarness : public ConnectionHarness {
 public:
  std::shared_ptr<NWConnection> make(Peer peer) override {
    const auto mode = peer == Peer::Listening ? LoopbackServer::Mode::Accept
                      : peer == Peer::Stalled ? LoopbackServer::Mode::Stall
                                              : LoopbackServer::Mode::Refuse;
    server_ = std::make_unique<LoopbackServer>("127.0.0.1", mode);
    return realConnectionFactory()->makeConnection(
        NWEndpoint::hostPort("127.0.0.1", *NWEndpointPort::make(server_->port())), NWParameters{});
  }
  void start(const std::shared_ptr<NWConnection>& connection) override {
    connection->start(queue_);
  }
  std::shared_ptr<DispatchQueue> queue() override { return queue_; }
  bool settle(const std::function<bool()>& done) override { return eventually(done); }
  std::string peerReceived(std::size_t count) override {
    auto* peer = server_->peer(0);
    return peer ? peer->read(count) : "<no peer>";
  }
  void peerEndsStream() override {
    if (auto* peer = server_->peer(0)) peer->shutdownWrite();
  }

 private:
  std::shared_ptr<DispatchQueue> queue_ =
      realRuntime()->makeQueue("contract", QualityOfService::Default);
  std::unique_ptr<LoopbackServer> server_;
};

class ConnectionContractTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (GetParam()) {
      harness_ = std::make_unique<RealHarness>();
    } else {
      harness_ = std::make_unique<ScriptedHarness>();
    }
    events_ = std::make_shared<ConnectionEvents>(harness_->queue());
  }
  void TearDown() override { EXPECT_THAT(events_->offQueue(), ElementsAre()); }

  std::shared_ptr<NWConnection> startConnection(Peer peer) {
    auto connection = harness_->make(peer);
    connection->setStateUpdateHandler(events_->stateHandler());
    harness_->start(connection);
    return connection;
  }
  bool settleOn(const std::string& event) {
    return harness_->settle([&] { return events_->contains(event); });
  }
  // Everything posted to the queue before this call has run once it returns true.
  bool settleQueue() {
    auto marker = std::make_shared<std::atomic<bool>>(false);
    harness_->queue()->async([marker] { *marker = true; });
    return harness_->settle([&] { return marker->load(); });
  }

  std::unique_ptr<ConnectionHarness> harness_;
  std::shared_ptr<ConnectionEvents> events_;
};

TEST_P(ConnectionContractTest, SendsIssuedBeforeReadyAreWrittenInOrderAfterIt) {
  auto connection = harness_->make(Peer::Listening);
  connection->setStateUpdateHandler(events_->stateHandler());
  connection->send(bytesOf("alpha"), false, events_->sent("A"));
  connection->send(bytesOf("beta"), false, events_->sent("B"));
  connection->send(bytesOf("gamma"), true, events_->sent("C"));
  harness_->start(connection);
  EXPECT_EQ(harness_->peerReceived(14), "alphabetagamma");
  ASSERT_TRUE(settleOn("sent C"));
  EXPECT_THAT(events_->events(), ElementsAre("preparing", "ready", "sent A", "sent B", "sent C"));
  connection->cancel();
}

TEST_P(ConnectionContractTest, CancelBeforeReadyCallsNoCompletion) {
  auto connection = startConnection(Peer::Stalled);
  connection->send(bytesOf("never"), false, events_->sent("A"));
  connection->receive(1, 100, events_->received("R"));
  connection->cancel();
  ASSERT_TRUE(settleOn("cancelled"));
  ASSERT_TRUE(settleQueue());
  EXPECT_THAT(events_->events(), ElementsAre("preparing", "cancelled"));
}

// Neither a send queued before the failure nor one made after it is completed: no byte left, and
// a completion would read as a failed write racing the state that explains it.
TEST_P(ConnectionContractTest, FailureBeforeReadyDropsQueuedAndLaterSends) {
  auto connection = harness_->make(Peer::Refusing);
  connection->setStateUpdateHandler(events_->stateHandler());
  connection->send(bytesOf("never"), false, events_->sent("A"));
  harness_->start(connection);
  const std::string failed = "failed errno=" + std::to_string(ECONNREFUSED);
  ASSERT_TRUE(settleOn(failed));
  connection->send(bytesOf("late"), false, events_->sent("B"));
  ASSERT_TRUE(settleQueue());
  EXPECT_THAT(events_->events(), ElementsAre("preparing", failed));
  connection->cancel();
}

TEST_P(ConnectionContractTest, CancelAfterReadyCompletesPendingReceiveWithECANCELED) {
  auto connection = startConnection(Peer::Listening);
  ASSERT_TRUE(settleOn("ready"));
  connection->receive(1, 100, events_->received("R"));
  connection->cancel();
  ASSERT_TRUE(settleOn("cancelled"));
  EXPECT_THAT(events_->events(),
              ElementsAre("preparing", "ready", "received R - errno=125", "cancelled"));
}

TEST_P(ConnectionContractTest, OperationsAfterCancelCompleteWithECANCELED) {
  auto connection = startConnection(Peer::Listening);
  ASSERT_TRUE(settleOn("ready"));
  connection->cancel();
  connection->send(bytesOf("late"), false, events_->sent("A"));
  connection->receive(1, 100, events_->received("R"));
  ASSERT_TRUE(settleOn("received R - errno=125"));
  EXPECT_THAT(events_->events(), ElementsAre("preparing", "ready", "cancelled", "sent A errno=125",
                                             "received R - errno=125"));
}

TEST_P(ConnectionContractTest, PeerEndingItsStreamCompletesTheReceive) {
  auto connection = startConnection(Peer::Listening);
  ASSERT_TRUE(settleOn("ready"));
  connection->receive(1, 100, events_->received("R"));
  harness_->peerEndsStream();
  ASSERT_TRUE(settleOn("received R - end"));
  connection->cancel();
}

INSTANTIATE_TEST_SUITE_P(BothConnections, ConnectionContractTest, ::testing::Bool(),
                         [](const auto& p) { return p.param ? "Real" : "Scripted"; });

}  // namespace
}  // namespace tarnwick

// The real connection against loopback peers: address forms, half-close, receive bounds, dial
// failures, the socket mark, and what a cancelled or idle connection keeps.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <string>

#include "ConnectionEvents.h"
#include "platform/testing/LoopbackServer.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

std::string failedText(int code) { return "failed errno=" + std::to_string(code); }

// One connection on a real queue, its callbacks recorded.
struct Dial {
  Dial(const std::string& host, std::uint16_t port, NWParameters parameters = {},
       Duration connectTimeout = kRealConnectTimeout)
      : queue(realRuntime()->makeQueue("dial", QualityOfService::UserInitiated)),
        events(std::make_shared<ConnectionEvents>(queue)),
        connection(realConnectionFactory(connectTimeout)
                       ->makeConnection(NWEndpoint::hostPort(host, *NWEndpointPort::make(port)),
                                        parameters)) {
    connection->setStateUpdateHandler(events->stateHandler());
  }
  ~Dial() {
    connection->cancel();
    EXPECT_THAT(events->offQueue(), ElementsAre());
  }
  void start() { connection->start(queue); }
  bool settleOn(const std::string& event) const {
    return eventually([&] { return events->contains(event); });
  }

  std::shared_ptr<DispatchQueue> queue;
  std::shared_ptr<ConnectionEvents> events;
  std::shared_ptr<NWConnection> connection;
};

struct AddressForm {
  const char* name;
  const char* listenOn;
  const char* dial;
};

class RealConnectionAddressTest : public ::testing::TestWithParam<AddressForm> {};

TEST_P(RealConnectionAddressTest, HalfClosedConnectionStillGetsThePeersReply) {
  LoopbackServer server(GetParam().listenOn);
  Dial dial(GetParam().dial, server.port());
  dial.start();
  dial.connection->send(bytesOf("ping"), false, dial.events->sent("ping"));
  dial.connection->send(std::nullopt, true, dial.events->sent("end"));
  auto* peer = server.peer(0);
  ASSERT_NE(peer, nullptr);
  EXPECT_EQ(peer->readToEnd(), "ping");
  EXPECT_TRUE(peer->sawEnd());
  peer->write("pong");
  peer->shutdownWrite();
  dial.connection->receive(4, 64, dial.events->received("reply"));
  dial.connection->receive(1, 64, dial.events->received("after"));
  ASSERT_TRUE(dial.settleOn("received after - end"));
  EXPECT_THAT(dial.events->events(), ElementsAre("preparing", "ready", "sent ping", "sent end",
                                                 "received reply 'pong'", "received after - end"));
}

INSTANTIATE_TEST_SUITE_P(AddressForms, RealConnectionAddressTest,
                         ::testing::Values(AddressForm{"IPv4Literal", "127.0.0.1", "127.0.0.1"},
                                           AddressForm{"IPv6Literal", "::1", "::1"},
                                           AddressForm{"BracketedIPv6Literal", "::1", "[::1]"},
                                           AddressForm{"HostName", "127.0.0.1", "localhost"}),
                         [](const auto& p) { return std::string(p.param.name); });

// Receive bounds and stream ends, on both loopback families.
class RealConnectionTest : public ::testing::TestWithParam<const char*> {
 protected:
  LoopbackServer server_{GetParam()};
  Dial dial_{GetParam(), server_.port()};
};

TEST_P(RealConnectionTest, ReceiveWaitsForItsMinimum) {
  dial_.start();
  ASSERT_TRUE(dial_.settleOn("ready"));
  auto* peer = server_.peer(0);
  ASSERT_NE(peer, nullptr);
  peer->write("abc");
  dial_.connection->receive(5, 6, dial_.events->received("R"));
  // Time for the three bytes to be read; the receive must keep waiting for two more.
  std::this_thread::sleep_for(10ms);
  EXPECT_THAT(dial_.events->events(), ElementsAre("preparing", "ready"));
  peer->write("defgh");
  dial_.connection->receive(1, 10, dial_.events->received("rest"));
  ASSERT_TRUE(dial_.settleOn("received rest 'gh'"));
  EXPECT_THAT(dial_.events->events(),
              ElementsAre("preparing", "ready", "received R 'abcdef'", "received rest 'gh'"));
}

TEST_P(RealConnectionTest, ReceiveTakesNoMoreThanItsMaximum) {
  dial_.start();
  auto* peer = server_.peer(0);
  ASSERT_NE(peer, nullptr);
  peer->write("abcdefgh");
  peer->shutdownWrite();
  dial_.connection->receive(1, 4, dial_.events->received("1"));
  dial_.connection->receive(1, 4, dial_.events->received("2"));
  dial_.connection->receive(1, 4, dial_.events->received("3"));
  ASSERT_TRUE(dial_.settleOn("received 3 - end"));
  EXPECT_THAT(dial_.events->events(), ElementsAre("preparing", "ready", "received 1 'abcd'",
                                                  "received 2 'efgh'", "received 3 - end"));
}

TEST_P(RealConnectionTest, EndOfStreamDeliversFewerThanTheMinimumAndEndsLaterReceives) {
  dial_.start();
  auto* peer = server_.peer(0);
  ASSERT_NE(peer, nullptr);
  peer->write("xy");
  peer->shutdownWrite();
  dial_.connection->receive(10, 20, dial_.events->received("1"));
  dial_.connection->receive(1, 20, dial_.events->received("2"));
  ASSERT_TRUE(dial_.settleOn("received 2 - end"));
  EXPECT_THAT(dial_.events->events(),
              ElementsAre("preparing", "ready", "received 1 'xy' end", "received 2 - end"));
}

// Reads until the end of the stream, one receive at a time, as a byte pump does.
void receiveToEnd(std::shared_ptr<NWConnection> connection, std::shared_ptr<std::string> into,
                  std::shared_ptr<std::atomic<bool>> ended) {
  connection->receive(
      1, 65536, [=](std::optional<Bytes> content, bool isComplete, std::optional<NWError> error) {
        if (content) into->append(textOf(*content));
        if (isComplete || error) {
          *ended = true;
        } else {
          receiveToEnd(connection, into, ended);
        }
      });
}

TEST_P(RealConnectionTest, MegabytesRoundTripIntact) {
  std::string payload(3 << 20, '\0');
  std::mt19937 random(42);
  for (char& c : payload) c = static_cast<char>(random());
  dial_.start();
  dial_.connection->send(bytesOf(payload), false, dial_.events->sent("payload"));
  auto received = std::make_shared<std::string>();
  auto ended = std::make_shared<std::atomic<bool>>(false);
  receiveToEnd(dial_.connection, received, ended);
  auto* peer = server_.peer(0);
  ASSERT_NE(peer, nullptr);
  const std::string echoed = peer->read(payload.size());
  peer->write(echoed);
  peer->shutdownWrite();
  ASSERT_TRUE(eventually([&] { return ended->load(); }));
  EXPECT_TRUE(*received == payload) << "received " << received->size() << " bytes";
  EXPECT_TRUE(dial_.events->contains("sent payload"));
}

TEST_P(RealConnectionTest, CancelCompletesASendTheKernelCannotTake) {
  dial_.start();
  ASSERT_TRUE(dial_.settleOn("ready"));
  // The peer reads nothing, so far more than the socket buffers can hold stays pending.
  dial_.connection->send(Bytes(64 << 20, 0x5a), false, dial_.events->sent("big"));
  auto* peer = server_.peer(0);
  ASSERT_NE(peer, nullptr);
  dial_.connection->cancel();
  ASSERT_TRUE(dial_.settleOn("cancelled"));
  EXPECT_THAT(dial_.events->events(),
              ElementsAre("preparing", "ready", "sent big errno=125", "cancelled"));
}

INSTANTIATE_TEST_SUITE_P(Loopback, RealConnectionTest, ::testing::Values("127.0.0.1", "::1"),
                         [](const auto& p) {
                           return std::string(p.param) == "::1" ? "IPv6" : "IPv4";
                         });

struct DialFailure {
  const char* name;
  const char* address;
  LoopbackServer::Mode mode;
  int code;
};

class RealConnectionFailureTest : public ::testing::TestWithParam<DialFailure> {};

TEST_P(RealConnectionFailureTest, FailsWithTheErrnoAndItsDescription) {
  LoopbackServer server(GetParam().address, GetParam().mode);
  Dial dial(GetParam().address, server.port(), NWParameters{}, 50ms);
  auto description = std::make_shared<std::string>();
  dial.connection->setStateUpdateHandler(
      [description, events = dial.events](const NWConnectionState& s) {
        if (s.error) *description = s.error->localizedDescription;
        events->stateHandler()(s);
      });
  dial.start();
  ASSERT_TRUE(dial.settleOn(failedText(GetParam().code)));
  EXPECT_THAT(dial.events->events(), ElementsAre("preparing", failedText(GetParam().code)));
  EXPECT_EQ(*description, std::strerror(GetParam().code));
}

INSTANTIATE_TEST_SUITE_P(
    DialFailures, RealConnectionFailureTest,
    ::testing::Values(
        DialFailure{"RefusedIPv4", "127.0.0.1", LoopbackServer::Mode::Refuse, ECONNREFUSED},
        DialFailure{"RefusedIPv6", "::1", LoopbackServer::Mode::Refuse, ECONNREFUSED},
        DialFailure{"TimedOutIPv4", "127.0.0.1", LoopbackServer::Mode::Stall, ETIMEDOUT},
        DialFailure{"TimedOutIPv6", "::1", LoopbackServer::Mode::Stall, ETIMEDOUT}),
    [](const auto& p) { return std::string(p.param.name); });

// Whether this process may mark sockets decides the outcome; both outcomes are the contract.
TEST(RealConnectionMarkTest, MarkedConnectionIsReadyOrFailsWithTheMarksError) {
  const int probe = socket(AF_INET, SOCK_STREAM, 0);
  const std::uint32_t mark = 0x2a;
  const int markError = setsockopt(probe, SOL_SOCKET, SO_MARK, &mark, sizeof mark) == 0 ? 0 : errno;
  close(probe);
  LoopbackServer server("127.0.0.1");
  Dial dial("127.0.0.1", server.port(), NWParameters{mark});
  dial.start();
  const std::string expected = markError == 0 ? "ready" : failedText(markError);
  ASSERT_TRUE(dial.settleOn(expected));
  EXPECT_THAT(dial.events->events(), ElementsAre("preparing", expected));
}

TEST(RealConnectionLifetimeTest, CancelledConnectionIsReleasedDespiteAHandlerHoldingIt) {
  LoopbackServer server("127.0.0.1");
  auto queue = realRuntime()->makeQueue("lifetime", QualityOfService::Default);
  auto events = std::make_shared<ConnectionEvents>(queue);
  auto connection = realConnectionFactory()->makeConnection(
      NWEndpoint::hostPort("127.0.0.1", *NWEndpointPort::make(server.port())), NWParameters{});
  const std::weak_ptr<NWConnection> weak = connection;
  // A handler that holds its connection strongly: a cycle that only cancel() may break.
  connection->setStateUpdateHandler(
      [connection, record = events->stateHandler()](const NWConnectionState& s) { record(s); });
  connection->start(queue);
  ASSERT_TRUE(eventually([&] { return events->contains("ready"); }));
  connection->receive(1, 100, events->received("R"));
  connection->cancel();
  connection.reset();
  EXPECT_TRUE(eventually([&] { return weak.expired(); }));
  EXPECT_THAT(events->events(),
              ElementsAre("preparing", "ready", "received R - errno=125", "cancelled"));
}

// A posted receive waits for readability without a buffer, so idle connections stay cheap.
TEST(RealConnectionMemoryTest, IdleReceivesHoldNoBuffers) {
  constexpr int kConnections = 32;
  constexpr std::size_t kMaximum = 8 << 20;
  LoopbackServer server("127.0.0.1");
  std::vector<std::unique_ptr<Dial>> dials;
  for (int i = 0; i < kConnections; ++i) {
    dials.push_back(std::make_unique<Dial>("127.0.0.1", server.port()));
    dials.back()->start();
    ASSERT_TRUE(dials.back()->settleOn("ready"));
  }
  const auto heap = [] {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<std::int64_t>(info.uordblks + info.hblkhd);
  };
  const std::int64_t before = heap();
  for (auto& dial : dials) dial->connection->receive(1, kMaximum, dial->events->received("R"));
  EXPECT_LT(heap() - before, static_cast<std::int64_t>(kMaximum));
}

}  // namespace
}  // namespace tarnwick

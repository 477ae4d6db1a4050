// The front door relaying real loopback connections to an echo destination.

#include <gtest/gtest.h>

#include <future>

#include "ClientHelloBuilder.h"
#include "FrontDoorHarness.h"
#include "HostPort.h"

namespace tarnwick::frontdoor {
namespace {

constexpr std::string_view kAck = "HTTP/1.1 200 Connection established\r\n\r\n";

// Bytes whose value depends on their position, so a lost, doubled or reordered chunk shows.
std::string patterned(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
  return bytes;
}

FrontDoorConfig listeningOn(const std::string& host) {
  FrontDoorConfig config;
  config.listen = {host, 0};
  return config;
}

struct TransferCase {
  std::string name;
  std::string host;
  std::size_t bytes;
};

class FrontDoorTransferTest : public ::testing::TestWithParam<TransferCase> {};

TEST_P(FrontDoorTransferTest, EchoesEveryByteAndPassesTheHalfCloseOn) {
  const auto& param = GetParam();
  EchoServer echo(param.host);
  RunningFrontDoor frontDoor(listeningOn(param.host));
  const UniqueFd client = connectTo(frontDoor.address());
  ASSERT_TRUE(client.valid());
  sendAll(client.get(), connectHead(formatHostPort(param.host, echo.port())));
  ASSERT_EQ(readHead(client.get()), kAck);

  const std::string payload = patterned(param.bytes);
  const std::string echoed = exchange(client.get(), payload);  // ends with our half-close
  ASSERT_EQ(echoed.size(), payload.size());
  EXPECT_TRUE(echoed == payload);
  const std::string counts = " up=" + std::to_string(param.bytes) +
                             " down=" + std::to_string(param.bytes) + " result=closed";
  EXPECT_TRUE(frontDoor.log().waitFor({counts}))
      << ::testing::PrintToString(frontDoor.log().lines());
}

INSTANTIATE_TEST_SUITE_P(Sizes, FrontDoorTransferTest,
                         ::testing::Values(TransferCase{"Empty", "127.0.0.1", 0},
                                           TransferCase{"OneByte", "127.0.0.1", 1},
                                           TransferCase{"HundredKiB", "127.0.0.1", 100 * 1024},
                                           TransferCase{"OneMiB", "127.0.0.1", 1024 * 1024},
                                           TransferCase{"OneByteIpv6", "::1", 1},
                                           TransferCase{"OneMiBIpv6", "::1", 1024 * 1024}),
                         CaseName{});

TEST(FrontDoorRelayTest, BytesSentRightBehindTheHeadAreRelayedFirst) {
  EchoServer echo;
  RunningFrontDoor frontDoor(listeningOn("127.0.0.1"));
  const UniqueFd client = connectTo(frontDoor.address());
  sendAll(client.get(), connectHead(formatHostPort("127.0.0.1", echo.port())) + "early");
  ASSERT_EQ(readHead(client.get()), kAck);
  EXPECT_EQ(exchange(client.get(), " and late"), "early and late");
}

TEST(FrontDoorRelayTest, ResolvesADestinationName) {
  EchoServer echo;  // 127.0.0.1 only: a first answer of ::1 is refused and the next tried
  RunningFrontDoor frontDoor(listeningOn("127.0.0.1"));
  const UniqueFd client = connectTo(frontDoor.address());
  sendAll(client.get(), connectHead("localhost:" + std::to_string(echo.port())));
  ASSERT_EQ(readHead(client.get()), kAck);
  EXPECT_EQ(exchange(client.get(), "by name"), "by name");
}

TEST(FrontDoorRelayTest, AnUnreachableDestinationGets502) {
  const auto [closed, port] = refusingPort();
  RunningFrontDoor frontDoor(listeningOn("127.0.0.1"));
  const UniqueFd client = connectTo(frontDoor.address());
  sendAll(client.get(), connectHead(formatHostPort("127.0.0.1", port)));
  EXPECT_EQ(readHead(client.get()), "HTTP/1.1 502 Bad Gateway\r\n\r\n");
  EXPECT_EQ(readToEnd(client.get()), "");
  ::shutdown(client.get(), SHUT_WR);
  EXPECT_TRUE(
      frontDoor.log().waitFor({"dest=127.0.0.1:" + std::to_string(port), "result=dial-failed"}));
}

TEST(FrontDoorRelayTest, LogsTheIdentityHeadersAndTheByteCounts) {
  EchoServer echo;
  RunningFrontDoor frontDoor(listeningOn("127.0.0.1"));
  const UniqueFd client = connectTo(frontDoor.address());
  sendAll(client.get(), connectHead(formatHostPort("127.0.0.1", echo.port()),
                                    "X-Brask-Pid: 4242\r\nX-Brask-Signing-Id: /opt/My Agent\r\n"
                                    "X-Brask-Trace: 9f3c00aa11bb22cc\r\n"));
  ASSERT_EQ(readHead(client.get()), kAck);
  const std::string hello = "not a TLS hello";
  EXPECT_EQ(exchange(client.get(), hello).size(), hello.size());
  const auto line = frontDoor.log().waitFor({"result=closed"});
  ASSERT_TRUE(line);
  EXPECT_EQ(*line,
            "conn pid=4242 signing=/opt/My\\x20Agent trace=9f3c00aa11bb22cc dest=127.0.0.1:" +
                std::to_string(echo.port()) + " sni=- alpn=- up=" + std::to_string(hello.size()) +
                " down=" + std::to_string(hello.size()) + " result=closed");
}

TEST(FrontDoorRelayTest, LogsTheServerNameAndProtocolsOfTheClientHello) {
  EchoServer echo;
  RunningFrontDoor frontDoor(listeningOn("127.0.0.1"));
  const UniqueFd client = connectTo(frontDoor.address());
  sendAll(client.get(), connectHead(formatHostPort("127.0.0.1", echo.port())));
  ASSERT_EQ(readHead(client.get()), kAck);
  const Bytes hello = readHello("openssl_h2");
  exchange(client.get(), std::string(hello.begin(), hello.end()));
  const auto line = frontDoor.log().waitFor({"result=closed"});
  ASSERT_TRUE(line);
  EXPECT_NE(line->find(" sni=api.example.com alpn=h2,http/1.1 "), std::string::npos) << *line;
}

TEST(FrontDoorRelayTest, RelaysManyClientsAtOnce) {
  constexpr int kClients = 24;
  EchoServer echo;
  RunningFrontDoor frontDoor(listeningOn("127.0.0.1"));
  std::vector<std::future<bool>> results;
  for (int i = 0; i < kClients; ++i) {
    results.push_back(std::async(std::launch::async, [&, i] {
      const UniqueFd client = connectTo(frontDoor.address());
      sendAll(client.get(), connectHead(formatHostPort("127.0.0.1", echo.port())));
      const std::string payload = patterned(32 * 1024 + static_cast<std::size_t>(i));
      return readHead(client.get()) == kAck && exchange(client.get(), payload) == payload;
    }));
  }
  for (auto& result : results) EXPECT_TRUE(result.get());
}

TEST(FrontDoorRelayTest, StoppingEndsLiveConnectionsAndLogsThem) {
  EchoServer echo;
  RunningFrontDoor frontDoor(listeningOn("127.0.0.1"));
  const UniqueFd client = connectTo(frontDoor.address());
  sendAll(client.get(), connectHead(formatHostPort("127.0.0.1", echo.port())));
  ASSERT_EQ(readHead(client.get()), kAck);
  frontDoor.stop();
  EXPECT_EQ(readToEnd(client.get()), "");
  EXPECT_TRUE(frontDoor.log().waitFor({"result=shutdown"}));
}

}  // namespace
}  // namespace tarnwick::frontdoor

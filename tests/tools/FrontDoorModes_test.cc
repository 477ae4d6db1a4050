// The fault modes and the bounded answers to bad requests, as a client on a real loopback
// connection sees them.

#include <gtest/gtest.h>

#include <cerrno>

#include "FrontDoorHarness.h"
#include "HostPort.h"

namespace tarnwick::frontdoor {
namespace {

constexpr std::string_view kAck = "HTTP/1.1 200 Connection established\r\n\r\n";
constexpr std::string_view kBadRequest = "HTTP/1.1 400 Bad Request\r\n\r\n";
// Long enough to tell "nothing comes" from "something comes at once", short enough to run often.
constexpr auto kQuiet = 50ms;

FrontDoorConfig inMode(FrontDoorMode mode) {
  FrontDoorConfig config;
  config.listen = {"127.0.0.1", 0};
  config.mode = mode;
  return config;
}

// What the client sees after sending a well-formed CONNECT.
enum class After { Nothing, AnswerThenEnd, AnswerThenSilence };

struct FaultCase {
  std::string name;
  FrontDoorMode mode;
  After after;
  std::string answer;  // the expected head; empty for any head that is not an HTTP answer
  std::string result;
};

class FrontDoorFaultTest : public ::testing::TestWithParam<FaultCase> {};

TEST_P(FrontDoorFaultTest, PlaysItsFault) {
  const auto& param = GetParam();
  const auto [unused, port] = refusingPort();  // never dialled by a fault mode
  RunningFrontDoor frontDoor(inMode(param.mode));
  const UniqueFd client = connectTo(frontDoor.address());
  ASSERT_TRUE(client.valid());
  sendAll(client.get(), connectHead(formatHostPort("127.0.0.1", port), "X-Brask-Pid: 7\r\n"));
  if (param.after == After::Nothing) {
    EXPECT_FALSE(readableWithin(client.get(), kQuiet));
  } else {
    const std::string head = readHead(client.get());
    if (param.answer.empty()) {
      EXPECT_TRUE(head.ends_with("\r\n\r\n"));
      EXPECT_FALSE(head.starts_with("HTTP/"));
      EXPECT_EQ(head.find("200"), std::string::npos);
    } else {
      EXPECT_EQ(head, param.answer);
    }
  }
  if (param.after == After::AnswerThenEnd) {
    EXPECT_EQ(readToEnd(client.get()), "");
  } else {
    sendAll(client.get(), "ignored");
    EXPECT_FALSE(readableWithin(client.get(), kQuiet));
  }
  ::shutdown(client.get(), SHUT_WR);
  EXPECT_TRUE(frontDoor.log().waitFor({"pid=7 ", "result=" + param.result}))
      << ::testing::PrintToString(frontDoor.log().lines());
}

INSTANTIATE_TEST_SUITE_P(
    Modes, FrontDoorFaultTest,
    ::testing::Values(FaultCase{"Silent", FrontDoorMode::Silent, After::Nothing, "", "silent"},
                      FaultCase{"Reject", FrontDoorMode::Reject, After::AnswerThenEnd,
                                "HTTP/1.1 407 Proxy Authentication Required\r\n\r\n", "rejected"},
                      FaultCase{"AckThenClose", FrontDoorMode::AckThenClose, After::AnswerThenEnd,
                                std::string(kAck), "acked-closed"},
                      FaultCase{"AckThenSilence", FrontDoorMode::AckThenSilence,
                                After::AnswerThenSilence, std::string(kAck), "acked-silent"},
                      FaultCase{"Garbage", FrontDoorMode::Garbage, After::AnswerThenEnd, "",
                                "garbage"}),
    CaseName{});

TEST(FrontDoorModeTest, RefuseHoldsThePortButRefusesConnections) {
  RunningFrontDoor frontDoor(inMode(FrontDoorMode::Refuse));
  errno = 0;
  EXPECT_FALSE(connectTo(frontDoor.address()).valid());
  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(FrontDoorModeTest, SlowAckAnswersAfterItsDelayThenRelays) {
  EchoServer echo;
  FrontDoorConfig config = inMode(FrontDoorMode::SlowAck);
  config.ackDelaySeconds = 0.05;
  RunningFrontDoor frontDoor(config);
  const UniqueFd client = connectTo(frontDoor.address());
  const auto sent = std::chrono::steady_clock::now();
  sendAll(client.get(), connectHead(formatHostPort("127.0.0.1", echo.port())));
  EXPECT_FALSE(readableWithin(client.get(), 20ms));
  ASSERT_EQ(readHead(client.get()), kAck);
  EXPECT_GE(std::chrono::steady_clock::now() - sent, 50ms);
  EXPECT_EQ(exchange(client.get(), "late but whole"), "late but whole");
}

struct BadHeadCase {
  std::string name;
  std::string bytes;
  bool halfClose;
  std::string result;
};

class FrontDoorBadHeadTest : public ::testing::TestWithParam<BadHeadCase> {};

TEST_P(FrontDoorBadHeadTest, Answers400AndCloses) {
  RunningFrontDoor frontDoor(inMode(FrontDoorMode::Normal));
  const UniqueFd client = connectTo(frontDoor.address());
  sendAll(client.get(), GetParam().bytes);
  if (GetParam().halfClose) ::shutdown(client.get(), SHUT_WR);
  EXPECT_EQ(readHead(client.get()), kBadRequest);
  EXPECT_EQ(readToEnd(client.get()), "");
  ::shutdown(client.get(), SHUT_WR);
  EXPECT_TRUE(frontDoor.log().waitFor({"result=" + GetParam().result}));
}

TEST(FrontDoorLingerTest, AClientStillSendingAfterTheAnswerIsCutOffAfterTheLinger) {
  FrontDoorConfig config = inMode(FrontDoorMode::Reject);
  config.lingerSeconds = 0.02;
  RunningFrontDoor frontDoor(config);
  const UniqueFd client = connectTo(frontDoor.address());
  sendAll(client.get(), connectHead("127.0.0.1:1") + "more");
  EXPECT_EQ(readHead(client.get()), "HTTP/1.1 407 Proxy Authentication Required\r\n\r\n");
  EXPECT_TRUE(frontDoor.log().waitFor({"up=4 ", "result=rejected"}));
}

INSTANTIATE_TEST_SUITE_P(
    Heads, FrontDoorBadHeadTest,
    ::testing::Values(
        BadHeadCase{"NotConnect", "GET / HTTP/1.1\r\nHost: a\r\n\r\n", false, "bad-request"},
        BadHeadCase{"NoPort", "CONNECT 127.0.0.1 HTTP/1.1\r\n\r\n", false, "bad-request"},
        BadHeadCase{"EndsMidHead", "CONNECT 127.0.0.1:1 HTTP/1.1\r\n", true, "bad-request"},
        BadHeadCase{"NoEndWithinLimit", "CONNECT 127.0.0.1:1 HTTP/1.1\r\n" + std::string(9000, 'a'),
                    false, "head-too-large"}),
    CaseName{});

// A head padded to the given size, terminator included.
std::string paddedHead(std::uint16_t port, std::size_t size) {
  std::string head = connectHead(formatHostPort("127.0.0.1", port), "X-Pad: \r\n");
  head.insert(head.size() - 4, size - head.size(), 'p');
  return head;
}

TEST(FrontDoorHeadLimitTest, TakesAHeadOfExactlyTheLimitAndRefusesOneByteMore) {
  EchoServer echo;
  RunningFrontDoor frontDoor(inMode(FrontDoorMode::Normal));
  const UniqueFd atLimit = connectTo(frontDoor.address());
  sendAll(atLimit.get(), paddedHead(echo.port(), 8192));
  EXPECT_EQ(readHead(atLimit.get()), kAck);
  const UniqueFd overLimit = connectTo(frontDoor.address());
  sendAll(overLimit.get(), paddedHead(echo.port(), 8193));
  EXPECT_EQ(readHead(overLimit.get()), kBadRequest);
}

TEST(FrontDoorHeadLimitTest, AClientThatSaysNothingIsLoggedWithoutAnAnswer) {
  RunningFrontDoor frontDoor(inMode(FrontDoorMode::Normal));
  UniqueFd client = connectTo(frontDoor.address());
  client.reset();
  EXPECT_TRUE(frontDoor.log().waitFor({"dest=- ", "result=no-request"}));
}

}  // namespace
}  // namespace tarnwick::frontdoor

// How the front door ends a relayed connection: a reset or failure on one side is carried to the
// other as a reset, never as a FIN that would pass for a complete transfer; a half-close stays a
// half-close, however long the other direction still runs.

#include <gmock/gmock.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>

#include "FrontDoorHarness.h"
#include "platform/posix/Sockets.h"

namespace tarnwick::frontdoor {
namespace {

const std::string kAck = "HTTP/1.1 200 Connection established\r\n\r\n";

enum class Side { Client, Destination };
enum class Ending { Reset, HalfClose };

struct EndingCase {
  const char* name;
  Side ends;
  Ending how;
  const char* result;  // as logged
};

void PrintTo(const EndingCase& c, std::ostream* out) { *out << c.name; }

class FrontDoorEndingTest : public ::testing::TestWithParam<EndingCase> {};

// A relayed connection is set up and carries a byte each way before one side ends it; the other
// side must see that very ending, ten times in a row.
TEST_P(FrontDoorEndingTest, CarriesEachEndingToTheOtherSide) {
  const EndingCase& param = GetParam();
  ManualDestination destination;
  RunningFrontDoor frontDoor({.listen = {"127.0.0.1", 0}});
  constexpr int kRounds = 10;
  for (int round = 0; round < kRounds; ++round) {
    UniqueFd client = connectTo(frontDoor.address());
    sendAll(client, "CONNECT " + destination.authority() + " HTTP/1.1\r\n\r\nu");
    ASSERT_EQ(readExactly(client, kAck.size()), kAck);
    UniqueFd upstream = destination.accept();
    sendAll(upstream, "d");
    ASSERT_EQ(readExactly(upstream, 1), "u");
    ASSERT_EQ(readExactly(client, 1), "d");
    UniqueFd& ender = param.ends == Side::Client ? client : upstream;
    UniqueFd& other = param.ends == Side::Client ? upstream : client;
    if (param.how == Ending::Reset) {
      resetAndClose(ender);
      EXPECT_EQ(readToEnd(other), "|reset") << "round " << round;
      continue;
    }
    ::shutdown(ender.get(), SHUT_WR);
    EXPECT_EQ(readToEnd(other), "|end") << "round " << round;
    sendAll(other, "still going");
    ::shutdown(other.get(), SHUT_WR);
    EXPECT_EQ(readToEnd(ender), "still going|end") << "round " << round;
  }
  using namespace ::testing;
  EXPECT_THAT(frontDoor.lines(kRounds),
              AllOf(SizeIs(kRounds), Each(EndsWith(std::string(" result=") + param.result))));
}

INSTANTIATE_TEST_SUITE_P(
    BothSides, FrontDoorEndingTest,
    ::testing::Values(
        EndingCase{"ClientResets", Side::Client, Ending::Reset, "client-reset"},
        EndingCase{"DestinationResets", Side::Destination, Ending::Reset, "destination-reset"},
        EndingCase{"ClientHalfCloses", Side::Client, Ending::HalfClose, "closed"},
        EndingCase{"DestinationHalfCloses", Side::Destination, Ending::HalfClose, "closed"}),
    CaseName{});

// The socket's TCP_INFO; `reported` takes how much of it this kernel fills in.
tcp_info tcpInfo(const UniqueFd& fd, socklen_t* reported = nullptr) {
  tcp_info info{};
  socklen_t length = sizeof info;
  ::getsockopt(fd.get(), IPPROTO_TCP, TCP_INFO, &info, &length);
  if (reported != nullptr) *reported = length;
  return info;
}

// The kernel's TCP_CLOSE state: the socket's end has been acknowledged after the peer's.
constexpr std::uint8_t kTcpClosed = 7;

// After the client has half-closed, the destination answers at length and ends while the client
// reads nothing yet, until the front door holds bytes it cannot pass on: the destination's socket
// has then ended both ways at the front door, with part of the answer still to come out of it.
// That is no failure: the rest of the answer and its end reach the client once it reads.
TEST(FrontDoorEndingTest, HalfClosedSocketWaitsUntilTheOtherSideTakesWhatItSent) {
  ManualDestination destination;
  RunningFrontDoor frontDoor({.listen = {"127.0.0.1", 0}});
  UniqueFd client = connectTo(frontDoor.address(), [](int fd) { setReceiveBuffer(fd, 4096); });
  sendAll(client, "CONNECT " + destination.authority() + " HTTP/1.1\r\n\r\n");
  ASSERT_EQ(readExactly(client, kAck.size()), kAck);
  UniqueFd upstream = destination.accept();
  ::shutdown(client.get(), SHUT_WR);
  ASSERT_EQ(readToEnd(upstream), "|end");
  // Piece by piece, each taken in by the front door's socket before the next: once the window
  // the front door offers has shrunk by two pieces, it has stopped reading, which it does only
  // while it holds bytes the client has no room for.
  socklen_t reported = 0;
  tcpInfo(upstream, &reported);
  if (reported < offsetof(tcp_info, tcpi_snd_wnd) + sizeof(tcp_info::tcpi_snd_wnd)) {
    GTEST_SKIP() << "this kernel does not report the peer's window";
  }
  constexpr std::size_t kPiece = 64 * 1024;
  const std::string answer = patternBytes(64 << 20);
  std::size_t sent = 0;
  std::uint32_t widest = 0;
  for (; sent < answer.size(); sent += kPiece) {
    sendAll(upstream, answer.substr(sent, kPiece));
    ASSERT_TRUE(waitUntil([&] {
      const tcp_info info = tcpInfo(upstream);
      return info.tcpi_unacked == 0 && info.tcpi_notsent_bytes == 0;
    }));
    const std::uint32_t window = tcpInfo(upstream).tcpi_snd_wnd;
    widest = std::max(widest, window);
    if (widest - window >= 2 * kPiece) break;
  }
  sent += kPiece;
  ASSERT_LT(sent, answer.size()) << "the front door never stopped reading";
  ::shutdown(upstream.get(), SHUT_WR);
  ASSERT_TRUE(waitUntil([&] { return tcpInfo(upstream).tcpi_state == kTcpClosed; }))
      << "the front door never took the end";
  EXPECT_TRUE(readToEnd(client) == answer.substr(0, sent) + "|end");
  EXPECT_THAT(frontDoor.lines(1), ::testing::ElementsAre(::testing::EndsWith(" result=closed")));
}

}  // namespace
}  // namespace tarnwick::frontdoor

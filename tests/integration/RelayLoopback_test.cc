// The whole relay on real loopback sockets: an agent whose flow is one end of a socket pair, the
// provider on the real runtime and real connections, the front door in each of its modes, an echo
// destination, and a real daemon socket receiving the events. Whatever the front door does, the
// agent's bytes reach the destination and come back exactly.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "LoopbackRig.h"

namespace tarnwick {
namespace {

using frontdoor::FrontDoorMode;

struct LoopbackCase {
  std::string name;
  FrontDoorMode mode;
  std::size_t size;
  std::string reasons;  // each preceded by a space
  Carrying carrying = Carrying::Spliced;
};
void PrintTo(const LoopbackCase& c, std::ostream* os) { *os << c.name; }

// Sends the payload while reading the echo back, until all of it has come back, the stream ends
// or nothing moves for five seconds.
std::string echoRoundTrip(int fd, std::string_view payload) {
  std::string received;
  std::vector<char> buffer(64 * 1024);
  for (std::size_t sent = 0; received.size() < payload.size();) {
    pollfd ready{fd, static_cast<short>(POLLIN | (sent < payload.size() ? POLLOUT : 0)), 0};
    if (::poll(&ready, 1, 5000) <= 0) break;
    if ((ready.revents & POLLOUT) != 0) {
      const ssize_t n =
          ::send(fd, payload.data() + sent, payload.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      sent += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
    }
    if ((ready.revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
    const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EAGAIN)) break;
    received.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
  }
  return received;
}

class RelayLoopbackTest : public ::testing::TestWithParam<LoopbackCase> {};

TEST_P(RelayLoopbackTest, EchoesEveryByteAndReportsWhy) {
  frontdoor::EchoServer echo;
  // Short limits, so that the silent modes fail over in well under a second.
  LoopbackRig rig(GetParam().mode,
                  {.handshakeTimeout = Seconds(0.5), .preCommitSilence = Seconds(0.5)},
                  GetParam().carrying);
  std::string payload(GetParam().size, '\0');
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 31 + i / 251);
  // The agent's end closes once the echo is back, ending the relay.
  const std::string received = echoRoundTrip(rig.connect(echo.port()).get(), payload);
  EXPECT_EQ(received.size(), payload.size());
  // Checksums, so that a failure reports two numbers rather than megabytes.
  EXPECT_EQ(std::hash<std::string>{}(received), std::hash<std::string>{}(payload));
  EXPECT_EQ(rig.daemon.failOpenReasonsOnceClosed(), GetParam().reasons);
}

std::vector<LoopbackCase> loopbackCases() {
  // Failing over after the session started replays what the agent sent, up to 128 KiB: an agent
  // that sent nothing has nothing to replay, and past 128 KiB there is no replay.
  const std::tuple<const char*, FrontDoorMode, const char*> modes[] = {
      {"Normal", FrontDoorMode::Normal, ""},
      {"Refuse", FrontDoorMode::Refuse, " relay-failed"},
      {"Silent", FrontDoorMode::Silent, " handshake-timeout"},
      {"Reject", FrontDoorMode::Reject, " no-ack"},
      {"Garbage", FrontDoorMode::Garbage, " no-ack"},
      {"SlowAck", FrontDoorMode::SlowAck, " handshake-timeout"},
      {"AckThenClose", FrontDoorMode::AckThenClose, " passthrough_dial passthrough_dial_spliced"},
      {"AckThenSilence", FrontDoorMode::AckThenSilence,
       " ack-then-silence passthrough_dial_spliced"},
  };
  std::vector<LoopbackCase> out;
  for (const auto& [mode, kind, reasons] : modes) {
    for (const std::size_t size : {0, 1, 100 << 10, 128 << 10, (128 << 10) + 1, 10 << 20}) {
      const bool afterCommit = std::string_view(reasons).ends_with("spliced");
      if (afterCommit && (size == 0 || size > 128 << 10)) continue;
      const std::string name = std::string(mode) + "_" + std::to_string(size) + "B";
      out.push_back({name, kind, size, reasons});
      // Where a session carries the bytes, also without a splicer.
      if (kind == FrontDoorMode::Normal || afterCommit) {
        out.push_back({name + "_Buffered", kind, size, reasons, Carrying::Buffered});
      }
    }
  }
  return out;
}

INSTANTIATE_TEST_SUITE_P(Modes, RelayLoopbackTest, ::testing::ValuesIn(loopbackCases()),
                         CaseName());

}  // namespace
}  // namespace tarnwick

// The front door on real loopback connections: every mode and every answer, as a client sees
// them and as the front door logs them.

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <fstream>

#include "FrontDoorHarness.h"
#include "RequestHead.h"
#include "platform/posix/Sockets.h"

namespace tarnwick::frontdoor {
namespace {

using namespace std::chrono_literals;

// Connects, sends `bytes` from another thread and half-closes, and returns what comes back
// until the end of the stream (or 5 s without a byte).
std::string talk(const SocketAddress& address, const std::string& bytes) {
  const UniqueFd fd = connectTo(address);
  if (!fd) return "errno " + std::to_string(errno);
  std::jthread writer([&] {
    sendAll(fd, bytes);
    ::shutdown(fd.get(), SHUT_WR);
  });
  const std::string received = readToEnd(fd);
  return received.substr(0, received.rfind('|'));  // how it ended is not what is compared
}

std::string head(const std::string& authority, const std::string& headers = "") {
  return "CONNECT " + authority + " HTTP/1.1\r\n" + headers + "\r\n";
}

TEST(FrontDoorTest, AnswersRelaysAndLogsEachConnectionInEveryMode) {
  EchoServer echo, echo6("::1");
  const std::string to = "127.0.0.1:" + std::to_string(echo.port());
  std::string error;
  const UniqueFd closed = bindTcpSocket(*literalAddress("127.0.0.1", 0), error);  // no listen
  const std::string nowhere = formatAddress(*localAddress(closed.get()));
  std::ifstream file(TARNWICK_HELLO_DIR "/openssl_h2.bin", std::ios::binary);
  const std::string hello(std::istreambuf_iterator<char>(file), {});
  const std::string ack = "HTTP/1.1 200 Connection established\r\n\r\n";
  const std::string badRequest = "HTTP/1.1 400 Bad Request\r\n\r\n";
  const std::string probe = "OPTIONS * HTTP/1.1\r\n\r\n";
  const std::string notAllowed =
      "HTTP/1.1 405 Method Not Allowed\r\nAllow: CONNECT\r\nContent-Length: 0\r\n"
      "Connection: close\r\n\r\n";
  const auto padded = [&](std::size_t size) {
    std::string bytes = head(to, "X-Pad: \r\n");
    return bytes.insert(bytes.size() - 4, size - bytes.size(), 'p');
  };
  const std::string mib = patternBytes(1 << 20);
  const std::string n = std::to_string(hello.size());
  // Each row: the mode, what the client sends, what it gets back and a part of the log line.
  for (const auto& [mode, sent, received, logged] : std::vector<std::array<std::string, 4>>{
           {"normal", head("[::1]:" + std::to_string(echo6.port())) + mib, ack + mib,
            " up=1048576 down=1048576 result=closed"},
           // A first answer of ::1 is refused (the echo is on 127.0.0.1) and the next tried.
           {"normal", head("localhost:" + std::to_string(echo.port())) + "early", ack + "early",
            " up=5 down=5 result=closed"},
           {"normal",
            head(to,
                 "X-Brask-Pid: 4242\r\nX-Brask-Signing-Id: /opt/My Agent\\\xff\r\n"
                 "X-Brask-Trace: 9f3c\r\n") +
                hello,
            ack + hello,
            "conn pid=4242 signing=/opt/My\\x20Agent\\x5c\\xff trace=9f3c dest=" + to +
                " sni=api.example.com alpn=h2,http/1.1 up=" + n + " down=" + n + " result=closed"},
           {"normal", padded(kMaxHeadBytes), ack, " up=0 down=0 result=closed"},
           {"normal", padded(kMaxHeadBytes + 1), badRequest, "result=head-too-large"},
           {"normal", head(nowhere), "HTTP/1.1 502 Bad Gateway\r\n\r\n",
            "dest=" + nowhere + " sni=- alpn=- up=0 down=0 result=dial-failed"},
           {"normal", "CONNECT " + to + " HTTP/1.1\r\n", badRequest, "result=bad-request"},
           {"normal", "", "",
            "pid=- signing=- trace=- dest=- sni=- alpn=- up=0 down=0 result=no-request"},
           {"slow-ack", head(to) + "late", ack + "late", " result=closed"},
           {"refuse", "", "errno " + std::to_string(ECONNREFUSED), ""},
           {"silent", head(to) + "ignored", "", "result=silent"},
           {"reject", head(to) + "more", "HTTP/1.1 407 Proxy Authentication Required\r\n\r\n",
            " up=4 down=0 result=rejected"},
           {"ack-then-close", head(to), ack, "result=acked-closed"},
           {"ack-then-silence", head(to) + "ignored", ack, "result=acked-silent"},
           {"garbage", head(to, "X-Brask-Pid: 7\r\n"),
            "\xff\xfe\x01garbage\x7f\x80 no status here\r\n\r\n", "pid=7 "},
           // A liveness probe: answered without a dial in normal mode, and met by the fault of
           // every other mode, so a faulty front door fails its probe too.
           {"normal", probe, notAllowed, "dest=- sni=- alpn=- up=0 down=0 result=not-connect"},
           {"normal", "GET / HTTP/1.1\r\nHost: a\r\n\r\n", notAllowed, "result=not-connect"},
           {"slow-ack", probe, notAllowed, "result=not-connect"},
           {"refuse", probe, "errno " + std::to_string(ECONNREFUSED), ""},
           {"silent", probe, "", "result=silent"},
           {"reject", probe, "HTTP/1.1 407 Proxy Authentication Required\r\n\r\n",
            "result=rejected"},
           {"ack-then-close", probe, ack, "result=acked-closed"},
           {"ack-then-silence", probe, ack, "result=acked-silent"},
           {"garbage", probe, "\xff\xfe\x01garbage\x7f\x80 no status here\r\n\r\n",
            "result=garbage"}}) {
    SCOPED_TRACE(mode + ": " + sent.substr(0, 60));
    RunningFrontDoor frontDoor({.listen = {"127.0.0.1", 0},
                                .mode = *modeFromName(mode),
                                .ackDelaySeconds = 0.05,
                                .lingerSeconds = 0.02});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(talk(frontDoor.address(), sent) == received);
    EXPECT_GE(std::chrono::steady_clock::now() - start, mode == "slow-ack" ? 50ms : 0ms);
    const std::size_t connections = mode == "refuse" ? 0 : 1;
    using namespace ::testing;
    EXPECT_THAT(frontDoor.lines(connections), AllOf(SizeIs(connections), Each(HasSubstr(logged))));
  }
}

// One program opening 2,000 connections at once, as a busy agent does: every one is accepted and
// acknowledged, and no connect had to be tried again because the front door's backlog overflowed
// (a dropped SYN is sent again after a second, which a relaying client's handshake budget does
// not survive; here a connect gives up after that one retry).
TEST(FrontDoorTest, BurstOfConnectsIsServedWhole) {
  constexpr std::size_t kBurst = 2000;
  int kernelBacklog = 0;
  std::ifstream("/proc/sys/net/core/somaxconn") >> kernelBacklog;
  if (kernelBacklog < static_cast<int>(kBurst)) {
    GTEST_SKIP() << "net.core.somaxconn is " << kernelBacklog << ": the kernel caps every backlog";
  }
  // This process holds both ends of every connection and the front door's dial of each.
  constexpr rlim_t kDescriptors = 4 * kBurst;
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < kDescriptors) {
    GTEST_SKIP() << "needs " << kDescriptors << " descriptors; the hard limit is "
                 << limit.rlim_max;
  }
  limit.rlim_cur = std::max(limit.rlim_cur, kDescriptors);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  // The kernel completes the front door's dials; nobody accepts them.
  ManualDestination destination;
  RunningFrontDoor frontDoor({.listen = {"127.0.0.1", 0}});
  std::vector<UniqueFd> clients;
  for (std::size_t i = 0; i < kBurst; ++i) {
    clients.push_back(connectTo(frontDoor.address(), [](int fd) {
      const int once = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_SYNCNT, &once, sizeof once);
    }));
    ASSERT_TRUE(clients.back()) << "connect " << i << ": " << std::strerror(errno);
    sendAll(clients.back(), head(destination.authority()));
  }
  const std::string ack = "HTTP/1.1 200 Connection established\r\n\r\n";
  std::size_t acknowledged = 0;
  std::uint64_t retransmitted = 0;
  for (const UniqueFd& client : clients) {
    acknowledged += readExactly(client, ack.size()) == ack;
    tcp_info info{};
    socklen_t length = sizeof info;
    ::getsockopt(client.get(), IPPROTO_TCP, TCP_INFO, &info, &length);
    retransmitted += info.tcpi_total_retrans;
  }
  EXPECT_EQ(acknowledged, kBurst);
  EXPECT_EQ(retransmitted, 0u);
  EXPECT_THAT(frontDoor.lines(0), ::testing::IsEmpty()) << "no connection ended, none paused";
}

}  // namespace
}  // namespace tarnwick::frontdoor

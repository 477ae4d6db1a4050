// Conversations a watched program has every day, through the provider, the real front door and a
// destination on loopback: servers that speak first or greet and close, clients that half-close
// and wait for the answer, resets from either side; a burst of connections at once; and the front
// door stopping under live connections.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "LoopbackRig.h"
#include "platform/testing/LoopbackServer.h"

namespace tarnwick {
namespace {

using frontdoor::FrontDoorMode;
using Peer = LoopbackServer::Peer;

// What the agent read until its stream ended, and how it ended.
struct Reading {
  std::string bytes;
  bool reset = false;
  bool ended = false;  // an end of stream (or a reset) came within the patience
};

void agentWrites(int fd, std::string_view bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    pollfd writable{fd, POLLOUT, 0};
    if (::poll(&writable, 1, 5000) <= 0) return;
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno != EAGAIN) return;
    sent += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
  }
}

Reading agentReadsToEnd(int fd) {
  Reading out;
  char buffer[64 * 1024];
  for (;;) {
    pollfd readable{fd, POLLIN, 0};
    if (::poll(&readable, 1, 5000) <= 0) return out;
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EAGAIN) continue;
    if (n <= 0) {
      out.reset = n < 0 && errno == ECONNRESET;
      out.ended = true;
      return out;
    }
    out.bytes.append(buffer, static_cast<std::size_t>(n));
  }
}

// Waits for `count` bytes the destination sent: the answer that commits a relay.
void agentReceives(int fd, std::size_t count) {
  std::string got(count, '\0');
  std::size_t have = 0;
  while (have < count) {
    pollfd readable{fd, POLLIN, 0};
    if (::poll(&readable, 1, 5000) <= 0) break;
    const ssize_t n = ::recv(fd, got.data() + have, count - have, 0);
    if (n <= 0) break;
    have += static_cast<std::size_t>(n);
  }
  EXPECT_EQ(have, count);
}

// Closes the agent's socket so that the other side sees a reset.
void agentResets(UniqueFd& fd) {
  const linger abortive{1, 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  fd.reset();
}

const RelayTiming kShortLimits{.handshakeTimeout = Seconds(1.0), .preCommitSilence = Seconds(1.0)};

struct Conversation {
  std::string name;
  // The front door's mode: Normal relays; Refuse fails the flow open to the direct leg.
  FrontDoorMode mode;
  // Plays both sides: the agent's socket, and the destination's end of the dialled connection.
  std::function<void(UniqueFd& agent, Peer& destination)> play;
  std::string reasons;  // fail-open reasons the daemon hears, each preceded by a space
  Carrying carrying = Carrying::Spliced;
};
void PrintTo(const Conversation& c, std::ostream* os) { *os << c.name; }

std::vector<Conversation> conversations() {
  const std::string banner = frontdoor::patternBytes(64 << 10);
  std::vector<Conversation> out;
  for (const auto& [mode, prefix, reasons, carrying] :
       {std::tuple{FrontDoorMode::Normal, "Relayed", "", Carrying::Buffered},
        std::tuple{FrontDoorMode::Normal, "Spliced", "", Carrying::Spliced},
        std::tuple{FrontDoorMode::Refuse, "Direct", " relay-failed", Carrying::Spliced}}) {
    const auto add = [&, mode = mode, reasons = reasons, prefix = std::string(prefix),
                      carrying = carrying](const char* name, auto play) {
      out.push_back({prefix + name, mode, play, reasons, carrying});
    };
    // A server that speaks first: its whole banner, exactly once.
    add("ServerFirstBanner", [banner](UniqueFd& agent, Peer& destination) {
      destination.write(banner);
      destination.shutdownWrite();
      const Reading got = agentReadsToEnd(agent.get());
      EXPECT_TRUE(got.ended && !got.reset);
      EXPECT_EQ(got.bytes.size(), banner.size());
      EXPECT_TRUE(got.bytes == banner);
      ::shutdown(agent.get(), SHUT_WR);
      EXPECT_EQ(destination.readToEnd(), "");
      EXPECT_TRUE(destination.sawEnd());
    });
    // A client that sends its request, half-closes and waits: the reply still comes.
    add("ClientHalfCloses", [](UniqueFd& agent, Peer& destination) {
      agentWrites(agent.get(), "request");
      ::shutdown(agent.get(), SHUT_WR);
      EXPECT_EQ(destination.readToEnd(), "request");
      EXPECT_TRUE(destination.sawEnd());
      destination.write("reply");
      destination.shutdownWrite();
      const Reading got = agentReadsToEnd(agent.get());
      EXPECT_EQ(got.bytes, "reply");
      EXPECT_TRUE(got.ended && !got.reset);
    });
    // The destination ends first and still reads what the agent sends after.
    add("ServerHalfCloses", [](UniqueFd& agent, Peer& destination) {
      destination.write("220 ready\r\n");
      destination.shutdownWrite();
      const Reading got = agentReadsToEnd(agent.get());
      EXPECT_EQ(got.bytes, "220 ready\r\n");
      agentWrites(agent.get(), "QUIT\r\n");
      ::shutdown(agent.get(), SHUT_WR);
      EXPECT_EQ(destination.readToEnd(), "QUIT\r\n");
    });
    // Resets, once the destination has answered: the other side sees a reset too.
    add("DestinationResets", [](UniqueFd& agent, Peer& destination) {
      agentWrites(agent.get(), "GET");
      EXPECT_EQ(destination.read(3), "GET");
      destination.write("partial");
      agentReceives(agent.get(), 7);
      destination.reset();
      const Reading got = agentReadsToEnd(agent.get());
      EXPECT_TRUE(got.reset) << "the agent saw a clean end after " << got.bytes;
    });
    add("AgentResets", [](UniqueFd& agent, Peer& destination) {
      agentWrites(agent.get(), "GET");
      EXPECT_EQ(destination.read(3), "GET");
      destination.write("200");
      agentReceives(agent.get(), 3);
      agentResets(agent);
      EXPECT_EQ(destination.readToEnd(), "");
      EXPECT_TRUE(destination.sawReset()) << "the destination saw a clean end";
    });
  }
  return out;
}

class ConversationTest : public ::testing::TestWithParam<Conversation> {};

TEST_P(ConversationTest, IsCarriedAsWithoutTheInterceptor) {
  LoopbackServer destination("127.0.0.1");
  LoopbackRig rig(GetParam().mode, kShortLimits, GetParam().carrying);
  UniqueFd agent = rig.connect(destination.port());
  Peer* peer = destination.peer(0);
  ASSERT_NE(peer, nullptr);
  GetParam().play(agent, *peer);
  agent.reset();
  EXPECT_TRUE(rig.daemon.waitFor("relay.close", 1));
  EXPECT_EQ(rig.daemon.failOpenReasonsOnceClosed(), GetParam().reasons);
  EXPECT_EQ(destination.acceptedCount(), 1u);  // dialled once: nothing replayed twice
}

INSTANTIATE_TEST_SUITE_P(Loopback, ConversationTest, ::testing::ValuesIn(conversations()),
                         CaseName());

// One program opening many connections at once against a healthy front door: every one is
// relayed, none fails open (so no destination is dialled directly after the front door had
// delivered the request), and each gets exactly its own answer. TARNWICK_BURST sets the count.
TEST(BurstTest, EveryConnectionOfABurstIsRelayedOnce) {
  const char* configured = std::getenv("TARNWICK_BURST");
  const std::size_t count = configured ? std::strtoul(configured, nullptr, 10) : 300;
  frontdoor::EchoServer echo;
  LoopbackRig rig(FrontDoorMode::Normal, {});
  std::vector<UniqueFd> agents;
  for (std::size_t i = 0; i < count; ++i) agents.push_back(rig.connect(echo.port()));
  for (std::size_t i = 0; i < count; ++i) {
    agentWrites(agents[i].get(), "request " + std::to_string(i) + "\n");
    ::shutdown(agents[i].get(), SHUT_WR);
  }
  std::size_t exact = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const Reading got = agentReadsToEnd(agents[i].get());
    const bool same = got.bytes == "request " + std::to_string(i) + "\n";
    exact += same;
    if (!same && exact + 3 > i) {
      ADD_FAILURE() << "agent " << i << " read '" << got.bytes << "' then "
                    << (got.reset   ? "a reset"
                        : got.ended ? "its end"
                                    : "nothing more");
    }
  }
  EXPECT_EQ(exact, count);
  agents.clear();
  EXPECT_TRUE(rig.daemon.waitFor("relay.close", count, 30s));
  EXPECT_EQ(rig.daemon.count("relay.failopen"), 0u);
  EXPECT_EQ(rig.provider->status().circuit, FrontDoorCircuitState::closed());
}

// The front door stopping under live relays: every agent learns of it at once, by an end or a
// reset, rather than waiting on a connection nobody serves; each relay closes.
TEST(FrontDoorStopTest, LiveRelaysEndWhenTheFrontDoorStops) {
  frontdoor::EchoServer echo;
  LoopbackRig rig(FrontDoorMode::Normal, {});
  std::vector<UniqueFd> agents;
  for (int i = 0; i < 5; ++i) {
    agents.push_back(rig.connect(echo.port()));
    agentWrites(agents.back().get(), "ping");
    agentReceives(agents.back().get(), 4);
  }
  rig.frontDoor.stop();
  for (auto& agent : agents) EXPECT_TRUE(agentReadsToEnd(agent.get()).ended);
  agents.clear();
  EXPECT_TRUE(rig.daemon.waitFor("relay.close", 5));
  EXPECT_EQ(rig.daemon.count("relay.failopen"), 0u);
}

}  // namespace
}  // namespace tarnwick

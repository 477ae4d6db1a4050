// The relay engine under many seeds: each seed draws a front door, an agent and a destination
// that misbehave in their own ways, runs one relay to its end on the simulated runtime, and checks
// what must hold whatever happened. A failing seed replays alone with TARNWICK_SEED=<seed>.

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "RelayHarness.h"

namespace tarnwick {
namespace {

constexpr std::uint64_t kSeeds = 3000;

// What a front-door attempt does (the story gives its number): refuse, wait, never answer, accept
// without acknowledging, reject; or acknowledge and then close, stall, answer, or fail every write.
enum FrontDoor { Refuse, Wait, Silent, NoAck, Reject, AckClose, AckStall, AckAnswer, AckBreak };

class Simulation {
 public:
  explicit Simulation(std::uint64_t seed) : rng_(seed), h_(seed) {}

  // Runs the relay to its end; returns every invariant that did not hold.
  std::vector<std::string> run() {
    h_.connections->onMake = [this](const std::shared_ptr<ScriptedConnection>& c) {
      c->endpoint().port.rawValue() == RelayHarness::kFrontDoorPort ? frontDoor(c) : destination(c);
    };
    flow_ = h_.makeFlow();
    agent();
    h_.engine.relay(flow_, RelayHarness::kTarget, 4242, "/usr/bin/agent", "0123456789abcdef");
    h_.env->advance(2000s);
    check();
    return violations_;
  }

  std::string story() const { return story_.str(); }

 private:
  Duration upTo(std::int64_t ms) {
    return std::chrono::milliseconds(std::uniform_int_distribution<std::int64_t>(0, ms)(rng_));
  }
  void at(Duration delay, Work work) { world_->asyncAfter(delay, std::move(work)); }

  void frontDoor(const std::shared_ptr<ScriptedConnection>& c) {
    const auto kind = static_cast<FrontDoor>(rng_() % 9);
    story_ << " front-door=" << kind;
    // Mostly within the handshake budget, sometimes past it, sometimes at its very instant.
    const auto pick = rng_() % 10;
    const Duration setup = pick == 0   ? upTo(3000)
                           : pick == 1 ? std::chrono::milliseconds(500 * (1 + rng_() % 5))
                                       : upTo(1200);
    const Duration later = setup + upTo(30000);
    if (kind == Refuse) at(setup, [c] { c->fail(ECONNREFUSED); });
    if (kind == Wait) at(setup, [c] { c->wait(ENETUNREACH); });
    if (kind == NoAck || kind == Reject) at(setup, [c] { c->becomeReady(); });
    if (kind == Reject) at(setup, [c] { c->deliver(bytesOf("HTTP/1.1 407 No\r\n\r\n")); });
    if (kind < AckClose) return;
    at(setup, [c] { c->becomeReady(), c->deliver(bytesOf(RelayHarness::kAck)); });
    if (kind == AckClose) at(later, [c] { c->deliverEnd(); });
    const bool closes = rng_() % 2 == 0;
    const Bytes response = patternBytes(1 + rng_() % 3000, 7);
    if (kind == AckAnswer) at(later, [c, closes, response] { c->deliver(response, closes); });
    if (kind != AckBreak) return;
    // Agent bytes stay unsent until one of these failures, or the silence limit, comes.
    at(setup + 1ms, [c] { c->setAutoCompleteSends(false); });
    for (int i = 0; i < 3; ++i) {
      at(setup + upTo(25000), [c] { c->completeSend(NWError::fromErrno(EPIPE)); });
    }
  }

  void destination(const std::shared_ptr<ScriptedConnection>& c) {
    directs_.push_back(c);
    destinationAccepts_ = rng_() % 4 != 0;
    story_ << " destination=" << (destinationAccepts_ ? "accepts" : "refuses");
    const Duration setup = upTo(2000);
    if (!destinationAccepts_) return at(setup, [c] { c->fail(ECONNREFUSED); });
    at(setup, [c] { c->becomeReady(); });
    if (rng_() % 2 == 0) at(setup + upTo(20000), [c] { c->deliver(bytesOf("hi")); });
  }

  // An agent that closes early (0), sends some (1), or sends past the replay cap (2).
  void agent() {
    const auto kind = rng_() % 3;
    story_ << "agent=" << kind;
    const std::size_t chunks = kind == 0 ? rng_() % 3 : kind == 1 ? 1 + rng_() % 10 : 40;
    const std::size_t maxChunk = kind == 0 ? 2000 : kind == 1 ? 8000 : 4096;
    Duration when{};
    for (std::size_t i = 0; i < chunks; ++i) {
      when += upTo((kind == 0 ? 1000 : kind == 1 ? 40000 : 5000) / static_cast<int>(chunks));
      const Bytes chunk =
          patternBytes(kind == 2 ? maxChunk : 1 + rng_() % maxChunk, stream_.size());
      stream_.insert(stream_.end(), chunk.begin(), chunk.end());
      at(when, [flow = flow_, chunk] { flow->agentSends(chunk); });
    }
    at(when + upTo(kind == 0 ? 3000 : 60000), [flow = flow_] { flow->agentEnds(); });
  }

  void expect(bool holds, const std::string& what) {
    if (!holds) violations_.push_back(what);
  }
  bool isStreamPrefix(const Bytes& b) const {
    return b.size() <= stream_.size() && std::equal(b.begin(), b.end(), stream_.begin());
  }

  void check() {
    const auto& ctx = *h_.context;
    std::size_t handshakeFailOpens = 0, failOpens = 0;
    for (const auto& entry : ctx.trail()) {
      story_ << " | " << entry;
      failOpens += entry.starts_with("relay.failopen:");
      for (const char* reason : {"handshake-timeout", "preamble-send-failed", "no-ack",
                                 "relay-waiting", "relay-failed"}) {
        handshakeFailOpens += entry == std::string("relay.failopen:") + reason;
      }
    }
    const auto closes = ctx.count("relay.close");
    expect(ctx.count("retain") + handshakeFailOpens == 1, "one hand-off or one direct dial");
    expect(closes <= 1, "at most one relay.close");
    expect(closes == 0 || eventTrail(ctx.events()).back() == "relay.close", "close comes last");
    expect(failOpens <= 2, "at most two relay.failopen");
    expect(ctx.retainedCount() == 0, "no session outlives its flow");
    expect(ctx.count("release") == ctx.count("retain"), "every retained session released once");
    expect(flow_->readClosed() && flow_->writeClosed(), "the flow is closed");
    expect(flow_->rejected() == 0, "the flow is used as a socket-backed one allows");
    expect(ctx.count("circuit:failure") + ctx.count("circuit:success") <= 1, "one circuit outcome");
    for (const auto& c : h_.connections->made()) {
      expect(c->cancelled() || c->state() == NWConnectionState::Kind::Failed,
             "no connection left open");
      if (c->endpoint().port.rawValue() != RelayHarness::kFrontDoorPort) continue;
      const Bytes got = c->sent();
      const auto preamble = textOf(got).find("\r\n\r\n");  // the agent's bytes follow it
      expect(preamble == std::string_view::npos ||
                 isStreamPrefix(Bytes(got.begin() + preamble + 4, got.end())),
             "the front door got the agent's bytes in order");
    }
    expect(directs_.size() <= 1, "at most one direct dial");
    expect(handshakeFailOpens == 0 || directs_.size() == 1, "a fail-open dials the destination");
    for (const auto& d : directs_) expect(isStreamPrefix(d->sent()), "destination bytes in order");
    // Nothing but the agent's end can end a spliced session or a direct leg whose destination
    // accepted, and the agent is read only once its previous bytes are sent: the destination must
    // have every byte, replayed, held and new.
    if (ctx.count("relay.failopen:passthrough_dial_spliced") == 1 ||
        (handshakeFailOpens == 1 && destinationAccepts_)) {
      expect(directs_.size() == 1 && directs_[0]->sent() == stream_, "destination got every byte");
    }
  }

  std::mt19937_64 rng_;
  RelayHarness h_;
  std::shared_ptr<DispatchQueue> world_ = h_.env->makeQueue("world", QualityOfService::Default);
  std::shared_ptr<ScriptedTCPFlow> flow_;
  std::vector<std::shared_ptr<ScriptedConnection>> directs_;
  bool destinationAccepts_ = false;
  Bytes stream_;  // everything the agent sends, in order
  std::ostringstream story_;
  std::vector<std::string> violations_;
};

TEST(RelaySimulation, InvariantsHoldAcrossSeeds) {
  const char* only = std::getenv("TARNWICK_SEED");
  const std::uint64_t first = only ? std::strtoull(only, nullptr, 10) : 1;
  int failures = 0;
  for (std::uint64_t seed = first; seed <= (only ? first : kSeeds) && failures < 5; ++seed) {
    Simulation simulation(seed);
    const auto violations = simulation.run();
    if (only) std::printf("seed %s: %s\n", only, simulation.story().c_str());
    if (violations.empty()) continue;
    ++failures;
    ADD_FAILURE() << "seed " << seed << ": " << ::testing::PrintToString(violations)
                  << "\n  story: " << simulation.story() << "\n  replay: TARNWICK_SEED=" << seed
                  << " relay_tests --gtest_filter=RelaySimulation.*";
  }
}

}  // namespace
}  // namespace tarnwick

// Queues, timers and connections as their callers see them. Each case runs on the simulated
// runtime (with the scripted connection) and on the real one (Asio, loopback sockets in every
// address form), so a test double that drifts from the real thing shows; then what only one of
// them can show.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <future>
#include <mutex>
#include <thread>

#include "platform/IoLane.h"
#include "platform/testing/CaseName.h"
#include "platform/testing/LoopbackServer.h"
#include "platform/testing/ScriptedConnection.h"
#include "platform/testing/SimulatedRuntime.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

const char* const kStates[] = {"setup", "preparing", "ready", "waiting", "failed", "cancelled"};

std::string errnoText(const std::optional<NWError>& error) {
  return error ? " errno=" + std::to_string(error->code) : "";
}

// What callbacks saw, as short texts; one that ran off the queue it belongs to says so.
struct Trace {
  void add(const std::shared_ptr<DispatchQueue>& queue, const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    entries.push_back(queue->isCurrent() ? what : what + " (off queue)");
  }
  std::vector<std::string> all() {
    std::lock_guard<std::mutex> lock(mutex);
    return entries;
  }
  std::mutex mutex;
  std::vector<std::string> entries;
};

struct Form {
  const char* name;
  const char* listenOn;  // nullptr: the simulated runtime and the scripted connection
  const char* dial;
};

void PrintTo(const Form& form, std::ostream* os) { *os << form.name; }

using Mode = LoopbackServer::Mode;

class RuntimeTest : public ::testing::TestWithParam<Form> {
 protected:
  bool real() const { return GetParam().listenOn != nullptr; }
  std::shared_ptr<DispatchQueue> makeQueue(QueueKind kind = QueueKind::Serial) {
    const std::shared_ptr<Runtime> runtime = real() ? realRuntime() : env_;
    return runtime->makeQueue("q", QualityOfService::Default, kind);
  }
  // Runs queues and lets time pass until `done` holds (real time bounded by a broken test only).
  bool settle(const std::function<bool()>& done) {
    for (int step = 0; step < 5000 && !done(); ++step) {
      if (real()) std::this_thread::sleep_for(1ms);
      if (real()) continue;
      env_->runUntilIdle();
      const auto next = env_->nextDeadline();
      if (!next) return env_->runUntil(done);
      if (!done()) env_->advance(*next - env_->monotonicNow());
    }
    return done();
  }
  bool settleOn(const std::string& what) {
    return settle([&] { return std::ranges::count(trace_->all(), what) > 0; });
  }
  // Runs `work` on queue_ and waits until it (and all posted before it) has run.
  void runOn(Work work) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    queue_->async(std::move(work));
    queue_->async([done] { *done = true; });
    ASSERT_TRUE(settle([&] { return done->load(); }));
  }
  Work note(std::string what) {
    return [trace = trace_, queue = queue_, what] { trace->add(queue, what); };
  }

  // A connection to a peer that accepts, refuses or stalls, its states traced. Real sockets
  // carry a mark when this process may set one, as the host's do.
  std::shared_ptr<NWConnection> make(Mode peer, Duration connectTimeout = kRealConnectTimeout) {
    peer_ = peer;
    std::shared_ptr<NWConnection> connection = scripted_;
    if (real()) {
      server_ = std::make_unique<LoopbackServer>(GetParam().listenOn, peer);
      NWParameters parameters;
      if (::geteuid() == 0) parameters.socketMark = 0x2a;
      const auto endpoint =
          NWEndpoint::hostPort(GetParam().dial, *NWEndpointPort::make(server_->port()));
      connection = realConnectionFactory(connectTimeout)->makeConnection(endpoint, parameters);
    }
    connection->setStateUpdateHandler(stateHandler());
    return connection;
  }
  NWConnection::StateHandler stateHandler() {
    return [trace = trace_, queue = queue_](const NWConnectionState& state) {
      trace->add(queue, kStates[static_cast<int>(state.kind)] + errnoText(state.error));
    };
  }
  NWConnection::SendCompletion sent(std::string name) {
    return [trace = trace_, queue = queue_, name](std::optional<NWError> error) {
      trace->add(queue, "sent " + name + errnoText(error));
    };
  }
  NWConnection::ReceiveCompletion received(std::string name) {
    return [trace = trace_, queue = queue_, name](std::optional<Bytes> content, bool isComplete,
                                                  std::optional<NWError> error) {
      trace->add(queue, "received " + name +
                            (content ? " '" + std::string(textOf(*content)) + "'" : " -") +
                            (isComplete ? " end" : "") + errnoText(error));
    };
  }
  // Starts on queue_; the scripted peer then answers the dial.
  void start(const std::shared_ptr<NWConnection>& connection) {
    connection->start(queue_);
    if (!real() && peer_ == Mode::Accept) scripted_->becomeReady();
    if (!real() && peer_ == Mode::Refuse) scripted_->fail(ECONNREFUSED);
  }
  // What the peer received, with " end" once the connection ended its stream.
  std::string peerReadsToEnd() {
    if (!real()) {
      env_->runUntilIdle();
      return std::string(textOf(scripted_->sent())) + (scripted_->writeShutDown() ? " end" : "");
    }
    auto* peer = server_->peer(0);
    const std::string received = peer ? peer->readToEnd() : "<no peer>";
    return received + (peer && peer->sawEnd() ? " end" : "");
  }
  void peerWrites(const std::string& bytes, bool end) {
    auto* peer = real() ? server_->peer(0) : nullptr;
    if (!real()) scripted_->deliver(bytesOf(bytes));
    if (!real() && end) scripted_->deliverEnd();
    if (peer) peer->write(bytes);
    if (peer && end) peer->shutdownWrite();
  }

  std::shared_ptr<SimulatedRuntime> env_ = SimulatedRuntime::create();
  std::shared_ptr<DispatchQueue> queue_ = makeQueue();
  std::shared_ptr<Trace> trace_ = std::make_shared<Trace>();
  std::shared_ptr<ScriptedConnection> scripted_ = std::make_shared<ScriptedConnection>(
      NWEndpoint::hostPort("127.0.0.1", *NWEndpointPort::make(9)));
  std::unique_ptr<LoopbackServer> server_;
  Mode peer_ = Mode::Accept;
};

const Form kSimulated{"Simulated", nullptr, nullptr};
const Form kIPv4{"IPv4", "127.0.0.1", "127.0.0.1"};
const Form kIPv6{"IPv6", "::1", "::1"};

using DispatchTest = RuntimeTest;

TEST_P(DispatchTest, SerialQueuesRunTheirWorkInOrderOneItemAtATime) {
  std::array queues = {queue_, makeQueue()};
  std::array<std::atomic<int>, 2> next = {0, 0};
  std::atomic<int> faults{0}, finished{0};
  for (int i = 0; i < 600; ++i) {
    // An item that overlaps or overtakes another of its queue finds the count off.
    queues[i % 2]->async([&, q = i % 2, item = i / 2] {
      faults +=
          next[q].exchange(-1) != item || !queues[q]->isCurrent() || queues[1 - q]->isCurrent();
      next[q] = item + 1;
      ++finished;
    });
  }
  ASSERT_TRUE(settle([&] { return finished.load() == 600; }));
  EXPECT_EQ(faults.load(), 0);
}

TEST_P(DispatchTest, BlockedBlockingQueueDoesNotStallOtherQueues) {
  std::promise<void> release;
  auto reader = makeQueue(QueueKind::Blocking);
  reader->async([&, released = release.get_future().share()] {
    released.wait_for(5s);  // blocks like a read, until work on the other queue releases it
    queue_->async(note("reader handed back"));
  });
  queue_->async([&] {
    note("queue ran while reader blocked")();
    release.set_value();
  });
  ASSERT_TRUE(settle([&] { return trace_->all().size() == 2; }));
  EXPECT_THAT(trace_->all(), ElementsAre("queue ran while reader blocked", "reader handed back"));
}

// Delayed work and timers fire on their queue in deadline order. A timer waits for resume(), a
// later schedule() replaces its deadline either way, a cancel wins over an expiry that came due
// while the queue was busy, and a repeating timer cancelled from its own handler (as owners that
// hold it weakly do) fires no more and lets its handler go.
TEST_P(DispatchTest, DelayedWorkAndTimersFireInDeadlineOrder) {
  auto sooner = queue_->makeTimer(), later = queue_->makeTimer(), idle = queue_->makeTimer();
  auto cancelled = queue_->makeTimer(), repeating = queue_->makeTimer();
  sooner->setEventHandler(note("sooner"));
  later->setEventHandler(note("later"));
  idle->setEventHandler(note("never resumed"));
  cancelled->setEventHandler(note("cancelled when due"));
  auto token = std::make_shared<int>(0);
  std::atomic<int> ticks{0};
  repeating->setEventHandler([&, token, weak = std::weak_ptr<DispatchTimer>(repeating)] {
    note("tick")();
    if (++ticks == 3) weak.lock()->cancel();
  });
  runOn([&] {
    idle->schedule(0ms, std::nullopt, 0ms);
    sooner->schedule(1h, std::nullopt, 0ms);
    sooner->resume();
    sooner->schedule(5ms, std::nullopt, 0ms);
    later->schedule(1ms, std::nullopt, 0ms);
    later->resume();
    later->schedule(1h, std::nullopt, 0ms);
    queue_->asyncAfter(10ms, note("after 10ms"));
    queue_->asyncAfter(1ms, note("after 1ms"));
    repeating->schedule(20ms, 1ms, 0ms);
    repeating->resume();
    cancelled->schedule(0ms, std::nullopt, 0ms);
    cancelled->resume();
    std::this_thread::sleep_for(2ms);
    cancelled->cancel();
  });
  ASSERT_TRUE(settle([&] { return trace_->all().size() == 6; }));
  real() ? std::this_thread::sleep_for(10ms) : env_->advance(10ms);  // for what should not happen
  EXPECT_THAT(trace_->all(),
              ElementsAre("after 1ms", "sooner", "after 10ms", "tick", "tick", "tick"));
  EXPECT_EQ(token.use_count(), 1);
  later->cancel();
}

INSTANTIATE_TEST_SUITE_P(BothRuntimes, DispatchTest,
                         ::testing::Values(kSimulated, Form{"Real", "127.0.0.1", "127.0.0.1"}),
                         CaseName());

// The real runtime keeps off-lane queues off the lanes that carry flows: their work, delayed work
// included, runs on a thread that is no lane, and while it blocks every lane still runs.
TEST(AsioRuntimeTest, OffLaneQueueRunsBesideTheLanesAndStallsNone) {
  const auto offLane =
      realRuntime()->makeQueue("off", QualityOfService::Default, QueueKind::OffLane);
  const auto onALane = [] {
    for (std::size_t i = 0; i < ioLaneCount(); ++i) {
      if (ioLane(i).isCurrent()) return true;
    }
    return false;
  };
  std::promise<bool> blockedOnALane, delayedOnALane;
  std::promise<void> release;
  offLane->async([&, released = release.get_future().share()] {
    blockedOnALane.set_value(onALane() || !offLane->isCurrent());
    released.wait_for(5s);  // blocks like a write to a daemon that does not read
  });
  EXPECT_FALSE(blockedOnALane.get_future().get());
  std::atomic<std::size_t> lanesRan{0};
  std::promise<void> allRan;
  for (std::size_t i = 0; i < ioLaneCount(); ++i) {
    ioLane(i).post([&] {
      if (++lanesRan == ioLaneCount()) allRan.set_value();
    });
  }
  EXPECT_EQ(allRan.get_future().wait_for(5s), std::future_status::ready);
  release.set_value();
  offLane->asyncAfter(1ms, [&] { delayedOnALane.set_value(onALane() || !offLane->isCurrent()); });
  EXPECT_FALSE(delayedOnALane.get_future().get());
}

// The interleaving of four queues and the moments a leeway timer fires: nothing runs before the
// test says so, and the same seed replays the same run.
std::vector<std::string> seededRun(std::uint64_t seed) {
  auto env = SimulatedRuntime::create({.seed = seed});
  std::vector<std::string> order;
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  for (int q = 0; q < 4; ++q) queues.push_back(env->makeQueue(std::to_string(q), {}));
  for (int i = 0; i < 20; ++i) queues[i % 4]->async([&, i] { order.push_back(std::to_string(i)); });
  auto timer = queues[0]->makeTimer();
  timer->setEventHandler(
      [&] { order.push_back(std::to_string(env->monotonicNow().time_since_epoch().count())); });
  timer->schedule(5s, 5s, 1s);
  timer->resume();
  EXPECT_TRUE(order.empty());
  env->advance(21s);
  timer->cancel();
  return order;
}

TEST(SimulatedRuntimeTest, SameSeedReplaysTheSameRun) {
  const auto run = seededRun(7);
  EXPECT_EQ(run, seededRun(7));
  bool someSeedDiffers = false;
  for (std::uint64_t seed = 8; seed < 16; ++seed) someSeedDiffers |= seededRun(seed) != run;
  EXPECT_TRUE(someSeedDiffers);
}

// A timer rescheduled at the very moment its deadline passes fires at the new deadline only,
// whichever of the two the seed runs first: a watchdog kicked by traffic at its deadline stays
// quiet.
TEST(SimulatedRuntimeTest, RescheduleDropsAFiringThatHasNotRunYet) {
  bool kickedFirstSomewhere = false;
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    auto env = SimulatedRuntime::create({.seed = seed});
    auto timerQueue = env->makeQueue("timer", {});
    const MonotonicTime start = env->monotonicNow();
    std::vector<std::int64_t> firedAt;
    auto timer = timerQueue->makeTimer();
    timer->setEventHandler([&] {
      firedAt.push_back(
          std::chrono::duration_cast<std::chrono::seconds>(env->monotonicNow() - start).count());
    });
    timer->schedule(1s, std::nullopt, 0s);
    timer->resume();
    bool kickedFirst = false;
    env->makeQueue("kick", {})->asyncAfter(1s, [&] {
      kickedFirst = firedAt.empty();
      timer->schedule(5s, std::nullopt, 0s);
    });
    env->advance(10s);
    const std::vector<std::int64_t> expected =
        kickedFirst ? std::vector<std::int64_t>{6} : std::vector<std::int64_t>{1, 6};
    EXPECT_EQ(firedAt, expected) << "seed " << seed;
    kickedFirstSomewhere |= kickedFirst;
    timer->cancel();
  }
  EXPECT_TRUE(kickedFirstSomewhere) << "no seed ran the reschedule before the due firing";
}

using ConnectionTest = RuntimeTest;

// Sends made before ready go out in order once it is; an empty complete send ends the stream
// while the peer's answer still arrives, no more than each receive's maximum at a time.
TEST_P(ConnectionTest, HalfClosedConnectionSendsInOrderAndStillReceives) {
  std::string big(3 << 20, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 251);
  auto connection = make(Mode::Accept);
  connection->send(bytesOf(big), false, sent("A"));
  connection->send(bytesOf("tail"), false, sent("B"));
  connection->send(Bytes{}, true, sent("end"));
  start(connection);
  EXPECT_TRUE(peerReadsToEnd() == big + "tail end");
  peerWrites("abcdefgh", true);
  for (const char* name : {"1", "2", "3"}) connection->receive(1, 4, received(name));
  ASSERT_TRUE(settleOn("received 3 - end"));
  EXPECT_THAT(trace_->all(),
              ElementsAre("preparing", "ready", "sent A", "sent B", "sent end", "received 1 'abcd'",
                          "received 2 'efgh'", "received 3 - end"));
  connection->cancel();
}

// Their bytes never left, so a cancel before ready completes neither sends nor receives.
TEST_P(ConnectionTest, CancelBeforeReadyCallsNoCompletion) {
  auto connection = make(Mode::Stall);
  start(connection);
  connection->send(bytesOf("never"), false, sent("A"));
  connection->receive(1, 100, received("R"));
  connection->cancel();
  runOn([] {});
  EXPECT_THAT(trace_->all(), ElementsAre("preparing", "cancelled"));
}

// Nor does a failed dial complete a send queued before it or made after it: a completion would
// read as a failed write racing the state that explains it.
TEST_P(ConnectionTest, RefusedDialFailsAndDropsSends) {
  auto connection = make(Mode::Refuse);
  connection->send(bytesOf("never"), false, sent("A"));
  start(connection);
  ASSERT_TRUE(settleOn("failed errno=111"));
  connection->send(bytesOf("late"), false, sent("B"));
  runOn([] {});
  EXPECT_THAT(trace_->all(), ElementsAre("preparing", "failed errno=111"));
  connection->cancel();
}

// Pending work, and work given after the cancel, completes with ECANCELED: a receive, and a send
// the peer never reads, larger than the kernel takes. A real connection whose own state handler
// holds it is freed by the cancel.
TEST_P(ConnectionTest, CancelAfterReadyCompletesEverythingWithECANCELED) {
  auto connection = make(Mode::Accept);
  const std::weak_ptr<NWConnection> weak = connection;
  connection->setStateUpdateHandler([held = real() ? connection : nullptr, record = stateHandler()](
                                        const NWConnectionState& s) { record(s); });
  if (!real()) scripted_->setAutoCompleteSends(false);
  start(connection);
  ASSERT_TRUE(settleOn("ready"));
  connection->send(Bytes(64 << 20, 0x5a), false, sent("big"));
  connection->receive(1, 100, received("R"));
  connection->cancel();
  connection->send(bytesOf("late"), false, sent("A"));
  connection->receive(1, 100, received("R2"));
  connection.reset();
  ASSERT_TRUE(settleOn("received R2 - errno=125"));
  EXPECT_TRUE(!real() || settle([&] { return weak.expired(); }));
  EXPECT_THAT(trace_->all(),
              ::testing::UnorderedElementsAre("preparing", "ready", "sent big errno=125",
                                              "received R - errno=125", "cancelled",
                                              "sent A errno=125", "received R2 - errno=125"));
}

// A peer's reset completes a receive with ECONNRESET, never as an end of stream; and a forced
// cancel resets the peer where a plain one would end its stream.
TEST_P(ConnectionTest, ResetsAreToldApartFromEnds) {
  for (const bool peerResets : {true, false}) {
    SCOPED_TRACE(peerResets ? "peer resets" : "force-cancelled");
    trace_ = std::make_shared<Trace>();
    scripted_ = std::make_shared<ScriptedConnection>(scripted_->endpoint());
    auto connection = make(Mode::Accept);
    start(connection);
    connection->send(bytesOf("hi"), false, sent("A"));
    ASSERT_TRUE(settleOn("sent A"));
    auto* peer = real() ? server_->peer(0) : nullptr;
    if (!peerResets) {
      connection->forceCancel();
      EXPECT_EQ(peer ? peer->read(3) : std::string(textOf(scripted_->sent())), "hi");
      EXPECT_TRUE(peer ? peer->sawReset() : scripted_->reset());
      continue;
    }
    if (peer) peer->reset();
    if (!peer) scripted_->deliver(std::nullopt, false, NWError::fromErrno(ECONNRESET));
    connection->receive(1, 100, received("R"));
    ASSERT_TRUE(settleOn("received R - errno=104"));
    connection->cancel();
  }
}

INSTANTIATE_TEST_SUITE_P(Forms, ConnectionTest,
                         ::testing::Values(kSimulated, kIPv4, kIPv6,
                                           Form{"BracketedIPv6", "::1", "[::1]"},
                                           Form{"HostName", "127.0.0.1", "localhost"}),
                         CaseName());

using RealConnectionTest = RuntimeTest;

// Fewer bytes than the minimum complete a receive only at the end of the stream.
TEST_P(RealConnectionTest, ReceiveWaitsForItsMinimum) {
  auto connection = make(Mode::Accept);
  start(connection);
  peerWrites("abc", false);
  connection->receive(5, 6, received("1"));
  peerWrites("defgh", false);
  ASSERT_TRUE(settleOn("received 1 'abcdef'"));
  peerWrites("xy", true);
  connection->receive(10, 20, received("2"));
  connection->receive(1, 20, received("3"));
  ASSERT_TRUE(settleOn("received 3 - end"));
  EXPECT_THAT(trace_->all(), ElementsAre("preparing", "ready", "received 1 'abcdef'",
                                         "received 2 'ghxy' end", "received 3 - end"));
  connection->cancel();
}

TEST_P(RealConnectionTest, DialThatGetsNoAnswerTimesOut) {
  EXPECT_FALSE(NWEndpointPort::make(0));
  start(make(Mode::Stall, 50ms));
  ASSERT_TRUE(settleOn("failed errno=110"));
  EXPECT_THAT(trace_->all(), ElementsAre("preparing", "failed errno=110"));
}

INSTANTIATE_TEST_SUITE_P(Loopback, RealConnectionTest, ::testing::Values(kIPv4, kIPv6), CaseName());

}  // namespace
}  // namespace tarnwick

// The bridge on the simulated runtime against a daemon end made of plain Unix sockets: a listener
// takes the bridge's connect into its backlog at once, and every write the bridge makes has
// finished by the time runUntilIdle() returns, so the test reads what is there without waiting.
#include "bridge/DaemonBridge.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <future>
#include <limits>
#include <thread>

#include "DaemonServer.h"
#include "bridge/LineBuffer.h"
#include "platform/HomeDirectory.h"
#include "platform/IoLane.h"
#include "platform/posix/UniqueFd.h"
#include "platform/testing/CaptureLogSink.h"
#include "platform/testing/CaseName.h"
#include "platform/testing/SimulatedRuntime.h"
#include "policy/EnforcementPolicy.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

UniqueFd listenAt(const std::string& path) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const sockaddr_un address = addressOf(path);
  EXPECT_TRUE(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
              ::listen(fd.get(), 8) == 0);
  return fd;
}

// The oldest pending connection, waiting up to `waitMs` for one; an invalid one if none came.
UniqueFd acceptOne(const UniqueFd& listener, int waitMs = 0) {
  pollfd ready{listener.get(), POLLIN, 0};
  ::poll(&ready, 1, waitMs);
  return UniqueFd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

void sendAll(const UniqueFd& fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

// What has arrived on `fd`, waiting up to `waitMs` for the first bytes.
std::string drain(const UniqueFd& fd, int waitMs = 0) {
  pollfd ready{fd.get(), POLLIN, 0};
  ::poll(&ready, 1, waitMs);
  std::string out;
  char chunk[65536];
  for (ssize_t n; (n = ::recv(fd.get(), chunk, sizeof(chunk), MSG_DONTWAIT)) > 0;) {
    out.append(chunk, static_cast<std::size_t>(n));
  }
  return out;
}

Json alive(int ts) { return {{"kind", "proxyext.alive"}, {"ts", ts}}; }
const std::string kPush = R"({"kind":"policy.push","version":1})";

// Counts the work handed to the queues it makes, which a simulated runtime runs.
class CountingQueue : public DispatchQueue {
 public:
  CountingQueue(std::shared_ptr<DispatchQueue> inner, std::atomic<std::size_t>& posts)
      : inner_(std::move(inner)), posts_(posts) {}
  const std::string& label() const override { return inner_->label(); }
  QualityOfService qos() const override { return inner_->qos(); }
  void async(Work work) override {
    ++posts_;
    inner_->async(std::move(work));
  }
  void asyncAfter(Duration delay, Work work) override {
    ++posts_;
    inner_->asyncAfter(delay, std::move(work));
  }
  std::shared_ptr<DispatchTimer> makeTimer() override { return inner_->makeTimer(); }
  bool isCurrent() const override { return inner_->isCurrent(); }

 private:
  const std::shared_ptr<DispatchQueue> inner_;
  std::atomic<std::size_t>& posts_;
};

class CountingRuntime : public Runtime {
 public:
  explicit CountingRuntime(std::shared_ptr<SimulatedRuntime> inner) : inner_(std::move(inner)) {}
  std::shared_ptr<DispatchQueue> makeQueue(std::string label, QualityOfService qos,
                                           QueueKind kind) override {
    return std::make_shared<CountingQueue>(inner_->makeQueue(std::move(label), qos, kind), posts);
  }
  MonotonicTime monotonicNow() const override { return inner_->monotonicNow(); }
  WallTime wallNow() const override { return inner_->wallNow(); }

  std::atomic<std::size_t> posts{0};

 private:
  const std::shared_ptr<SimulatedRuntime> inner_;
};

class BridgeTest : public ::testing::Test {
 protected:
  BridgeTest() {
    char pattern[] = "/tmp/twb-XXXXXX";
    EXPECT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    path_ = dir_ + "/ne.sock";
  }
  ~BridgeTest() override { std::filesystem::remove_all(dir_); }

  // Pushes go to the process-wide policy, as in the product, unless the test takes them.
  DaemonBridge& bridge() {
    if (!bridge_) bridge_ = DaemonBridge::create(env_, path_, options_);
    return *bridge_;
  }
  UniqueFd connectDaemon() {
    listener_ = listenAt(path_);
    bridge().adoptPath(path_, true);
    env_->runUntilIdle();
    return acceptOne(listener_);
  }
  void send(Json event) {
    bridge().send(std::move(event));
    env_->runUntilIdle();
  }
  std::size_t logged(const std::string& text) { return logs_->countContaining(text); }
  std::size_t applied() { return logged("bridge: applied enforcement policy push"); }

  ScopedLogCapture logs_;
  std::shared_ptr<SimulatedRuntime> env_ = SimulatedRuntime::create();
  std::string dir_, path_;
  UniqueFd listener_;
  DaemonBridge::Options options_;
  std::shared_ptr<DaemonBridge> bridge_;
};

TEST(ResolveSocketTest, FirstNonEmptyTextWinsElseTheHomeDirectoryDefault) {
  const Json nested = {{"socketPath", "/n"}};
  const std::string home = homeDirectory() + "/.tarnwick/ne.sock";
  for (const auto& [options, path] : std::vector<std::pair<std::optional<Json>, std::string>>{
           {Json{{"providerConfiguration", nested}}, "/n"},
           {Json{{"socketPath", "/t"}, {"providerConfiguration", nested}}, "/t"},
           {Json{{"socketPath", ""}, {"providerConfiguration", nested}}, "/n"},
           {Json{{"socketPath", 7}, {"providerConfiguration", nested}}, "/n"},
           {Json{{"socketPath", ""}, {"providerConfiguration", {{"socketPath", ""}}}}, home},
           {Json{{"providerConfiguration", Json::array({"/x"})}}, home},
           {std::nullopt, home}}) {
    SCOPED_TRACE(options ? options->dump() : "absent");
    const auto resolved = DaemonBridge::resolveSocket(options);
    EXPECT_EQ(resolved.path, path);
    EXPECT_EQ(resolved.real, path != home);
  }
}

TEST_F(BridgeTest, ConnectsWhenThePathChangesAndADefaultNeverReplacesAConfiguredPath) {
  const UniqueFd a = listenAt(dir_ + "/a"), b = listenAt(dir_ + "/b");
  // c is missing; then a is configured, a default b ignored, a kept while open, b configured.
  for (const auto& [name, real] :
       {std::pair{"c", false}, {"a", true}, {"b", false}, {"a", true}, {"b", true}}) {
    bridge().adoptPath(dir_ + "/" + name, real);
    env_->runUntilIdle();
  }
  EXPECT_EQ(logged("bridge: connect(" + dir_ + "/c) failed"), 1u);
  EXPECT_EQ(logged("bridge: connected to " + dir_ + "/a"), 1u);
  EXPECT_EQ(logged("bridge: connected to " + dir_ + "/b"), 1u);
  EXPECT_EQ(logged("bridge: connected to"), 2u);
}

TEST_F(BridgeTest, MissingDaemonIsRetriedEveryTwoSecondsWhileEventsAreDropped) {
  bridge().adoptPath(path_, true);
  for (int tick = 0; tick < 100; ++tick) {  // one event every 100 ms for 10 s
    bridge().send(alive(tick));
    env_->advance(100ms);
  }
  EXPECT_EQ(logged("bridge: connect(" + path_ + ") failed errno=2"), 6u) << "at 0, 2, .. 10 s";
  EXPECT_EQ(logged("bridge: send dropped"), 100u);
  listener_ = listenAt(path_);
  env_->advance(1999ms);
  EXPECT_EQ(logged("bridge: connected to"), 0u);
  env_->advance(1ms);
  EXPECT_TRUE(acceptOne(listener_));
}

TEST_F(BridgeTest, EachEventIsOneCompactLineAndUnwritableEventsAreSkipped) {
  const UniqueFd daemon = connectDaemon();
  const Json relayOpen = {
      {"kind", "relay.open"}, {"pid", 42}, {"dest_host", "example.com"}, {"dest_port", 0}};
  const double infinity = std::numeric_limits<double>::infinity();
  for (const Json& event : {alive(1), Json("not an object"), relayOpen, Json(5),
                            Json{{"kind", "x"}, {"v", {1.5, infinity}}},
                            Json{{"kind", "quic.deny"}, {"signing_id", "a\xff"}}}) {
    bridge().send(event);
  }
  env_->runUntilIdle();
  EXPECT_EQ(drain(daemon),
            R"({"kind":"proxyext.alive","ts":1})"
            "\n"
            R"({"dest_host":"example.com","dest_port":0,"kind":"relay.open","pid":42})"
            "\n{\"kind\":\"quic.deny\",\"signing_id\":\"a\xef\xbf\xbd\"}\n");
}

TEST_F(BridgeTest, DaemonThatStopsReadingCostsOneWriteBoundedByTheSendTimeout) {
  const UniqueFd daemon = connectDaemon();  // accepted, never read
  const Json big = {{"kind", "relay.open"}, {"signing_id", std::string(64 * 1024, 's')}};
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 40; ++i) send(big);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4 * DaemonBridge::kSendTimeout);
  EXPECT_EQ(logged("bridge: write failed"), 1u) << "the sends after it are dropped at once";
}

// A burst of events made before the bridge queue gets to run wakes it once, and the daemon gets
// every line in the order sent.
TEST_F(BridgeTest, ABurstOfEventsWakesTheBridgeOnce) {
  const auto counting = std::make_shared<CountingRuntime>(env_);
  bridge_ = DaemonBridge::create(counting, path_, options_);
  const UniqueFd daemon = connectDaemon();
  const std::size_t before = counting->posts;
  std::string expected;
  for (int ts = 0; ts < 100; ++ts) {
    bridge().send(alive(ts));
    expected += alive(ts).dump() + "\n";
  }
  EXPECT_EQ(counting->posts - before, 1u);
  env_->runUntilIdle();
  EXPECT_EQ(drain(daemon), expected);
  send(alive(100));
  EXPECT_EQ(counting->posts - before, 2u) << "the next event after a drain wakes it again";
}

// With a batch window, the first event waits for the ones that follow it, and all go out together
// when the window closes.
TEST_F(BridgeTest, EventsWithinTheBatchWindowGoOutWhenItCloses) {
  options_.batchWindow = DaemonBridge::kBatchWindow;
  const UniqueFd daemon = connectDaemon();
  bridge().send(alive(1));
  env_->advance(DaemonBridge::kBatchWindow / 2);
  bridge().send(alive(2));
  env_->advance(DaemonBridge::kBatchWindow / 2 - 1us);
  EXPECT_EQ(drain(daemon), "");
  env_->advance(1us);
  EXPECT_EQ(drain(daemon), alive(1).dump() + "\n" + alive(2).dump() + "\n");
  // A flush does not wait for the window: the events are written before it reports done.
  bridge().send(alive(3));
  bool done = false;
  bridge().flush([&] { done = (drain(daemon) == alive(3).dump() + "\n"); });
  env_->runUntilIdle();
  EXPECT_TRUE(done);
}

// Producers on several threads while the bridge queue drains: no event waits without a drain on
// its way, and each producer's lines keep their order.
TEST_F(BridgeTest, EventsFromManyThreadsAllArriveEachThreadsInOrder) {
  constexpr int kThreads = 4, kEach = 500;
  const UniqueFd daemon = connectDaemon();
  std::vector<std::jthread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([this, t] {
      for (int i = 0; i < kEach; ++i) bridge_->send({{"kind", "x"}, {"t", t}, {"i", i}});
    });
  }
  LineBuffer lines;
  std::vector<int> next(kThreads, 0);
  int received = 0;
  EXPECT_TRUE(env_->runUntil([&] {
    const std::string bytes = drain(daemon);
    lines.append(Bytes(bytes.begin(), bytes.end()), [&](std::string_view line) {
      const Json event = Json::parse(line);
      EXPECT_EQ(event["i"], next[event["t"].get<int>()]++);
      ++received;
    });
    return received == kThreads * kEach;
  }));
}

// send() only hands the event over: past the bound, an event is dropped on the caller's thread,
// and the queue says how many once it gets to run.
TEST_F(BridgeTest, EventsPastTheBoundAreDroppedWithOneLine) {
  for (std::size_t i = 0; i < DaemonBridge::kMaxPendingEvents + 5; ++i) bridge().send(alive(1));
  env_->runUntilIdle();
  EXPECT_EQ(logged("bridge: send dropped"), DaemonBridge::kMaxPendingEvents);
  EXPECT_EQ(logged("bridge: dropped 5 events — 16384 were already waiting to be written"), 1u);
  bridge().send(alive(2));
  env_->runUntilIdle();
  EXPECT_EQ(logged("bridge: send dropped"), DaemonBridge::kMaxPendingEvents + 1);
  EXPECT_EQ(logged("bridge: dropped"), 1u);
}

// A daemon pushing large valid policy lines as fast as its socket takes them: the read loop stops
// while about a mebibyte waits on the bridge queue, so the daemon's sends wait instead of this
// process's memory growing, and every line is still handled.
TEST_F(BridgeTest, FastPushingDaemonIsHeldBackAtTheInboundLimit) {
  std::atomic<std::size_t> handled{0};
  options_.policySink = [&](const Json&) { ++handled; };
  const UniqueFd daemon = connectDaemon();
  const std::string line =
      R"({"kind":"policy.push","pad":")" + std::string(64 * 1024, 'p') + "\"}\n";
  constexpr std::size_t kLines = 256;  // 16 MiB
  std::jthread pusher([&] {
    for (std::size_t i = 0; i < kLines; ++i) sendAll(daemon, line);
  });
  EXPECT_TRUE(env_->runUntil([&] { return handled == kLines; }, 60s));
  EXPECT_LE(bridge().inboundPeakBytesForTest(),
            InboundBacklog::kLimitBytes + DaemonBridge::kReadChunkBytes);
}

TEST_F(BridgeTest, SeversDuringAnOutageAreReportedFirstOnTheNextConnection) {
  UniqueFd daemon = connectDaemon();
  bridge().recordCommittedSeverIfUnhealthy();  // connected: not counted
  daemon.reset();
  listener_.reset();
  std::filesystem::remove(path_);
  send(alive(1));  // the write fails: the daemon is gone
  for (int i = 0; i < 3; ++i) bridge().recordCommittedSeverIfUnhealthy();
  env_->runUntilIdle();
  EXPECT_EQ(env_->nextDeadline(), env_->monotonicNow() + 2s) << "one retry pending";

  listener_ = listenAt(path_);
  env_->advance(2s);
  daemon = acceptOne(listener_);
  send(alive(3));
  // The simulated wall clock starts at 2026-01-01T00:00:00Z; the retry came 2 s later.
  EXPECT_EQ(drain(daemon), R"({"count":3,"kind":"proxy.env.dead","ts":1767225602000000000})"
                           "\n" +
                               alive(3).dump() + "\n");

  bridge().reconnect(path_);
  env_->runUntilIdle();
  daemon = acceptOne(listener_);
  send(alive(4));
  EXPECT_EQ(drain(daemon), alive(4).dump() + "\n") << "the count was cleared by its flush";
}

struct InboundCase {
  const char* name;
  std::vector<std::string> writes;  // each written separately, the bridge run in between
  std::size_t pushes;
};

void PrintTo(const InboundCase& c, std::ostream* out) { *out << c.name; }

class InboundTest : public BridgeTest, public ::testing::WithParamInterface<InboundCase> {};

TEST_P(InboundTest, EachCompletePolicyPushLineReplacesTheProcessPolicyOnce) {
  EnforcementPolicy& policy = EnforcementPolicy::shared();
  const auto decide = [&] { return policy.decide(7, "/usr/bin/curl", "api.blocked.example"); };
  policy.update(Json::parse(R"({"agents":{"/usr/bin/curl":{"mode":"enforce","restrict":"deny",)"
                            R"("deny":["*.blocked.example"]}}})"));
  const UniqueFd daemon = connectDaemon();
  for (const std::string& bytes : GetParam().writes) {
    sendAll(daemon, bytes);
    env_->runUntil([] { return false; }, 20ms);
  }
  sendAll(daemon, kPush + "\n");  // applied last: every line before it has been handled
  EXPECT_TRUE(env_->runUntil([&] { return applied() == GetParam().pushes + 1; }));
  EXPECT_EQ(decide(), EnforcementPolicy::Verdict::Allow) << "the last push replaced the policy";
  EXPECT_EQ(drain(daemon), "") << "nothing is answered";
}

INSTANTIATE_TEST_SUITE_P(
    Daemon, InboundTest,
    ::testing::Values(
        InboundCase{"TwoLinesInOneWrite", {kPush + "\n" + kPush + "\n"}, 2},
        InboundCase{"LineOverSeveralWrites",
                    {kPush.substr(0, 5), kPush.substr(5, 10), kPush.substr(15) + "\r\n"},
                    1},
        InboundCase{"GarbageLines",
                    {"\n\r\n[1,2]\n42\nnot json\n{\"kind\":\"relay.open\"}\n{\"kind\":1}\n[" +
                     kPush + "]\n" + kPush + " x\n{\"kind\":\"policy.push\",\"a\":\"\xff\"}\n"},
                    0},
        InboundCase{"OverlongLineDroppedNextLineWhole",
                    {std::string(LineBuffer::kMaxBufferedBytes + 1000, 'x'), "x\n" + kPush + "\n"},
                    1}),
    CaseName{});

TEST_F(BridgeTest, DestroyingTheBridgeEndsItsBlockedReadLoop) {
  const UniqueFd daemon = connectDaemon();
  bridge_.reset();  // joins the read queue: returns only once the blocked read has ended
  char byte;
  EXPECT_EQ(::recv(daemon.get(), &byte, 1, MSG_DONTWAIT), 0) << "the connection has ended";
}

// On the real runtime, the bridge's work (its blocking connect and writes, its line handling)
// runs on no lane that carries flows.
TEST_F(BridgeTest, OnTheRealRuntimeBridgeWorkRunsOffTheLanes) {
  const UniqueFd listener = listenAt(path_);
  std::promise<bool> onALane;
  options_.policySink = [&](const Json&) {
    bool any = false;
    for (std::size_t i = 0; i < ioLaneCount(); ++i) any = any || ioLane(i).isCurrent();
    onALane.set_value(any);
  };
  auto bridge = DaemonBridge::create(realRuntime(), path_, options_);
  bridge->adoptPath(path_, true);
  const UniqueFd daemon = acceptOne(listener, 5000);
  sendAll(daemon, kPush + "\n");
  auto handled = onALane.get_future();
  ASSERT_EQ(handled.wait_for(5s), std::future_status::ready);
  EXPECT_FALSE(handled.get());
}

// The daemon companion's server pushes its policy line on every connection it serves and hands
// on each line it receives. Each connection cuts its own lines: one that ends in the middle of a
// line takes the partial line with it. Its thread reports through a simulated queue so
// runUntil() sees it.
TEST_F(BridgeTest, DaemonToolPushesOnEveryConnectionAndCutsEachOnesOwnLines) {
  const auto queue = env_->makeQueue("daemon", QualityOfService::Default);
  std::vector<std::string> lines;  // events, and "disconnected" as each connection ends
  const auto note = [&lines, queue](std::string_view line) {
    queue->async([&lines, line = std::string(line)] { lines.push_back(line); });
  };
  std::string error;
  const auto server = daemon::DaemonServer::create(dir_ + "/sub/ne.sock", kPush + "\n",
                                                   {note,
                                                    [&](std::string_view status) {
                                                      if (status == "disconnected") note(status);
                                                    }},
                                                   error);
  ASSERT_TRUE(server) << error;
  std::thread thread([&] { server->run(); });
  {
    const UniqueFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = addressOf(server->path());
    EXPECT_EQ(::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    sendAll(client, R"({"kind":"cut)");
    EXPECT_EQ(drain(client, 5000), kPush + "\n");
  }
  bridge().adoptPath(server->path(), true);
  EXPECT_TRUE(env_->runUntil([&] { return applied() == 1; }));
  send(alive(1));
  bridge().reconnect(server->path());
  EXPECT_TRUE(env_->runUntil([&] { return applied() == 2; }));
  send(alive(2));
  EXPECT_TRUE(env_->runUntil([&] { return lines.size() == 4; }));
  EXPECT_EQ(lines, (std::vector<std::string>{"disconnected", alive(1).dump(), "disconnected",
                                             alive(2).dump()}));
  server->stop();
  thread.join();
}

}  // namespace
}  // namespace tarnwick

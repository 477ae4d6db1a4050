// The host's parts without privileges: network rules as nftables text, socket owners in a
// synthetic /proc, and the host around a provider. There no table is made, the destination of
// each accepted connection is supplied by the test, and the control socket lives in a temporary
// directory; flows the provider takes are driven through the flow objects it was offered, as a
// provider drives them. (Carrying the flows it hands back, redirects and identification of the
// real client are tested through the run command, in Commands_test.)

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <mutex>

#include "HostTesting.h"
#include "host/PassThroughProvider.h"
#include "host/ProxyHost.h"
#include "host/control/ControlClient.h"
#include "host/owner/ProcessMetaDataCache.h"
#include "host/owner/SocketOwnerMap.h"
#include "host/redirect/NftRuleset.h"
#include "host/redirect/OriginalDestination.h"

namespace tarnwick::host {
namespace {

namespace fs = std::filesystem;

NENetworkRule rule(std::optional<NWHostEndpoint> remote, int prefix,
                   NENetworkRuleProtocol protocol = NENetworkRuleProtocol::TCP,
                   NETrafficDirection direction = NETrafficDirection::Outbound) {
  return {std::move(remote), prefix, std::nullopt, 0, protocol, direction};
}

// Everything outbound except the excluded networks, of either family, and the host's own marked
// sockets goes to the listener, in a table owned by the process. Rules the listener cannot serve
// (UDP) or that never meet an output chain (inbound) are left out; ports and "any protocol" keep
// their meaning.
TEST(NftRulesetTest, RulesBecomeOneOwnedTable) {
  NETransparentProxyNetworkSettings settings;
  settings.includedNetworkRules = {
      rule(NWHostEndpoint{"2001:db8::", "443"}, 32, NENetworkRuleProtocol::Any),
      rule(std::nullopt, 0, NENetworkRuleProtocol::UDP),
      rule(std::nullopt, 0, NENetworkRuleProtocol::TCP, NETrafficDirection::Inbound),
      rule(std::nullopt, 0)};
  settings.excludedNetworkRules = {rule(NWHostEndpoint{"127.0.0.0", "0"}, 8),
                                   rule(NWHostEndpoint{"::1", "0"}, 128)};
  const auto result = nftScriptFor(settings, {"tarnwick_proxyext", 0x7477, 15001});
  EXPECT_EQ(result.script.value_or(result.error),
            "table inet tarnwick_proxyext {\n"
            "  flags owner;\n"
            "  chain output {\n"
            "    type nat hook output priority -100; policy accept;\n"
            "    meta mark & 0x00007477 == 0x00007477 return\n"
            "    meta l4proto tcp ip daddr 127.0.0.0/8 return\n"
            "    meta l4proto tcp ip6 daddr ::1/128 return\n"
            "    meta l4proto tcp ip6 daddr 2001:db8::/32 tcp dport 443 redirect to :15001\n"
            "    meta l4proto tcp redirect to :15001\n"
            "  }\n"
            "}\n");
}

// Over a directory laid out as /proc: PID/fd/N links to "socket:[inode]" and other targets.
TEST(SocketOwnerMapTest, FindsOwnersFromItsCacheRecentOwnersAndAWalk) {
  const fs::path root = fs::path(::testing::TempDir()) / ("proc-" + std::to_string(::getpid()));
  const auto holds = [&](pid_t pid, int fd, const char* target) {
    fs::create_directories(root / std::to_string(pid) / "fd");
    fs::create_symlink(target, root / std::to_string(pid) / "fd" / std::to_string(fd));
  };
  holds(100, 3, "socket:[1]");
  holds(100, 4, "/tmp/socket:[5]");
  holds(500, 3, "socket:[2]");
  holds(500, 4, "pipe:[6]");
  SocketOwnerMap owners(root.string());
  EXPECT_EQ(owners.knownOwnerOf(1), std::nullopt);
  EXPECT_EQ(owners.walk(1), 100);  // the walk from the newest process records 500's too
  fs::remove_all(root / "500");
  EXPECT_EQ(owners.knownOwnerOf(2), 500);  // from the cache
  // A socket both hold (inherited across a fork) is found at the recent owner, without a walk.
  holds(100, 7, "socket:[3]");
  holds(700, 7, "socket:[3]");
  EXPECT_EQ(owners.knownOwnerOf(3), 100);
  holds(800, 9, "socket:[4]");
  EXPECT_EQ(owners.knownOwnerOf(4), std::nullopt);
  EXPECT_EQ(owners.walk(4), 800);
  for (std::uint64_t notASocket : {5, 6, 9999}) EXPECT_EQ(owners.walk(notASocket), std::nullopt);
  // A lane's map asks the walker's for what only a walk finds, then knows that process.
  SocketOwnerMap lane(root.string());
  holds(900, 5, "socket:[8]");
  EXPECT_EQ(lane.knownOwnerOf(8), std::nullopt);
  lane.learn(8, 900);
  holds(900, 6, "socket:[9]");
  EXPECT_EQ(lane.knownOwnerOf(9), 900);
  fs::remove_all(root);
}

std::size_t openDescriptors() {
  const auto entries = std::distance(fs::directory_iterator("/proc/self/fd"), {});
  return static_cast<std::size_t>(entries) - 1;  // the iterator's own
}

// A child that holds the socket `inode` names, and nothing else of ours, until the other end
// closes.
struct ShortClient {
  ShortClient() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
    struct stat held {};
    ::fstat(ends[1], &held);
    inode = held.st_ino;
    pid = ::fork();
    if (pid == 0) {
      // Every other descriptor goes, the other ends of earlier clients included, so that each
      // client ends when its own end is closed.
      const auto own = static_cast<unsigned>(ends[1]);
      ::close_range(3, own - 1, 0);
      ::close_range(own + 1, ~0U, 0);
      char byte;
      [[maybe_unused]] const auto ignored = ::read(ends[1], &byte, 1);
      ::_exit(0);
    }
    ::close(ends[1]);
    ours = UniqueFd(ends[0]);
  }
  ShortClient(ShortClient&&) = default;
  ~ShortClient() { end(); }
  // Ends the child and reaps it.
  void end() {
    if (!ours) return;
    ours.reset();
    ::waitpid(pid, nullptr, 0);
  }
  std::uint64_t inode = 0;
  pid_t pid = -1;
  UniqueFd ours;
};

// Many short clients come, are identified (more at once than the caches keep directories for,
// each looked up twice) and go: the owner caches hold a few descriptors at the most while it
// happens, and none once the clients have gone and the caches have noticed.
TEST(OwnerCachesTest, ShortLivedClientsLeaveNoDescriptorsOpen) {
  SocketOwnerMap owners;
  ProcessMetaDataCache processes;
  const std::size_t baseline = openDescriptors();
  const std::string ownExecutable = fs::canonical("/proc/self/exe");
  constexpr std::size_t kAtOnce = ProcessMetaDataCache::kHeldDirectories + 2;
  pid_t last = 0;
  for (int round = 0; round < 4; ++round) {
    std::vector<ShortClient> clients(kAtOnce);
    for (int lookup = 0; lookup < 2; ++lookup) {
      for (const ShortClient& client : clients) {
        ASSERT_GT(client.pid, 0);
        EXPECT_EQ(lookup == 0 ? owners.walk(client.inode) : owners.knownOwnerOf(client.inode),
                  client.pid);
        EXPECT_EQ(processes.metaDataOf(client.pid).sourceAppSigningIdentifier, ownExecutable);
      }
    }
    EXPECT_LE(openDescriptors(), baseline + kAtOnce + ProcessMetaDataCache::kHeldDirectories);
    for (ShortClient& client : clients) client.end();
    last = clients.back().pid;
  }
  EXPECT_EQ(processes.metaDataOf(last).sourceAppAuditToken, std::nullopt) << "gone";
  EXPECT_EQ(owners.knownOwnerOf(1), std::nullopt);  // looks at the recent owners: all gone
  EXPECT_EQ(openDescriptors(), baseline);
}

using Flow = std::shared_ptr<NEAppProxyTCPFlow>;

// The pass-through provider (its rules, its replies) that keeps what it was given and, when told
// to, takes flows and echoes them.
struct TestProvider : PassThroughProvider {
  void startProxy(std::optional<Json> options, StartCompletion completion) override {
    started = std::move(options);
    if (startError) return completion(startError);
    PassThroughProvider::startProxy(std::nullopt, std::move(completion));
  }
  void stopProxy(NEProviderStopReason reason, std::function<void()> completion) override {
    stopped = true;
    PassThroughProvider::stopProxy(reason, std::move(completion));
  }
  bool handleNewFlow(std::shared_ptr<NEAppProxyFlow> flow) override {
    const Flow tcp = std::dynamic_pointer_cast<NEAppProxyTCPFlow>(flow);
    std::lock_guard<std::mutex> lock(mutex);
    flows.push_back(tcp);
    if (take) tcp->open(std::nullopt, [this, tcp](std::optional<NEError>) { echo(tcp); });
    return take;
  }
  // Writes back what it reads; at the client's end (or once a read fails) closes both directions.
  void echo(const Flow& flow) {
    ++reads;
    flow->readData([this, flow](std::optional<Bytes> data, std::optional<NEError> error) {
      --reads;
      if (error || !data || data->empty()) {
        flow->closeReadWithError(std::nullopt);
        return flow->closeWriteWithError(std::nullopt);
      }
      flow->write(std::move(*data), [this, flow](std::optional<NEError>) { echo(flow); });
    });
  }

  std::size_t offered() {
    std::lock_guard<std::mutex> lock(mutex);
    return flows.size();
  }

  std::atomic<bool> take{false}, stopped{false};
  std::atomic<int> reads{0};  // pending
  std::optional<NEError> startError;
  std::optional<Json> started;  // read once start() has returned
  std::mutex mutex;
  // Written under mutex; read once `reads` has counted them. Held weakly: a flow lives as long
  // as its echo does.
  std::vector<std::weak_ptr<NEAppProxyTCPFlow>> flows;
};

class ProxyHostTest : public ::testing::Test {
 protected:
  ProxyHost::Options options() {
    ProxyHost::Options options;
    options.installRules = false;
    options.settings.listenPort = 0;
    options.settings.controlSocketPath = controlPath_;
    options.originalOf = [this](int, const SocketAddress&, const SocketAddress& peer) {
      return redirected_ ? std::optional(OriginalTuple{peer, destination_}) : std::nullopt;
    };
    // The client's own address, as identification must look it up.
    options.identify = [](const SocketAddress& client, const SocketAddress& destination,
                          FlowIntake::Identified then) {
      then(NEFlowMetaData{"/usr/bin/agent", bytesOf(hostEndpointOf(client).hostname + "->" +
                                                    hostEndpointOf(destination).port)});
    };
    return options;
  }
  void start() {
    auto hostOptions = options();
    hostOptions.providerStatus = [] {
      return Json{{"watchedSigningIDs", 2}, {"watchedPIDs", 1}, {"circuit", "closed"}};
    };
    host_ = ProxyHost::create(provider_, std::move(hostOptions));
    ASSERT_EQ(host_->start(Json{{"frontDoorPort", 8443}}), std::nullopt);
  }
  TestClient connect(const std::string& family = "127.0.0.1") {
    return TestClient(loopbackAddress(family, host_->listenPort()));
  }
  void TearDown() override {
    // Flows end once their clients have gone; until then their pending reads hold them.
    eventually([&] { return provider_->reads == 0; });
    if (host_) host_->stop();
  }

  const std::string controlPath_ =
      ::testing::TempDir() + "control-" + std::to_string(::getpid()) + ".sock";
  std::shared_ptr<TestProvider> provider_ = std::make_shared<TestProvider>();
  SocketAddress destination_ = loopbackAddress("198.18.0.7", 443);
  std::atomic<bool> redirected_{true};
  std::shared_ptr<ProxyHost> host_;
};

TEST_F(ProxyHostTest, StartsTheProviderAndUndoesEverythingOnStop) {
  start();
  EXPECT_EQ(provider_->started, (Json{{"frontDoorPort", 8443}}));
  EXPECT_EQ(fs::status(controlPath_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  host_->stop();
  EXPECT_TRUE(provider_->stopped);
  EXPECT_NE(::access(controlPath_.c_str(), F_OK), 0);
}

// A connection that was not redirected (the kernel names no other destination) is closed
// unoffered; a redirected one is offered with its destination and its process, looked up from
// the client's own address.
TEST_F(ProxyHostTest, OffersRedirectedConnectionsWithTheirDestinationAndProcess) {
  provider_->take = true;
  start();
  redirected_ = false;
  EXPECT_EQ(connect().readToEnd(), "");
  redirected_ = true;
  auto client = connect("::1");
  ASSERT_TRUE(eventually([&] { return provider_->reads == 1; }));
  const Flow flow = provider_->flows.at(0).lock();
  ASSERT_TRUE(flow);
  EXPECT_EQ(flow->remoteEndpoint(), (NWHostEndpoint{"198.18.0.7", "443"}));
  EXPECT_EQ(flow->metaData().sourceAppSigningIdentifier, "/usr/bin/agent");
  EXPECT_EQ(flow->metaData().sourceAppAuditToken, bytesOf("::1->443"));
}

// A taken flow reads what the client sent and writes it back whole and in order; the client's
// end reaches the provider, whose closes end the client's stream. Nothing is carried.
TEST_F(ProxyHostTest, ATakenFlowCarriesBothWaysUntilTheClientEnds) {
  provider_->take = true;
  start();
  TestClient client = connect();
  const std::string request = patterned(8 << 20);
  EXPECT_TRUE(passed(client, client, request) == request);
  EXPECT_EQ(client.error(), 0);
}

// A read waits for readiness without a buffer, so idle flows cost no memory for their reads.
TEST_F(ProxyHostTest, IdleFlowsHoldNoReadBuffers) {
  constexpr int kFlows = 32;
  provider_->take = true;
  start();
  const auto heap = [] {
    return static_cast<std::int64_t>(mallinfo2().uordblks + mallinfo2().hblkhd);
  };
  const std::int64_t before = heap();
  std::vector<TestClient> clients;
  for (int i = 0; i < kFlows; ++i) clients.push_back(connect());
  ASSERT_TRUE(eventually([&] { return provider_->reads == kFlows; }));
  EXPECT_LT(heap() - before, kFlows * 16384);
}

// Each connection carries one message, answered with the provider's reply.
TEST_F(ProxyHostTest, ControlSocketAnswersOneMessagePerConnection) {
  start();
  std::string error;
  for (const char* message : {R"({"watchedPIDs":[7]})", ""}) {
    EXPECT_EQ(sendControlRequest(controlPath_, ControlOperation::Watch, bytesOf(message), error),
              bytesOf("{\"ok\":false}"))
        << error;
  }
}

// What a status query shows: the provider's part, the flows carried now, and what was counted
// since the start.
TEST_F(ProxyHostTest, StatusShowsTheProviderTheFlowsAndTheCounts) {
  provider_->take = true;
  start();
  const auto status = [&] {
    std::string error;
    const auto reply = sendControlRequest(controlPath_, ControlOperation::Status, {}, error);
    return parseJsonDocument(textOf(reply.value_or(Bytes{}))).value_or(Json());
  };
  TestClient client = connect();
  EXPECT_EQ(passed(client, client, "ping"), "ping");
  redirected_ = false;
  EXPECT_EQ(connect().readToEnd(), "");
  redirected_ = true;
  provider_->take = false;
  TestClient handedBack = connect();
  ASSERT_TRUE(eventually([&] { return provider_->offered() == 2; }));
  provider_->take = true;
  TestClient idle = connect();
  const Json expected{{"selection", "all"},
                      {"candidates", nullptr},
                      {"watchedSigningIDs", 2},
                      {"watchedPIDs", 1},
                      {"circuit", "closed"},
                      {"relays", 1},
                      {"listenPort", host_->listenPort()},
                      {"ipv6", true},
                      {"relayed", 0},
                      {"handedBack", 1},
                      {"failedOpen", Json::object()},
                      {"udpFlowsReported", 0},
                      {"unplaced", 1},
                      {"bytesFromAgents", 4},
                      {"bytesToAgents", 4},
                      {"kernelEventsDropped", nullptr},
                      {"kernelRecordsFailed", nullptr},
                      {"kernelCandidatesLost", nullptr}};
  EXPECT_TRUE(eventually([&] { return status() == expected; }));
  EXPECT_EQ(status(), expected);
}

// A stop ends the flows the provider still carries: their clients see a reset, the provider's
// pending reads fail, so it lets go of them, and the stop returns at once.
TEST_F(ProxyHostTest, StopEndsTheFlowsStillCarried) {
  provider_->take = true;
  start();
  std::vector<TestClient> clients;
  for (int i = 0; i < 3; ++i) clients.push_back(connect(i % 2 ? "::1" : "127.0.0.1"));
  ASSERT_TRUE(eventually([&] { return provider_->reads == 3; }));
  host_->stop();
  EXPECT_EQ(provider_->reads, 0);
  for (TestClient& client : clients) {
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_EQ(client.error(), ECONNRESET);
  }
  std::lock_guard<std::mutex> lock(provider_->mutex);
  for (const auto& flow : provider_->flows) EXPECT_TRUE(flow.expired());
}

// Whatever keeps the control socket from being made stops the start before anything is
// listened on or installed, and a running host's socket stays as it is.
TEST_F(ProxyHostTest, AControlSocketPathInTheWayStopsTheStartBeforeAnything) {
  start();
  auto second = ProxyHost::create(std::make_shared<TestProvider>(), options());
  const std::string failure = second->start(std::nullopt).value_or("");
  EXPECT_NE(failure.find(controlPath_ + " is in use by a running interceptor"), std::string::npos)
      << failure;
  EXPECT_EQ(second->listenPort(), 0);
  std::string error;
  EXPECT_TRUE(sendControlRequest(controlPath_, ControlOperation::Status, {}, error)) << error;
}

TEST_F(ProxyHostTest, AProviderThatFailsToStartIsReportedInOneLineAndStopped) {
  provider_->startError = NEError{EPERM, "tunnel refused"};
  host_ = ProxyHost::create(provider_, options());
  const std::string failure = host_->start(std::nullopt).value_or("\n");
  EXPECT_NE(failure.find("tunnel refused"), std::string::npos) << failure;
  EXPECT_EQ(failure.find('\n'), std::string::npos) << failure;
  EXPECT_TRUE(provider_->stopped);
  EXPECT_NE(::access(controlPath_.c_str(), F_OK), 0);
}

}  // namespace
}  // namespace tarnwick::host

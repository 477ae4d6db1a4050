// Kernel-side selection in the running kernel. Each test runs in a network namespace of its own
// (with 198.18.0.1/24 and 2001:db8:18::1/64 on one end of a veth pair), loads the programs there,
// and runs copies of the probe program: "agent", which it watches, and "plain", which it does not.
// Needs root; skipped with the reason where the programs cannot load.

#include "host/selection/KernelSelection.h"

#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <unordered_map>

#include "SelectionTesting.h"
#include "host/selection/CandidateRules.h"
#include "host/selection/CgroupRoot.h"
#include "host/selection/ListenerAddresses.h"
#include "identity/AuditToken.h"
#include "platform/posix/Sockets.h"
#include "platform/testing/CaseName.h"

namespace tarnwick::host {
namespace {

namespace fs = std::filesystem;

constexpr const char* kLocal4 = "198.18.0.1";

int shell(const std::string& command) { return std::system(command.c_str()); }

UniqueFd listenOn(const std::string& host, std::uint16_t port, int type = SOCK_STREAM,
                  bool sharePort = false) {
  const SocketAddress address = *literalAddress(host, port);
  UniqueFd fd(::socket(address.family(), type | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, sharePort ? SO_REUSEPORT : SO_REUSEADDR, &on, sizeof on);
  if (address.family() == AF_INET6)
    ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  if (::bind(fd.get(), address.get(), address.length) != 0 ||
      (type == SOCK_STREAM && ::listen(fd.get(), SOMAXCONN) != 0)) {
    fd.reset();
  }
  return fd;
}

std::uint16_t portOfSocket(int fd) { return portOf(*localAddress(fd)); }

// The IDs of the programs behind the BPF links process `pid` holds.
std::vector<std::uint32_t> linkedProgramIDs(pid_t pid) {
  std::vector<std::uint32_t> ids;
  const fs::path fdinfo = "/proc/" + std::to_string(pid) + "/fdinfo";
  for (const auto& entry : fs::directory_iterator(fdinfo)) {
    std::ifstream info(entry.path());
    bool link = false;
    for (std::string line; std::getline(info, line);) {
      if (line.starts_with("link_type:")) link = true;
      if (link && line.starts_with("prog_id:")) ids.push_back(std::stoul(line.substr(8)));
    }
  }
  return ids;
}

// The programs attached at the cgroup root for `type`.
std::vector<std::uint32_t> attachedAtRoot(bpf_attach_type type) {
  std::string whyNot;
  const UniqueFd root = openCgroupRoot(whyNot);
  std::vector<std::uint32_t> ids(256);
  __u32 count = static_cast<__u32>(ids.size());
  if (bpf_prog_query(root.get(), type, BPF_F_QUERY_EFFECTIVE, nullptr, ids.data(), &count) != 0) {
    count = 0;
  }
  ids.resize(count);
  return ids;
}

// The programs attached to the calling thread's network namespace's socket lookup.
std::vector<std::uint32_t> attachedToNetworkNamespace() {
  const UniqueFd netns(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  std::vector<std::uint32_t> ids(256);
  __u32 count = static_cast<__u32>(ids.size());
  if (bpf_prog_query(netns.get(), BPF_SK_LOOKUP, 0, nullptr, ids.data(), &count) != 0) count = 0;
  ids.resize(count);
  return ids;
}

bool anyAttached(const std::vector<std::uint32_t>& programs) {
  std::vector<std::uint32_t> attached = attachedToNetworkNamespace();
  for (const bpf_attach_type type : {BPF_CGROUP_INET4_CONNECT, BPF_CGROUP_INET6_CONNECT,
                                     BPF_CGROUP_UDP4_SENDMSG, BPF_CGROUP_SOCK_OPS}) {
    const auto ids = attachedAtRoot(type);
    attached.insert(attached.end(), ids.begin(), ids.end());
  }
  for (const std::uint32_t id : attached) {
    if (std::find(programs.begin(), programs.end(), id) != programs.end()) return true;
  }
  return false;
}

// A destination as the kernel judges it (v4-mapped as IPv4), as a record key's end has it.
tw_address judgedDestination(const std::string& host, std::uint16_t port) {
  const SocketAddress address = *literalAddress(host, port);
  return connectionKeyFor(address, address)->client;
}

// The listener-side IPv4 address the kernel gives a connection to `destination` first.
std::string listenerSideAddress(const std::string& destination, std::uint16_t port) {
  const tw_address judged = judgedDestination(destination, port);
  const std::uint32_t host = tw_loopback_host(tw_destination_hash(judged.addr, judged.port), 0);
  return std::to_string(host >> 24) + "." + std::to_string(host >> 16 & 0xff) + "." +
         std::to_string(host >> 8 & 0xff) + "." + std::to_string(host & 0xff);
}

class KernelSelectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: BPF programs and network namespaces";
    ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
    ASSERT_EQ(configureNamespace(), 0);
    listener4_ = listenOn("127.0.0.1", 0);
    ASSERT_TRUE(listener4_);
    listener6_ = listenOn("::1", portOfSocket(listener4_.get()));
    ASSERT_TRUE(listener6_);
    fs::create_directories(directory_);
    fs::copy_file(TW_SELECTION_PROBE, agent_, fs::copy_options::overwrite_existing);
    fs::copy_file(TW_SELECTION_PROBE, plain_, fs::copy_options::overwrite_existing);
    load({});
  }
  void TearDown() override {
    selection_.reset();
    fs::remove_all(directory_);
  }

  static int configureNamespace() {
    return shell(
        "ip link set lo up && ip link add tw0 type veth peer tw1 && ip link set tw1 up && "
        "ip addr add 198.18.0.1/24 dev tw0 && "
        "ip -6 addr add 2001:db8:18::1/64 dev tw0 nodad && ip link set tw0 up");
  }

  void load(KernelSelection::Config config) {
    selection_.reset();
    if (config.listener4 < 0) {
      config.listenerPort = portOfSocket(listener4_.get());
      config.listener4 = listener4_.get();
      config.listener6 = listener6_.get();
    }
    std::string whyNot;
    selection_ = KernelSelection::load(config, whyNot);
    if (!selection_) GTEST_SKIP() << "kernel-side selection cannot load here: " << whyNot;
    watch({agent_}, {});
  }

  void watch(const WatchGate::SigningSet& paths, const WatchGate::PidSet& pids) {
    selection_->addWatched(paths, pids);
    selection_->pruneTo(paths, pids);
  }

  // Takes the record of the next connection on the listener, and its first bytes; `arrival`
  // gets the connection itself.
  std::optional<ConnectRecord> acceptRedirected(int listener, std::string* bytes = nullptr,
                                                Accepted* arrival = nullptr) {
    Accepted accepted = acceptWithin(listener);
    if (!accepted.fd) return std::nullopt;
    if (bytes) *bytes = receiveWithin(accepted.fd.get(), 2);
    auto record = selection_->takeConnectRecord(accepted.peer, *localAddress(accepted.fd.get()));
    if (arrival) *arrival = std::move(accepted);
    return record;
  }

  // Drains events until `done` holds.
  bool drainUntil(
      const std::function<bool()>& done,
      const KernelSelection::UdpSocketHandler& onUdp = [](const UdpSocketReport&) {}) {
    return eventually([&] {
      if (readable(selection_->eventsFd(), 0)) selection_->drainEvents(onUdp);
      return done();
    });
  }

  const std::string directory_ = fs::weakly_canonical(::testing::TempDir()).string() +
                                 "/tw-selection-" + std::to_string(::getpid());
  const std::string agent_ = directory_ + "/agent";
  const std::string plain_ = directory_ + "/plain";
  UniqueFd listener4_, listener6_;
  std::unique_ptr<KernelSelection> selection_;
};

struct Destination {
  std::string name;
  std::string how;
  std::string host;
  std::string recorded;  // the destination as the record gives it
  std::string peer;      // as getpeername() shows it to the program
  bool ipv6Listener;     // arrives at ::1, not over IPv4 at 127/8
};

class RedirectTest : public KernelSelectionTest,
                     public ::testing::WithParamInterface<Destination> {};

// An IPv6 socket that is not IPv6-only reaches the listener over IPv4, at a listener-side
// address of its destination's own; one that is IPv6-only at one of the ports on ::1.
TEST_P(RedirectTest, SendsACandidatesConnectionToTheListenerAndRecordsItsOrigin) {
  Probe probe(agent_, {"tcp", GetParam().how, GetParam().host, "8080", "hold"});
  EXPECT_EQ(probe.expect("peer="), GetParam().peer);
  std::string bytes;
  Accepted arrival;
  const auto record =
      acceptRedirected((GetParam().ipv6Listener ? listener6_ : listener4_).get(), &bytes, &arrival);
  ASSERT_TRUE(record);
  EXPECT_EQ(bytes, "hi");
  const SocketAddress local = *localAddress(arrival.fd.get());
  if (GetParam().ipv6Listener) {
    EXPECT_EQ(formatAddress(local).rfind("[::1]:", 0), 0u) << formatAddress(local);
    EXPECT_NE(portOf(local), portOfSocket(listener6_.get()));
  } else {
    EXPECT_EQ(formatAddress(local), listenerSideAddress(GetParam().host, 8080) + ":" +
                                        std::to_string(portOfSocket(listener4_.get())));
  }
  EXPECT_EQ(formatAddress(record->destination), GetParam().recorded);
  EXPECT_EQ(record->process.pid, probe.pid());
  EXPECT_EQ(record->process.startTime, readProcessStat(probe.pid())->startTime);
  EXPECT_EQ(record->process.flags, TW_CANDIDATE_BY_EXE);
  // The record names the process as the process table does while it runs.
  const NEFlowMetaData metaData = selection_->metaDataFor(record->process);
  EXPECT_EQ(metaData.sourceAppSigningIdentifier, agent_);
  EXPECT_EQ(metaData.sourceAppAuditToken, auditTokenForPID(probe.pid()));
  EXPECT_EQ(record->process.parentPID, ::getpid());
}

INSTANTIATE_TEST_SUITE_P(
    Families, RedirectTest,
    ::testing::Values(Destination{"IPv4", "connect", "198.18.5.5", "198.18.5.5:8080",
                                  "198.18.5.5:8080", false},
                      Destination{"IPv6", "connect", "2001:db8:5::5", "[2001:db8:5::5]:8080",
                                  "[2001:db8:5::5]:8080", false},
                      Destination{"IPv6Only", "v6only", "2001:db8:5::5", "[2001:db8:5::5]:8080",
                                  "[2001:db8:5::5]:8080", true},
                      Destination{"V4Mapped", "connect", "::ffff:198.18.5.5", "198.18.5.5:8080",
                                  "[::ffff:198.18.5.5]:8080", false}),
    CaseName());

struct ConnectWay {
  std::string name;
  std::string how;
};

class ConnectWayTest : public KernelSelectionTest,
                       public ::testing::WithParamInterface<ConnectWay> {};

// Fast Open, io_uring and a socket bound to a device all pass the same hook; the device is
// let go, or the connection could never reach the loopback listener.
TEST_P(ConnectWayTest, NoSocketOptionLetsACandidateSlipPast) {
  Probe probe(agent_, {"tcp", GetParam().how, "198.18.5.5", "443", "hold"});
  std::string bytes;
  const auto record = acceptRedirected(listener4_.get(), &bytes);
  ASSERT_TRUE(record) << probe.expect("error").value_or("");
  EXPECT_EQ(bytes, "hi");
  EXPECT_EQ(formatAddress(record->destination), "198.18.5.5:443");
  EXPECT_EQ(record->process.pid, probe.pid());
}

INSTANTIATE_TEST_SUITE_P(Ways, ConnectWayTest,
                         ::testing::Values(ConnectWay{"FastOpen", "fastopen"},
                                           ConnectWay{"FastOpenConnect", "fastopen-connect"},
                                           ConnectWay{"IoUring", "uring"},
                                           ConnectWay{"BoundToDevice", "device:tw0"}),
                         CaseName());

constexpr const char* kSourcePort = "40123";

// `count` ports from `first` on.
std::vector<std::uint16_t> portsFrom(unsigned first, unsigned count) {
  std::vector<std::uint16_t> ports;
  for (unsigned port = first; port < first + count; ++port) ports.push_back(port);
  return ports;
}

// Ports as the probe takes them, separated by commas.
std::string listOf(const std::vector<std::uint16_t>& ports) {
  std::string list;
  for (const std::uint16_t port : ports) list += (list.empty() ? "" : ",") + std::to_string(port);
  return list;
}

// Two ports of one host whose destinations share their first listener-side address.
std::vector<std::uint16_t> collidingPorts(const std::string& host) {
  std::unordered_map<std::string, std::uint16_t> seen;
  for (std::uint16_t port = 1; port != 0; ++port) {
    const auto [at, added] = seen.emplace(listenerSideAddress(host, port), port);
    if (!added) return {at->second, port};
  }
  return {};
}

struct Reuse {
  std::string name;
  std::string kind;  // of the program's socket: ipv4, dual (IPv6, not IPv6-only), ipv6only
  std::string host;
  bool ipv6Listener;
  std::string then;  // close: each one ends (TIME_WAIT) before the next; hold: all live at once
  bool colliding = false;  // two destinations that share their first listener-side address
};

void PrintTo(const Reuse& reuse, std::ostream* out) { *out << reuse.name; }

class ReuseTest : public KernelSelectionTest, public ::testing::WithParamInterface<Reuse> {};

// A program that keeps one source port and connects to one destination after another gets a
// connection each time, as it would without the interceptor: the previous one lingering in
// TIME_WAIT, or still open, has another listener-side address (the next one, where two
// destinations share the first). Each record is found by the pair of addresses, one source
// port notwithstanding.
TEST_P(ReuseTest, OneSourcePortReachesSeveralDestinations) {
  const Reuse& reuse = GetParam();
  const auto ports = reuse.colliding ? collidingPorts(reuse.host) : portsFrom(1001, 4);
  ASSERT_FALSE(ports.empty());
  Probe probe(agent_, {"reuse", reuse.kind, kSourcePort, reuse.host, listOf(ports), reuse.then});
  std::set<std::string> arrivals;
  // Held open: closing one with its bytes unread would reset it and free its tuple.
  std::vector<Accepted> held;
  for (const std::uint16_t port : ports) {
    ASSERT_EQ(probe.expect("connected="), std::to_string(port))
        << probe.expect("error").value_or("");
    std::string bytes;
    Accepted arrival;
    const auto record =
        acceptRedirected((reuse.ipv6Listener ? listener6_ : listener4_).get(), &bytes, &arrival);
    ASSERT_TRUE(record);
    EXPECT_EQ(bytes, "hi");
    EXPECT_EQ(formatAddress(record->destination),
              formatAddress(socketAddressFrom(judgedDestination(reuse.host, port))));
    EXPECT_EQ(std::to_string(portOf(arrival.peer)), kSourcePort);
    arrivals.insert(formatAddress(*localAddress(arrival.fd.get())));
    if (reuse.then == "hold") {
      held.push_back(std::move(arrival));
    } else {
      // The client ends first, so its side of the connection is the one left in TIME_WAIT.
      EXPECT_EQ(receiveWithin(arrival.fd.get(), 1), "");
    }
  }
  EXPECT_EQ(arrivals.size(), ports.size());
}

INSTANTIATE_TEST_SUITE_P(
    Sockets, ReuseTest,
    ::testing::Values(Reuse{"IPv4InTurn", "ipv4", "198.18.5.5", false, "close"},
                      Reuse{"IPv4AtOnce", "ipv4", "198.18.5.5", false, "hold"},
                      Reuse{"IPv4SharingAnAddress", "ipv4", "198.18.5.5", false, "hold", true},
                      Reuse{"DualStackInTurn", "dual", "2001:db8:5::5", false, "close"},
                      Reuse{"DualStackAtOnce", "dual", "2001:db8:5::5", false, "hold"},
                      Reuse{"V4MappedInTurn", "dual", "::ffff:198.18.5.5", false, "close"},
                      Reuse{"IPv6OnlyInTurn", "ipv6only", "2001:db8:5::5", true, "close"},
                      Reuse{"IPv6OnlyAtOnce", "ipv6only", "2001:db8:5::5", true, "hold"}),
    CaseName());

// Where the line is: an IPv6-only socket's connections from one source port share the ports
// reserved on ::1, so the one after as many as there are, all still open, is refused.
TEST_F(KernelSelectionTest, AnIpv6OnlySourcePortHasAsManyConnectionsAsReservedPorts) {
  const std::string ports = listOf(portsFrom(2000, TW_IPV6_PORTS + 1));
  Probe probe(agent_, {"reuse", "ipv6only", kSourcePort, "2001:db8:5::5", ports, "hold"});
  for (unsigned i = 0; i < TW_IPV6_PORTS; ++i) {
    ASSERT_EQ(probe.expect("connected="), std::to_string(2000 + i));
  }
  const auto error = probe.expect("error");
  ASSERT_TRUE(error);
  EXPECT_NE(error->find(std::strerror(EADDRNOTAVAIL)), std::string::npos) << *error;
}

// Steered to one listener of a group that shares its port, connections are still spread over
// the group, as the kernel spreads what arrives at the port itself.
TEST_F(KernelSelectionTest, ListenersSharingThePortEachGetTheirShare) {
  const UniqueFd first = listenOn("127.0.0.1", 0, SOCK_STREAM, true);
  const std::uint16_t port = portOfSocket(first.get());
  const UniqueFd second = listenOn("127.0.0.1", port, SOCK_STREAM, true);
  ASSERT_TRUE(first && second);
  KernelSelection::Config config;
  config.listenerPort = port;
  config.listener4 = first.get();
  load(config);
  constexpr int kConnections = 24;
  Probe probe(agent_,
              {"reuse", "ipv4", "0", "198.18.5.5", listOf(portsFrom(3000, kConnections)), "hold"});
  int counts[2] = {0, 0};
  for (int total = 0; total < kConnections;) {
    pollfd ready[2] = {{first.get(), POLLIN, 0}, {second.get(), POLLIN, 0}};
    if (::poll(ready, 2, kWaitMs) <= 0) break;
    for (int i = 0; i < 2; ++i) {
      if ((ready[i].revents & POLLIN) && acceptWithin(ready[i].fd, 0).fd) ++counts[i], ++total;
    }
  }
  EXPECT_EQ(counts[0] + counts[1], kConnections);
  EXPECT_GT(counts[0], 0);
  EXPECT_GT(counts[1], 0);
}

// A program that dials a listener-side address itself reaches the listener, with no record: the
// host resets such a connection. The same address at another port is left alone.
TEST_F(KernelSelectionTest, ADirectConnectionToAListenerSideAddressHasNoRecord) {
  const std::string listenerPort = std::to_string(portOfSocket(listener4_.get()));
  Probe direct(plain_, {"tcp", "connect", "127.5.6.7", listenerPort, "hold"});
  EXPECT_EQ(direct.expect("peer="), "127.5.6.7:" + listenerPort);
  Accepted arrival;
  EXPECT_FALSE(acceptRedirected(listener4_.get(), nullptr, &arrival));
  ASSERT_TRUE(arrival.fd);
  EXPECT_EQ(formatAddress(*localAddress(arrival.fd.get())), "127.5.6.7:" + listenerPort);
  const UniqueFd other = listenOn("0.0.0.0", 0);
  const std::string otherPort = std::to_string(portOfSocket(other.get()));
  Probe elsewhere(plain_, {"tcp", "connect", "127.5.6.7", otherPort, "hold"});
  EXPECT_EQ(elsewhere.expect("peer="), "127.5.6.7:" + otherPort);
  EXPECT_TRUE(acceptWithin(other.get()).fd);
}

TEST_F(KernelSelectionTest, LeavesOtherProgramsAndExcludedDestinationsAlone) {
  const UniqueFd server = listenOn(kLocal4, 0);
  const std::string port = std::to_string(portOfSocket(server.get()));
  const UniqueFd loopback = listenOn("127.0.0.1", 0);
  const std::string loopbackPort = std::to_string(portOfSocket(loopback.get()));
  Probe plain(plain_, {"tcp", "connect", kLocal4, port, "hold"});
  EXPECT_EQ(plain.expect("peer="), std::string(kLocal4) + ":" + port);
  EXPECT_TRUE(acceptWithin(server.get()).fd);
  Probe toLoopback(agent_, {"tcp", "connect", "127.0.0.1", loopbackPort, "hold"});
  EXPECT_TRUE(acceptWithin(loopback.get()).fd);
  KernelSelection::Config config;
  config.excludedPrefixes = {*IpPrefix::parse("198.18.0.0", 24)};
  load(config);
  Probe toExcluded(agent_, {"tcp", "connect", kLocal4, port, "hold"});
  EXPECT_TRUE(acceptWithin(server.get()).fd);
  EXPECT_FALSE(readable(listener4_.get(), 0));
}

TEST_F(KernelSelectionTest, LeavesOtherNetworkNamespacesAlone) {
  std::thread([&] {
    ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
    ASSERT_EQ(configureNamespace(), 0);
    const UniqueFd server = listenOn(kLocal4, 0);
    Probe agent(agent_,
                {"tcp", "connect", kLocal4, std::to_string(portOfSocket(server.get())), "hold"});
    EXPECT_TRUE(acceptWithin(server.get()).fd);
  }).join();
  EXPECT_FALSE(readable(listener4_.get(), 0));
}

TEST_F(KernelSelectionTest, AChildInheritsEvenAfterRunningAnUnwatchedProgram) {
  Probe agent(agent_, {"fork", "exec", plain_, "tcp", "connect", "198.18.5.5", "80", "hold", "--",
                       "pause"});
  pid_t child = 0;
  ASSERT_EQ(agent.expect("peer=", &child), "198.18.5.5:80");
  const auto record = acceptRedirected(listener4_.get());
  ASSERT_TRUE(record);
  EXPECT_EQ(record->process.pid, child);
  EXPECT_EQ(record->process.flags, TW_CANDIDATE_INHERITED);
  EXPECT_EQ(selection_->metaDataFor(record->process).sourceAppSigningIdentifier, plain_);
  EXPECT_EQ(selection_->candidateCount(), 1u);
  agent.endInput();  // the child ends, and takes its entry with it
  EXPECT_TRUE(eventually([&] { return selection_->candidateCount() == 0; }));
}

TEST_F(KernelSelectionTest, StartingAWatchedProgramTakesInTheChildrenForkedBefore) {
  Probe process(plain_, {"fork", "line", "tcp", "connect", "198.18.5.5", "80", "hold", "--", "exec",
                         agent_, "pause"});
  ASSERT_TRUE(process.expect("paused"));
  ASSERT_TRUE(drainUntil([&] { return selection_->candidateCount() == 1; }));
  process.sendLine();
  const auto record = acceptRedirected(listener4_.get());
  ASSERT_TRUE(record);
  EXPECT_EQ(record->process.flags, TW_CANDIDATE_INHERITED);
  EXPECT_EQ(record->process.parentPID, process.pid());
}

TEST_F(KernelSelectionTest, AWatchedPidIsSelectedButNotItsChildren) {
  const UniqueFd server = listenOn(kLocal4, 0);
  const std::string port = std::to_string(portOfSocket(server.get()));
  Probe process(plain_, {"line", "fork", "tcp", "connect", kLocal4, port, "hold", "--", "tcp",
                         "connect", kLocal4, port, "hold"});
  watch({agent_}, {process.pid()});
  process.sendLine();
  EXPECT_TRUE(acceptWithin(server.get()).fd);  // the child's
  const auto record = acceptRedirected(listener4_.get());
  ASSERT_TRUE(record);
  EXPECT_EQ(record->process.pid, process.pid());
  EXPECT_EQ(record->process.flags, TW_CANDIDATE_BY_PID);
}

TEST_F(KernelSelectionTest, AWatchedPathRenamedOverIsStillMatched) {
  const std::string replacement = agent_ + ".new";
  fs::copy_file(TW_SELECTION_PROBE, replacement);
  fs::rename(replacement, agent_);
  ASSERT_TRUE(readable(selection_->inodeWatchFd(), kWaitMs));
  selection_->drainInodeChanges();
  Probe probe(agent_, {"tcp", "connect", "198.18.5.5", "80", "hold"});
  const auto record = acceptRedirected(listener4_.get());
  ASSERT_TRUE(record);
  EXPECT_EQ(selection_->metaDataFor(record->process).sourceAppSigningIdentifier, agent_);
}

TEST_F(KernelSelectionTest, TheRecordOutlivesTheClient) {
  Probe probe(agent_, {"tcp", "connect", "198.18.5.5", "80", "exit"});
  ASSERT_TRUE(probe.waitForExit());
  const auto record = acceptRedirected(listener4_.get());
  ASSERT_TRUE(record);
  EXPECT_EQ(record->process.pid, probe.pid());
  // Gone, but known by what it ran.
  EXPECT_EQ(selection_->metaDataFor(record->process).sourceAppSigningIdentifier, agent_);
  EXPECT_EQ(pidFromAuditTokenData(selection_->metaDataFor(record->process).sourceAppAuditToken),
            probe.pid());
}

TEST_F(KernelSelectionTest, ReportsACandidatesUdpSocketOnceAndDeliversEveryDatagram) {
  const UniqueFd server = listenOn(kLocal4, 0, SOCK_DGRAM);
  const std::string port = std::to_string(portOfSocket(server.get()));
  std::vector<UdpSocketReport> reports;
  const auto collect = [&](const UdpSocketReport& report) { reports.push_back(report); };
  Probe agent(agent_, {"udp", kLocal4, port, "3"});
  EXPECT_EQ(agent.expect("sent="), "3 error=0");
  Probe plain(plain_, {"udp", kLocal4, port, "2"});
  EXPECT_EQ(plain.expect("sent="), "2 error=0");
  int delivered = 0;
  while (readable(server.get(), 100) && ::recv(server.get(), nullptr, 0, 0) >= 0) ++delivered;
  EXPECT_EQ(delivered, 5);
  ASSERT_TRUE(drainUntil([&] { return !reports.empty(); }, collect));
  selection_->drainEvents(collect);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].process.pid, agent.pid());
  EXPECT_EQ(formatAddress(reports[0].destination), std::string(kLocal4) + ":" + port);
}

TEST_F(KernelSelectionTest, BlockingQuicRefusesOnlyCandidatesUdpToPort443) {
  KernelSelection::Config config;
  config.blockQuic = true;
  load(config);
  const UniqueFd other = listenOn(kLocal4, 4433, SOCK_DGRAM);
  Probe quic(agent_, {"udp", kLocal4, "443", "2"});
  EXPECT_EQ(quic.expect("sent="), "0 error=" + std::to_string(EPERM));
  Probe otherPort(agent_, {"udp", kLocal4, "4433", "1"});
  EXPECT_EQ(otherPort.expect("sent="), "1 error=0");
  Probe unwatched(plain_, {"udp", kLocal4, "443", "1"});
  EXPECT_EQ(unwatched.expect("sent="), "1 error=0");
}

TEST_F(KernelSelectionTest, ClosingDetachesEveryProgram) {
  const auto programs = linkedProgramIDs(::getpid());
  ASSERT_EQ(programs.size(), 11u);
  EXPECT_TRUE(anyAttached(programs));
  selection_.reset();
  EXPECT_FALSE(anyAttached(programs));
}

TEST_F(KernelSelectionTest, AKilledLoaderLeavesNothingAttached) {
  Probe loader(TW_SELECTION_PROBE, {"select"});
  ASSERT_EQ(loader.expect("selecting"), "");
  const auto programs = linkedProgramIDs(loader.pid());
  ASSERT_EQ(programs.size(), 11u);
  EXPECT_TRUE(anyAttached(programs));
  ::kill(loader.pid(), SIGKILL);
  ASSERT_TRUE(loader.waitForExit());
  EXPECT_TRUE(eventually([&] { return !anyAttached(programs); }));
}

}  // namespace
}  // namespace tarnwick::host

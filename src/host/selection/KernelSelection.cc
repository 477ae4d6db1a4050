#include "host/selection/KernelSelection.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/selection/CgroupRoot.h"
#include "host/selection/ListenerAddresses.h"
#include "host/selection/SelectionRecords.h"

#ifndef SO_NETNS_COOKIE
#define SO_NETNS_COOKIE 71
#endif

namespace tarnwick::host {
namespace {

// The inode of /proc/self/ns/pid in the initial PID namespace. BPF sees the PIDs of that
// namespace only, and /proc must show the same ones.
constexpr ino_t kInitialPidNamespaceInode = 0xEFFFFFFC;

// Never redirected, whatever the provider excludes: loopback (the listener itself), the
// unspecified address (which connect() takes as loopback) and link-local, whose scope a
// redirect would lose.
constexpr std::pair<const char*, int> kAlwaysExcluded[] = {
    {"127.0.0.0", 8}, {"0.0.0.0", 32}, {"::1", 128}, {"::", 128}, {"fe80::", 10}};

bool inInitialPidNamespace() {
  struct stat namespaceFile {};
  return ::stat("/proc/self/ns/pid", &namespaceFile) == 0 &&
         namespaceFile.st_ino == kInitialPidNamespaceInode;
}

// The cookie of the calling thread's network namespace; 0 when it cannot be read.
std::uint64_t networkNamespaceCookie() {
  const UniqueFd probe(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  std::uint64_t cookie = 0;
  socklen_t length = sizeof cookie;
  if (!probe || ::getsockopt(probe.get(), SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &length) != 0) {
    return 0;
  }
  return cookie;
}

// What the kernel needs to know before it can load, or why it cannot.
std::optional<SelectionSettings> settingsFor(const KernelSelection::Config& config,
                                             std::string& whyNot) {
  if (!inInitialPidNamespace()) {
    whyNot = "not in the initial PID namespace (BPF sees only that namespace's PIDs)";
    return std::nullopt;
  }
  if (::access("/sys/kernel/btf/vmlinux", R_OK) != 0) {
    whyNot = "the kernel has no BTF (/sys/kernel/btf/vmlinux is missing)";
    return std::nullopt;
  }
  if (config.listener4 < 0) {
    whyNot = "no listener on 127.0.0.1 to send connections to";
    return std::nullopt;
  }
  SelectionSettings settings;
  settings.netnsCookie = networkNamespaceCookie();
  if (settings.netnsCookie == 0) {
    whyNot = std::string("cannot read the network namespace's cookie: ") + std::strerror(errno);
    return std::nullopt;
  }
  const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
  settings.nanosecondsPerTick = ticksPerSecond > 0 ? 1'000'000'000 / ticksPerSecond : 10'000'000;
  settings.listenerPort = config.listenerPort;
  settings.listener4 = config.listener4;
  settings.listener6 = config.listener6;
  settings.blockQuic = config.blockQuic;
  settings.ownPID = static_cast<std::uint32_t>(config.ownPID != 0 ? config.ownPID : ::getpid());
  return settings;
}

// Ports on ::1 bound exclusively (no address reuse), so no other program can bind or listen
// there; with their numbers in `ports`. Empty, with `whyNot` set, when they cannot be had.
std::vector<UniqueFd> reserveIpv6Ports(std::vector<std::uint16_t>& ports, std::string& whyNot) {
  std::vector<UniqueFd> reserved;
  sockaddr_in6 loopback{};
  loopback.sin6_family = AF_INET6;
  loopback.sin6_addr = in6addr_loopback;
  const int on = 1;
  while (reserved.size() < TW_IPV6_PORTS) {
    UniqueFd fd(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 bound{};
    socklen_t length = sizeof bound;
    if (!fd || ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0 ||
        ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&loopback), sizeof loopback) != 0 ||
        ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
      whyNot = std::string("cannot reserve ports on ::1: ") + std::strerror(errno);
      return {};
    }
    ports.push_back(ntohs(bound.sin6_port));
    reserved.push_back(std::move(fd));
  }
  return reserved;
}

bool excludeAll(SelectionPrograms& programs, const std::vector<IpPrefix>& prefixes,
                std::string& whyNot) {
  std::vector<IpPrefix> all = prefixes;
  for (const auto& [address, length] : kAlwaysExcluded)
    all.push_back(*IpPrefix::parse(address, length));
  for (const IpPrefix& prefix : all) {
    if (!programs.addExcluded(prefix)) {
      whyNot = "too many excluded networks for the kernel's table";
      return false;
    }
  }
  return true;
}

}  // namespace

std::unique_ptr<KernelSelection> KernelSelection::load(const Config& config, std::string& whyNot) {
  auto settings = settingsFor(config, whyNot);
  if (!settings) return nullptr;
  const UniqueFd cgroupRoot = openCgroupRoot(whyNot);
  if (!cgroupRoot) return nullptr;
  settings->cgroupRoot = cgroupRoot.get();
  std::vector<UniqueFd> ipv6Ports;
  if (config.listener6 >= 0) {
    ipv6Ports = reserveIpv6Ports(settings->ipv6Ports, whyNot);
    if (ipv6Ports.empty()) return nullptr;
  }
  auto programs = loadSelectionPrograms(*settings, whyNot);
  if (!programs || !excludeAll(*programs, config.excludedPrefixes, whyNot)) return nullptr;
  return std::unique_ptr<KernelSelection>(
      new KernelSelection(std::move(programs), std::move(ipv6Ports)));
}

KernelSelection::KernelSelection(std::unique_ptr<SelectionPrograms> programs,
                                 std::vector<UniqueFd> ipv6Ports)
    : programs_(std::move(programs)),
      ipv6Ports_(std::move(ipv6Ports)),
      reconciler_(*programs_, &ProcessTree::read) {}

void KernelSelection::addWatched(const WatchGate::SigningSet& signingIDs,
                                 const WatchGate::PidSet& pids) {
  executables_.add(signingIDs);
  pids_.insert(pids.begin(), pids.end());
  reconciler_.add(targets());
}

void KernelSelection::pruneTo(const WatchGate::SigningSet& signingIDs,
                              const WatchGate::PidSet& pids) {
  executables_.retain(signingIDs);
  pids_ = pids;
  reconciler_.prune(targets());
}

std::optional<ConnectRecord> KernelSelection::takeConnectRecord(const SocketAddress& peer,
                                                                const SocketAddress& local) const {
  const auto key = connectionKeyFor(peer, local);
  const auto record = key ? programs_->takeConnection(*key) : std::nullopt;
  if (!record) return std::nullopt;
  return ConnectRecord{selectedProcessFrom(record->process),
                       socketAddressFrom(record->destination)};
}

NEFlowMetaData KernelSelection::metaDataFor(const SelectedProcess& process) const {
  return flowMetaDataFor(process, executables_.pathFor(process.executable));
}

void KernelSelection::drainEvents(const UdpSocketHandler& onUdpSocket) {
  bool childrenToAdd = false;
  programs_->drainEvents([&](const tw_event& event) {
    if (event.kind == TW_EVENT_UDP_SOCKET) {
      onUdpSocket({selectedProcessFrom(event.process), socketAddressFrom(event.destination)});
    } else if (event.kind == TW_EVENT_WATCHED_EXEC) {
      childrenToAdd = childrenToAdd || mayHaveChildren(event.process.pid);
    }
  });
  // The new program's own connections are selected already; the children it forked before
  // the exec are found by one more pass over the running processes.
  if (childrenToAdd) reconciler_.add(targets());
}

void KernelSelection::drainInodeChanges() {
  if (!executables_.drain()) return;
  reconciler_.add(targets());
  programs_->retainWatchedExecutables(executables_.keys());
}

std::size_t KernelSelection::candidateCount() const { return programs_->entries().size(); }

WatchTargets KernelSelection::targets() const {
  return {executables_.keys(), {pids_.begin(), pids_.end()}};
}

}  // namespace tarnwick::host

// tarnwick-proxyext run: the interceptor. Applies the provider's network rules, carries flows
// until SIGINT or SIGTERM, then removes everything it installed and exits 0.

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <regex>

#include "bridge/DaemonBridge.h"
#include "cli/Command.h"
#include "host/HostLog.h"
#include "host/ProxyHost.h"
#include "host/StartOptionsFile.h"
#include "host/control/ControlAccess.h"
#include "host/status/CountingDaemonChannel.h"
#include "host/status/ProviderStatus.h"
#include "platform/OptionReader.h"
#include "platform/Text.h"
#include "provider/TransparentProxyProvider.h"

namespace tarnwick::cli {
namespace {

struct RunArguments {
  std::string optionsPath;
  host::HostSettings settings;
  bool help = false;
};

constexpr const char* kRunUsage =
    "usage: tarnwick-proxyext run --options FILE [--listen-port N] [--mark N]\n"
    "                             [--control-socket PATH] [--control-group GROUP] [--table NAME]\n"
    "                             [--private-ipv4 NETWORKS] [--connect-timeout S]\n"
    "                             [--selection auto|kernel|all] [--block-quic]\n\n"
    "Intercepts outbound TCP as the provider's network rules say, until SIGINT or SIGTERM.\n"
    "Needs root. Start-up failures print one line and exit with status 2.\n\n"
    "  --selection MODE       which connections reach the interceptor: kernel (only those of\n"
    "                         watched programs and their descendants, chosen by BPF programs\n"
    "                         at connect(); needs BTF and cgroup v2), all (every outbound TCP\n"
    "                         connection, by an nftables redirect), or auto (kernel where it\n"
    "                         loads, otherwise all with a warning naming why); default auto\n"
    "  --block-quic           kernel selection: watched programs' UDP to port 443 is refused\n"
    "                         (EPERM), so HTTP/3 clients fall back to TCP, which is inspected\n"
    "  --options FILE         start options, a JSON object with the keys frontDoorPort (1 to\n"
    "                         65535), frontDoorHost, watchedSigningIDs (executables' canonical\n"
    "                         paths), watchedPIDs, socketPath (the daemon's socket) and\n"
    "                         providerConfiguration; any other key is an error\n"
    "  --listen-port N        port of the loopback listeners (127.0.0.1 and ::1), 1 to 65535;\n"
    "                         default: one the system picks, which no program can take first\n"
    "  --mark N               mark bits of the interceptor's own connections, decimal or 0x\n"
    "                         hex, not 0; default 0x7477\n"
    "  --control-socket PATH  Unix socket for watch sets and status queries (mode 0600);\n"
    "                         default /run/tarnwick-proxyext/control.sock\n"
    "  --control-group GROUP  members of GROUP may use the control socket too (mode 0660)\n"
    "  --table NAME           nftables table (family inet); default tarnwick_proxyext\n"
    "  --private-ipv4 NETWORKS\n"
    "                         IPv4 networks whose destinations are never intercepted,\n"
    "                         comma-separated, or none; default\n"
    "                         10.0.0.0/8,172.16.0.0/12,192.168.0.0/16\n"
    "  --connect-timeout S    seconds a connection the interceptor carries directly may wait\n"
    "                         for its destination to answer, 1 to 600; default 20\n";

int usageError(const std::string& message) {
  std::fprintf(stderr, "tarnwick-proxyext run: %s\n", message.c_str());
  return kExitUsage;
}

bool validTableName(const std::string& name) {
  static const std::regex kName("[A-Za-z_][A-Za-z0-9_]{0,63}");
  return std::regex_match(name, kName);
}

std::optional<host::SelectionMode> selectionModeOf(const std::string& text) {
  if (text == "auto") return host::SelectionMode::Auto;
  if (text == "kernel") return host::SelectionMode::Kernel;
  if (text == "all") return host::SelectionMode::All;
  return std::nullopt;
}

void readOption(OptionReader& reader, const std::string& name, RunArguments& out) {
  if (name == "--help" || name == "-h") {
    out.help = true;
    return;
  }
  if (name == "--block-quic") {
    out.settings.blockQuic = true;
    return;
  }
  const auto value = reader.value();
  if (!value) return;
  if (name == "--options") {
    out.optionsPath = *value;
  } else if (name == "--listen-port") {
    const auto port = parseDecimal<std::uint16_t>(*value);
    if (!port || *port == 0) {
      return reader.fail("--listen-port takes a port from 1 to 65535, not '" + *value + "'");
    }
    out.settings.listenPort = *port;
  } else if (name == "--mark") {
    const auto mark = parseUnsigned(*value, 0xffffffffUL);
    if (!mark || *mark == 0) return reader.fail("--mark takes a non-zero 32-bit number");
    out.settings.socketMark = static_cast<std::uint32_t>(*mark);
  } else if (name == "--control-socket") {
    out.settings.controlSocketPath = *value;
  } else if (name == "--control-group") {
    std::string error;
    out.settings.controlGroup = host::lookUpGroup(*value, error);
    if (!out.settings.controlGroup) return reader.fail("--control-group: " + error);
  } else if (name == "--private-ipv4") {
    const auto networks = host::parseIPv4Networks(*value);
    if (!networks) return reader.fail("--private-ipv4 takes IPv4 networks (a.b.c.d/N,...) or none");
    out.settings.privateIPv4Networks = *networks;
  } else if (name == "--connect-timeout") {
    const auto seconds = parseUnsigned(*value, 600);
    if (!seconds || *seconds == 0)
      return reader.fail("--connect-timeout takes seconds from 1 to 600");
    out.settings.handBackConnectTimeout = std::chrono::seconds(*seconds);
  } else if (name == "--selection") {
    const auto mode = selectionModeOf(*value);
    if (!mode) return reader.fail("--selection takes auto, kernel or all");
    out.settings.selection = *mode;
  } else if (name == "--table") {
    if (!validTableName(*value)) return reader.fail("--table takes letters, digits and _");
    out.settings.tableName = *value;
  } else {
    reader.fail("unknown option " + name);
  }
}

// Each handed-back connection holds two sockets and, while bytes pass, a pipe.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

// The default control socket has a directory of its own, which systemd makes for the unit; run
// by hand, the interceptor makes it.
void makeDefaultControlDirectory(const std::string& path) {
  if (path != host::HostSettings::kDefaultControlSocketPath) return;
  ::mkdir(std::filesystem::path(path).parent_path().c_str(), 0755);
}

// The provider the host runs, its events counted on their way to the daemon, and what the
// status query shows of it.
// A process the kernel recorded may be gone before its flow is decided; its recorded parent keeps
// the provider's ancestry walk going.
std::shared_ptr<TransparentProxyProvider> makeProvider(host::ProxyHost::Options& hostOptions) {
  hostOptions.counters = std::make_shared<host::HostCounters>();
  hostOptions.recordedParents = std::make_shared<host::RecordedParents>();
  auto provider = TransparentProxyProvider::init(
      std::make_shared<host::CountingDaemonChannel>(DaemonBridge::shared(), hostOptions.counters),
      [parents = hostOptions.recordedParents](std::int64_t pid) { return parents->parentOf(pid); });
  hostOptions.providerStatus = [weak = std::weak_ptr(provider)] {
    const auto held = weak.lock();
    return held ? host::describeProviderStatus(held->status()) : Json::object();
  };
  return provider;
}

// The runtime's threads live as long as the process, and nothing tells when the last of their
// timers and connections is done, so once the host has stopped the command ends the process
// itself rather than return through static destructors those threads may still reach.
[[noreturn]] void exitProcess(int status) {
  std::fflush(nullptr);
  std::_Exit(status);
}

// The events of the flows the stop has just ended may still wait for the bridge's next batch:
// they go out before the process ends, unless the daemon does not take them within a second.
void flushEvents() {
  auto written = std::make_shared<std::promise<void>>();
  auto done = written->get_future();
  DaemonBridge::shared()->flush([written] { written->set_value(); });
  done.wait_for(std::chrono::seconds(1));
}

int run(const std::vector<std::string>& args) {
  RunArguments arguments;
  OptionReader reader(args);
  while (const auto name = reader.next()) {
    readOption(reader, *name, arguments);
    if (reader.failed()) return usageError(reader.error());
  }
  if (arguments.help) {
    std::fputs(kRunUsage, stdout);
    return kExitOk;
  }
  if (arguments.optionsPath.empty()) return usageError("--options FILE is required");
  auto options = host::readStartOptionsFile(arguments.optionsPath);
  if (!options.options) return usageError(options.error);
  if (::geteuid() != 0) {
    return usageError("must run as root (BPF programs or nftables rules, and socket marks)");
  }
  for (const std::string& warning : options.warnings) {
    host::hostLog().error("host: warning: %{public}s", warning);
  }
  makeDefaultControlDirectory(arguments.settings.controlSocketPath);
  raiseDescriptorLimit();
  // splice() into a socket whose peer has reset raises SIGPIPE, which has no flag to turn it off
  // per call; a vanished peer must end one carried connection, never the interceptor.
  ::signal(SIGPIPE, SIG_IGN);
  // Blocked before any thread starts, so every thread inherits the mask and sigwait gets them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  host::ProxyHost::Options hostOptions;
  hostOptions.settings = arguments.settings;
  auto provider = makeProvider(hostOptions);
  auto proxyHost = host::ProxyHost::create(std::move(provider), std::move(hostOptions));
  if (auto error = proxyHost->start(std::move(options.options))) exitProcess(usageError(*error));
  host::hostLog().info("host: intercepting; listening on port %hu, control socket %{public}s",
                       proxyHost->listenPort(), arguments.settings.controlSocketPath);
  int signal = 0;
  sigwait(&stopSignals, &signal);
  host::hostLog().info("host: stopping on signal %d", signal);
  proxyHost->stop();
  flushEvents();
  exitProcess(kExitOk);
}

const CommandRegistration kRun({"run", "intercept outbound TCP until SIGINT or SIGTERM (root)",
                                run});

}  // namespace
}  // namespace tarnwick::cli

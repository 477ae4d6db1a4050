// What kernel-side selection costs a program it does not select: one connect() to a listener in
// the program's own network namespace (with the accept and both closes), with no selection
// loaded, with one loaded for another network namespace, and with one loaded for this namespace
// where the program is not watched. With a selection loaded, the kernel's own run-time count
// gives what its connect and sockops programs took per connect ("connect4_ns", "sockops_ns"),
// which a busy machine's noise hides in the totals. Needs root; runs in a network namespace of
// its own.

#include <benchmark/benchmark.h>
#include <bpf/bpf.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "host/selection/KernelSelection.h"
#include "platform/posix/Sockets.h"

namespace tarnwick::host {
namespace {

enum class Selection { None, OtherNamespace, ThisNamespace };

// Moves the process's main thread to a network namespace of its own, once.
bool inPrivateNamespace() {
  static const bool entered =
      ::geteuid() == 0 && ::unshare(CLONE_NEWNET) == 0 && std::system("ip link set lo up") == 0;
  return entered;
}

// A selection for the calling thread's namespace, watching a program and a PID that are not
// this one, so its maps are not empty.
std::unique_ptr<KernelSelection> loadSelection(std::uint16_t port, std::string& whyNot) {
  KernelSelection::Config config;
  config.listenerPort = port;
  auto selection = KernelSelection::load(config, whyNot);
  if (selection) {
    selection->addWatched({"/usr/bin/curl"}, {1});
    selection->pruneTo({"/usr/bin/curl"}, {1});
  }
  return selection;
}

// Nanoseconds per run of each program behind this process's BPF links, while run-time
// statistics are on.
void reportProgramTimes(benchmark::State& state) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream info(entry.path());
    bool link = false;
    for (std::string line; std::getline(info, line);) {
      if (line.starts_with("link_type:")) link = true;
      if (!link || !line.starts_with("prog_id:")) continue;
      const UniqueFd program(bpf_prog_get_fd_by_id(std::stoul(line.substr(8))));
      bpf_prog_info about{};
      __u32 length = sizeof about;
      if (!program || bpf_obj_get_info_by_fd(program.get(), &about, &length) != 0) continue;
      const std::string name = about.name;
      if ((name == "tw_connect4" || name == "tw_sockops") && about.run_cnt > 0) {
        state.counters[name.substr(3) + "_ns"] =
            static_cast<double>(about.run_time_ns) / static_cast<double>(about.run_cnt);
      }
    }
  }
}

void BM_ConnectToALocalListener(benchmark::State& state) {
  if (!inPrivateNamespace()) return state.SkipWithError("needs root: a private network namespace");
  std::string error;
  UniqueFd listener = bindTcpSocket(*literalAddress("127.0.0.1", 0), error);
  ::listen(listener.get(), 64);
  const SocketAddress address = *localAddress(listener.get());
  std::unique_ptr<KernelSelection> selection;
  const auto mode = static_cast<Selection>(state.range(0));
  if (mode == Selection::ThisNamespace) {
    selection = loadSelection(portOf(address), error);
  } else if (mode == Selection::OtherNamespace) {
    // unshare() moves only this helper thread; the selection stays bound to its namespace.
    std::thread([&] {
      if (::unshare(CLONE_NEWNET) == 0) selection = loadSelection(portOf(address), error);
    }).join();
  }
  if (mode != Selection::None && !selection) return state.SkipWithError(error.c_str());
  const UniqueFd statistics(bpf_enable_stats(BPF_STATS_RUN_TIME));
  const linger reset{1, 0};
  for (auto _ : state) {
    UniqueFd client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(client.get(), address.get(), address.length) != 0) {
      return state.SkipWithError("connect failed");
    }
    UniqueFd accepted;
    while (!accepted) accepted.reset(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    // A reset leaves no TIME_WAIT behind to run the ports out.
    ::setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  }
  if (selection) reportProgramTimes(state);
  state.SetLabel(mode == Selection::None             ? "no selection"
                 : mode == Selection::OtherNamespace ? "selection in another namespace"
                                                     : "selection here, not watched");
}

BENCHMARK(BM_ConnectToALocalListener)
    ->Arg(static_cast<int>(Selection::None))
    ->Arg(static_cast<int>(Selection::OtherNamespace))
    ->Arg(static_cast<int>(Selection::ThisNamespace))
    ->Unit(benchmark::kNanosecond);

}  // namespace
}  // namespace tarnwick::host

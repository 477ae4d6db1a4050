#pragma once
// Kernel-side selection: the kernel keeps the set of candidate processes (watched executables,
// watched PIDs, and what they fork) and sends only candidates' TCP connections to the host's
// listener, keeping each connection's original destination and the process that called
// connect(). Each connection arrives at a listener-side address of its own destination's
// (127.X.Y.Z, or a port on ::1 the host reserves; see ListenerAddresses.h), which the kernel
// steers to the listener, so a program that reuses one source port towards several
// destinations gets a distinct connection each time. Candidates' UDP sockets are reported, once
// each. The candidate set is a superset of
// what the provider accepts, never a replacement for it: the provider still decides every flow.
//
// How the host uses it:
//   1. Bind the listeners, then load() with the listener's port and one listening socket of
//      each family. Null means the kernel cannot select here, for the reason given (one line an
//      operator can act on).
//   2. On every watch-set change (and once at start with the start options' set):
//      addWatched(new set); hand the new set to the provider; pruneTo(new set). So the
//      candidate set covers the old and the new set while the provider moves from one to the
//      other.
//   3. Put eventsFd() and inodeWatchFd() in the loop's epoll set; when readable, call
//      drainEvents() and drainInodeChanges().
//   4. For each accepted connection, takeConnectRecord(peer address, local address): the
//      original destination and the process, and metaDataFor(record.process) for the flow's
//      metadata.
//   5. Destroy it to detach everything. A process that dies without doing so leaves nothing
//      attached either: no program is pinned.
//
// Threads: load(), addWatched(), pruneTo(), drainEvents() and drainInodeChanges() run on one
// thread at a time (the host's loop). takeConnectRecord(), metaDataFor(), candidateCount() and
// counters() may run on any thread, concurrently with those.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/selection/CandidateReconciler.h"
#include "host/selection/IpPrefix.h"
#include "host/selection/SelectedProcess.h"
#include "host/selection/SelectionPrograms.h"
#include "host/selection/WatchedExecutables.h"
#include "identity/WatchGate.h"

namespace tarnwick::host {

class KernelSelection {
 public:
  struct Config {
    // The host's listener, on 127.0.0.1 and ::1 of the caller's network namespace.
    std::uint16_t listenerPort = 0;
    // A listening socket at that port on 127.0.0.1, and one on ::1 (-1 without IPv6). When one
    // shares its port with others (SO_REUSEPORT), the kernel spreads connections over them all.
    // Used while loading only; the kernel lets go of a listener once it is closed.
    int listener4 = -1;
    int listener6 = -1;
    // Destinations left alone (see excludedPrefixesOf). Loopback and link-local are always.
    std::vector<IpPrefix> excludedPrefixes;
    // Refuse candidates' UDP to port 443 (EPERM), so QUIC clients fall back to TCP. Candidates
    // are a superset of what the provider accepts: a process it would not accept (a descendant
    // reparented away from its watched ancestor) may be refused too.
    bool blockQuic = false;
    // The host's own process, never selected; 0 means the calling process.
    std::int64_t ownPID = 0;
  };

  using UdpSocketHandler = std::function<void(const UdpSocketReport&)>;

  // Loads and attaches the programs for the calling thread's network namespace. Refuses, with a
  // reason, outside the initial PID namespace, without BTF, without privileges, or without a
  // cgroup v2 hierarchy to attach to.
  static std::unique_ptr<KernelSelection> load(const Config& config, std::string& whyNot);

  // First step of a watch-set change: the set now covers these too.
  void addWatched(const WatchGate::SigningSet& signingIDs, const WatchGate::PidSet& pids);
  // Second step, once the provider has the new set: the set covers only these.
  void pruneTo(const WatchGate::SigningSet& signingIDs, const WatchGate::PidSet& pids);

  // The record of the redirected connection from `peer` that arrived at `local` (the accepted
  // socket's own address), taken out so it is found once. Absent when there is none.
  std::optional<ConnectRecord> takeConnectRecord(const SocketAddress& peer,
                                                 const SocketAddress& local) const;
  // The flow metadata for a recorded process, also after it has gone.
  NEFlowMetaData metaDataFor(const SelectedProcess& process) const;

  // Readable when drainEvents() has work: UDP reports, and notices of processes that started a
  // watched executable (their children are then added here).
  int eventsFd() const { return programs_->eventsFd(); }
  void drainEvents(const UdpSocketHandler& onUdpSocket);

  // Readable when a watched executable's directory changed.
  int inodeWatchFd() const { return executables_.fd(); }
  void drainInodeChanges();

  // Processes with a stored entry: inherited candidates (those selected only by what they run
  // or by their PID are not counted).
  std::size_t candidateCount() const;
  // What the kernel could not do: events the ring had no room for, sockets whose record could
  // not be made, children of candidates the candidate map had no room for.
  SelectionCounters counters() const { return programs_->counters(); }

 private:
  KernelSelection(std::unique_ptr<SelectionPrograms> programs, std::vector<UniqueFd> ipv6Ports);
  WatchTargets targets() const;

  const std::unique_ptr<SelectionPrograms> programs_;
  // Bound, never listening, so no other program can take the ports on ::1 that IPv6
  // connections are steered through.
  const std::vector<UniqueFd> ipv6Ports_;
  WatchedExecutables executables_;
  CandidateReconciler reconciler_;
  // What is watched now: during a change, the old set and the new. The loop's thread only.
  WatchGate::PidSet pids_;
};

}  // namespace tarnwick::host

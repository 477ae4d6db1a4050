#pragma once
// The kernel side of selection once loaded: the BPF programs attached at the cgroup root, the
// tracepoints and the network namespace, and the maps they share with userspace. Held by
// KernelSelection; everything attached is held by link descriptors and goes when this object goes,
// or with the process, however it ends: nothing is pinned.
//
// Map operations are single system calls and may run on any thread; drainEvents() on one thread
// at a time.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/selection/CandidateStore.h"
#include "host/selection/IpPrefix.h"
#include "host/selection/SelectionRecords.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

struct SelectionSettings {
  std::uint16_t listenerPort = 0;
  // The listeners connections are steered to (IPv6: -1 when there is none), descriptors used
  // while loading only: the kernel holds the sockets, and lets go of one that closes.
  int listener4 = -1;
  int listener6 = -1;
  // Ports on ::1 reserved for IPv6 connections, steered to the IPv6 listener too.
  std::vector<std::uint16_t> ipv6Ports;
  bool blockQuic = false;
  std::uint32_t ownPID = 0;
  std::uint64_t netnsCookie = 0;
  std::uint64_t nanosecondsPerTick = 0;
  int cgroupRoot = -1;  // a directory descriptor, used while loading only
};

struct SelectionCounters {
  std::uint64_t eventsDropped = 0;   // the event ring was full
  std::uint64_t recordsFailed = 0;   // a socket's record could not be made or filed
  std::uint64_t candidatesLost = 0;  // a child of a candidate found the candidate map full
};

class SelectionPrograms : public CandidateStore {
 public:
  virtual bool addExcluded(const IpPrefix& prefix) = 0;
  // The record of a redirected connection, taken out.
  virtual std::optional<tw_socket_record> takeConnection(const tw_connection_key& key) = 0;
  // Readable when events wait.
  virtual int eventsFd() const = 0;
  virtual void drainEvents(const std::function<void(const tw_event&)>& handler) = 0;
  virtual SelectionCounters counters() const = 0;
};

// Loads and attaches the programs; null with a one-line reason when that cannot be done.
std::unique_ptr<SelectionPrograms> loadSelectionPrograms(const SelectionSettings& settings,
                                                         std::string& whyNot);

}  // namespace tarnwick::host

#pragma once
// What the interceptor has done since it started, for the operator's status query: the flows
// relayed, handed back, failed open (by reason) and reported as UDP, the connections it could not
// place, the bytes its flows carried to and from the programs, and what kernel-side selection
// lost (counted by the kernel itself). Every mechanism of the host
// adds to it; the provider's part is counted from its events (CountingDaemonChannel).
//
// Any thread. Counts are atomics; the fail-open reasons, a short fixed catalogue, sit under
// mutex_.

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "host/selection/SelectionPrograms.h"
#include "platform/Json.h"
#include "platform/Mutex.h"

namespace tarnwick::host {

class HostCounters {
 public:
  void countRelayed() { add(relayed_); }
  void countHandedBack() { add(handed_back_); }
  void countUnplaced() { add(unplaced_); }
  void countUDPFlowReported() { add(udp_flows_reported_); }
  void countFailedOpen(std::string_view reason);
  void countBytesFromAgent(std::size_t bytes) { add(bytes_from_agents_, bytes); }
  void countBytesToAgent(std::size_t bytes) { add(bytes_to_agents_, bytes); }

  // {"relayed":N,"handedBack":N,"failedOpen":{REASON:N,...},"udpFlowsReported":N,
  //  "unplaced":N,"bytesFromAgents":N,"bytesToAgents":N,"kernelEventsDropped":N,
  //  "kernelRecordsFailed":N,"kernelCandidatesLost":N}, with what kernel-side selection could
  // not do as `kernel` counted it (null without kernel-side selection).
  Json snapshot(const std::optional<SelectionCounters>& kernel = std::nullopt) const;

 private:
  static void add(std::atomic<std::uint64_t>& counter, std::uint64_t by = 1) {
    counter.fetch_add(by, std::memory_order_relaxed);
  }
  static std::uint64_t read(const std::atomic<std::uint64_t>& counter) {
    return counter.load(std::memory_order_relaxed);
  }

  std::atomic<std::uint64_t> relayed_{0};
  std::atomic<std::uint64_t> handed_back_{0};
  std::atomic<std::uint64_t> unplaced_{0};
  std::atomic<std::uint64_t> udp_flows_reported_{0};
  std::atomic<std::uint64_t> bytes_from_agents_{0};
  std::atomic<std::uint64_t> bytes_to_agents_{0};
  mutable Mutex mutex_;
  std::map<std::string, std::uint64_t, std::less<>> failed_open_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick::host

#include "host/status/HostCounters.h"

namespace tarnwick::host {
namespace {

// The reasons are the relay engine's own catalogue; a bound keeps a stray one from growing the
// table.
constexpr std::size_t kMaximumReasons = 64;

}  // namespace

void HostCounters::countFailedOpen(std::string_view reason) {
  MutexLock lock(mutex_);
  if (auto found = failed_open_.find(reason); found != failed_open_.end()) {
    ++found->second;
  } else if (failed_open_.size() < kMaximumReasons) {
    failed_open_.emplace(reason, 1);
  }
}

Json HostCounters::snapshot(const std::optional<SelectionCounters>& kernel) const {
  Json failedOpen = Json::object();
  {
    MutexLock lock(mutex_);
    for (const auto& [reason, count] : failed_open_) failedOpen[reason] = count;
  }
  return Json{{"relayed", read(relayed_)},
              {"handedBack", read(handed_back_)},
              {"failedOpen", std::move(failedOpen)},
              {"udpFlowsReported", read(udp_flows_reported_)},
              {"unplaced", read(unplaced_)},
              {"bytesFromAgents", read(bytes_from_agents_)},
              {"bytesToAgents", read(bytes_to_agents_)},
              {"kernelEventsDropped", kernel ? Json(kernel->eventsDropped) : Json(nullptr)},
              {"kernelRecordsFailed", kernel ? Json(kernel->recordsFailed) : Json(nullptr)},
              {"kernelCandidatesLost", kernel ? Json(kernel->candidatesLost) : Json(nullptr)}};
}

}  // namespace tarnwick::host

#include "host/selection/SelectionLane.h"

#include <future>

#include "host/selection/ReportedUdpFlow.h"
#include "platform/Json.h"

namespace tarnwick::host {
namespace {

constexpr std::uint32_t kEventsTag = 0;
constexpr std::uint32_t kInodesTag = 1;

// Whether the provider's reply to a watch-set message says it took the set.
bool accepted(const std::optional<Bytes>& reply) {
  const auto document = reply ? parseJsonDocument(textOf(*reply)) : std::nullopt;
  const Json* ok = document ? jsonMember(*document, "ok") : nullptr;
  return ok != nullptr && ok->is_boolean() && ok->get<bool>();
}

}  // namespace

std::shared_ptr<SelectionLane> SelectionLane::load(Parts parts,
                                                   const KernelSelection::Config& config,
                                                   WatchSet watched, Duration patience,
                                                   std::string& whyNot) {
  struct Outcome {
    std::shared_ptr<SelectionLane> lane;
    std::string whyNot;
  };
  // Shared with the lane's work, which outlives this call if the wait gives up.
  auto loaded = std::make_shared<std::promise<Outcome>>();
  const auto loop = parts.loop;
  auto work = [loaded, parts = std::move(parts), config, watched = std::move(watched)]() mutable {
    Outcome outcome;
    if (auto selection = KernelSelection::load(config, outcome.whyNot)) {
      selection->addWatched(watched.signingIDs, watched.pids);
      outcome.lane.reset(
          new SelectionLane(std::move(parts), std::move(selection), std::move(watched)));
      outcome.lane->watchDescriptors();
    }
    loaded->set_value(std::move(outcome));
  };
  // The caller's queue may live on that very lane, which could then never run posted work.
  if (loop->isLoopThread()) {
    work();
  } else {
    loop->post(std::move(work));
  }
  auto future = loaded->get_future();
  if (future.wait_for(patience) != std::future_status::ready) {
    whyNot = "the host's loop did not get to loading the programs";
    return nullptr;
  }
  Outcome outcome = future.get();
  whyNot = std::move(outcome.whyNot);
  return std::move(outcome.lane);
}

SelectionLane::SelectionLane(Parts parts, std::unique_ptr<KernelSelection> selection,
                             WatchSet watched)
    : parts_(std::move(parts)), selection_(std::move(selection)), watched_(std::move(watched)) {}

SelectionLane::~SelectionLane() {
  parts_.loop->remove(selection_->eventsFd());
  parts_.loop->remove(selection_->inodeWatchFd());
  parts_.loop->unregisterHandler(loop_id_);
}

void SelectionLane::watchDescriptors() {
  loop_id_ = parts_.loop->registerHandler(weak_from_this());
  parts_.loop->add(selection_->eventsFd(), loop_id_, kEventsTag, EPOLLIN);
  parts_.loop->add(selection_->inodeWatchFd(), loop_id_, kInodesTag, EPOLLIN);
}

void SelectionLane::onIoEvent(std::uint32_t tag, std::uint32_t) {
  if (tag == kEventsTag) {
    selection_->drainEvents([this](const UdpSocketReport& report) { offerUdpSocket(report); });
  } else if (tag == kInodesTag) {
    selection_->drainInodeChanges();
  }
}

void SelectionLane::changeWatchSet(Bytes message,
                                   NETransparentProxyProvider::AppMessageCompletion completion) {
  parts_.loop->post(
      [weak = weak_from_this(), message = std::move(message), completion = std::move(completion)] {
        if (auto self = weak.lock()) self->applyWatchSet(message, completion);
      });
}

// The provider answers before handleAppMessage returns, so the prune that follows sees the set
// it holds, and no other change can come in between.
void SelectionLane::applyWatchSet(
    const Bytes& message, const NETransparentProxyProvider::AppMessageCompletion& completion) {
  auto next = WatchGate::decode(message);
  if (next) selection_->addWatched(next->first, next->second);
  std::optional<Bytes> reply;
  parts_.provider->handleAppMessage(message,
                                    [&reply](std::optional<Bytes> answer) { reply = answer; });
  if (next && accepted(reply)) watched_ = {std::move(next->first), std::move(next->second)};
  selection_->pruneTo(watched_.signingIDs, watched_.pids);
  if (completion) completion(std::move(reply));
}

void SelectionLane::offerUdpSocket(const UdpSocketReport& report) {
  // The provider reports the socket, or not, and never takes a UDP flow.
  parts_.provider->handleNewFlow(
      std::make_shared<ReportedUdpFlow>(metaDataRecording(report.process)));
}

std::optional<FlowIntake::Origin> SelectionLane::origin(const SocketAddress& peer) const {
  auto record = selection_->takeConnectRecord(peer);
  if (!record) return std::nullopt;
  return FlowIntake::Origin{{peer, record->destination}, metaDataRecording(record->process)};
}

NEFlowMetaData SelectionLane::metaDataRecording(const SelectedProcess& process) const {
  parts_.parents->record(process.pid, process.parentPID);
  return selection_->metaDataFor(process);
}

}  // namespace tarnwick::host

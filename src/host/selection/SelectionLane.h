#pragma once
// Kernel-side selection at work in the host, on one lane: the selection's event ring and its
// watch on the watched executables' directories sit in that lane's epoll set, every change of
// the watch set runs there, and each UDP socket the kernel reports becomes a UDP flow offered to
// the provider. Accepted connections take their records from any lane.
//
// A watch-set change keeps the candidate set a superset of what the provider accepts while the
// provider moves from the old set to the new: the new set is added first, the provider is given
// the message, and the set is then pruned to whichever set the provider holds afterwards.
//
// Every call into the selection that changes it runs on the loop's lane, its loading included.
// load(), origin(), candidateCount(), counters(): any thread.

#include <cstddef>
#include <memory>
#include <optional>

#include "host/HostLoop.h"
#include "host/intake/FlowIntake.h"
#include "host/selection/KernelSelection.h"
#include "host/selection/RecordedParents.h"
#include "identity/WatchGate.h"
#include "platform/NetworkExtension.h"

namespace tarnwick::host {

class SelectionLane : public IoHandler, public std::enable_shared_from_this<SelectionLane> {
 public:
  struct WatchSet {
    WatchGate::SigningSet signingIDs;
    WatchGate::PidSet pids;
  };

  struct Parts {
    std::shared_ptr<HostLoop> loop;
    std::shared_ptr<NETransparentProxyProvider> provider;
    std::shared_ptr<RecordedParents> parents;  // learns the parent of every recorded process
  };

  // Loads kernel-side selection on the loop's lane, watching `watched` (the provider's set at its
  // start), and puts its descriptors in the loop; waits at most `patience` for that. Null, with
  // `whyNot` set, when it cannot be loaded.
  static std::shared_ptr<SelectionLane> load(Parts parts, const KernelSelection::Config& config,
                                             WatchSet watched, Duration patience,
                                             std::string& whyNot);
  ~SelectionLane() override;

  // Replaces the watch set with the one `message` holds (the provider's app message), kernel side
  // and provider alike; `completion` gets the provider's reply, on the lane.
  void changeWatchSet(Bytes message, NETransparentProxyProvider::AppMessageCompletion completion);

  // The kernel's record of the connection whose client is at `peer`: where it connected to and
  // who connected. Absent when the kernel redirected no such connection.
  std::optional<FlowIntake::Origin> origin(const SocketAddress& peer) const;

  std::size_t candidateCount() const { return selection_->candidateCount(); }
  SelectionCounters counters() const { return selection_->counters(); }

  void onIoEvent(std::uint32_t tag, std::uint32_t events) override;

 private:
  SelectionLane(Parts parts, std::unique_ptr<KernelSelection> selection, WatchSet watched);
  void watchDescriptors();
  void applyWatchSet(const Bytes& message,
                     const NETransparentProxyProvider::AppMessageCompletion& completion);
  void offerUdpSocket(const UdpSocketReport& report);
  NEFlowMetaData metaDataRecording(const SelectedProcess& process) const;

  const Parts parts_;
  const std::unique_ptr<KernelSelection> selection_;
  std::uint64_t loop_id_ = 0;
  // The set the provider holds. The lane only.
  WatchSet watched_;
};

}  // namespace tarnwick::host

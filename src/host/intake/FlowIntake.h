#pragma once
// Turns redirected connections into flows. Listens on 127.0.0.1 and, where the machine has IPv6,
// on ::1; for each accepted connection it reads the kernel's record of the redirect (a
// connection without one, or aimed at the listener itself, is not this host's to carry and is
// reset, so the host never loops into itself), then, once the accept loop has emptied the
// listener's queue, names the owning process, unless the record did, and offers the flow to the
// provider. A flow the
// provider does not take goes to the hand-back carrier; one it takes is kept track of, weakly. A
// connection whose process takes a walk of /proc to find waits for it off the lane; the others go
// on meanwhile. Every connection that is closed instead of offered is logged and counted.
//
// The host runs one intake per lane, all listening on one shared port: the kernel spreads new
// connections over them, and each flow lives on the lane that accepted it, with its framework
// queue, its relay and its hand-back.
//
// listen() and close(): the owner's thread. onIoEvent, identification and offers: the loop's
// lane. The flows' completions: each flow's framework queue, made on that lane.

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/HostLoop.h"
#include "host/handback/HandBackCarrier.h"
#include "host/intake/TakenFlows.h"
#include "host/owner/FlowIdentifier.h"
#include "host/redirect/ConntrackTuples.h"
#include "host/status/HostCounters.h"
#include "platform/Dispatch.h"
#include "platform/NetworkExtension.h"
#include "platform/posix/SocketAddress.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

class FlowIntake : public IoHandler, public std::enable_shared_from_this<FlowIntake> {
 public:
  // The connection `fd` as its client made it, before the redirect, from the listener's address
  // and the client's as the listener sees them; absent when it was not redirected.
  using TupleLookup = std::function<std::optional<OriginalTuple>(int fd, const SocketAddress& local,
                                                                 const SocketAddress& peer)>;
  // A redirected connection: as its client made it and, when the redirect recorded it, the
  // metadata of the process that made it (otherwise it is identified afterwards).
  struct Origin {
    OriginalTuple tuple;
    std::optional<NEFlowMetaData> owner;
  };
  using OriginLookup = std::function<std::optional<Origin>(int fd, const SocketAddress& local,
                                                           const SocketAddress& peer)>;
  // Hands the metadata of the process behind a connection to `then`, on the loop's lane: at
  // once, or later when the process must be searched for off the lane. Called on the lane.
  using Identified = std::function<void(NEFlowMetaData)>;
  using Identify = std::function<void(const SocketAddress& client, const SocketAddress& destination,
                                      Identified then)>;

  struct Parts {
    std::shared_ptr<HostLoop> loop;
    std::shared_ptr<Runtime> runtime;  // makes each flow's framework queue
    std::shared_ptr<HandBackCarrier> carrier;
    std::shared_ptr<NETransparentProxyProvider> provider;
    OriginLookup originOf;  // the kernel's record of the redirect
    Identify identify;      // for an origin without its owner
    std::shared_ptr<HostCounters> counters;
    std::shared_ptr<TakenFlows> taken;
    bool ipv6 = true;  // whether to listen on ::1 as well
  };

  static std::shared_ptr<FlowIntake> create(Parts parts);
  ~FlowIntake() override;

  // Whether ::1 can be bound here; where IPv6 is disabled or missing it cannot.
  static bool loopbackIPv6Available();
  // A port free on the loopback addresses for the intakes to share: `port` itself, or one the
  // kernel chooses for 0. Absent, with one line saying why, when it is taken.
  static std::optional<std::uint16_t> reservePort(std::uint16_t port, bool ipv6,
                                                  std::string& error);
  // Binds the loopback listeners to `port`, shared with the other intakes. On failure returns
  // false, says why in one line and leaves nothing bound.
  bool listen(std::uint16_t port, std::string& error);
  std::uint16_t port() const { return port_; }
  // Stops accepting; flows already offered live on.
  void close();

  void onIoEvent(std::uint32_t tag, std::uint32_t events) override;

 private:
  explicit FlowIntake(Parts parts);
  struct Accepted {
    UniqueFd client;
    Origin origin;
  };

  void acceptFrom(std::size_t index);
  void identifyAndOffer(UniqueFd client, const OriginalTuple& tuple);
  // `recorded`: the process was named when it connected, not looked for afterwards.
  void offer(UniqueFd client, const SocketAddress& destination, NEFlowMetaData metaData,
             bool recorded);
  // Out of descriptors: accept with the spare one and drop the connection, so the listener's
  // readiness does not spin the loop.
  void shedOne(int listener);
  std::size_t listenerCount() const { return parts_.ipv6 ? 2 : 1; }

  Parts parts_;
  std::array<UniqueFd, 2> listeners_;
  UniqueFd spare_;
  std::uint64_t loop_id_ = 0;
  std::uint16_t port_ = 0;
};

// The identification every real host uses: sock_diag, /proc and the process's metadata. What
// the lane's caches miss is searched for by `walker`, and the answer comes back through `loop`.
FlowIntake::Identify realIdentification(std::shared_ptr<HostLoop> loop,
                                        std::shared_ptr<class OwnerWalker> walker);

}  // namespace tarnwick::host

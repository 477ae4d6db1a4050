#pragma once
// Carrying a relayed flow's bytes inside the kernel. Once a relay can no longer fail over, its
// agent's flow and its upstream connection hand their sockets to a splicer, which moves the
// bytes both ways through pipes, never through user space, and reports back on the relay's queue
// what the relay needs to keep its bookkeeping: how many bytes moved each way (activity for the
// idle watchdog, the first response byte), each direction's end of stream (already passed on to
// the other side as a half-close) and the first error on either side (after which nothing moves).
//
// StreamSplicer and StreamSplice: any thread. The observer hears on the queue given to splice(),
// in the order things happened.

#include <cstddef>
#include <memory>

#include "platform/Dispatch.h"
#include "platform/Network.h"
#include "platform/NetworkExtension.h"

namespace tarnwick {

enum class SpliceDirection { AgentToUpstream, UpstreamToAgent };
enum class SpliceSide { Agent, Upstream };

// Hears what a splice did; held weakly, so a splice never keeps its relay alive.
class SpliceObserver {
 public:
  virtual ~SpliceObserver() = default;
  virtual void spliceMoved(SpliceDirection direction, std::size_t bytes) = 0;
  // The direction's end of stream, already passed on as a half-close after its bytes.
  virtual void spliceEnded(SpliceDirection direction) = 0;
  // The first error on either side; nothing moves any more.
  virtual void spliceFailed(SpliceSide side, const NWError& error) = 0;
};

// One running splice. Dropping it does not stop it: close() does.
class StreamSplice {
 public:
  // How both sockets are closed: orderly, or with a reset toward one side (a stream cut short on
  // the other side is never passed off as complete).
  enum class Closing { Orderly, ResetAgent, ResetUpstream };

  virtual ~StreamSplice() = default;
  // Stops moving bytes and closes both sockets; no event follows. Idempotent.
  virtual void close(Closing how) = 0;
};

class StreamSplicer {
 public:
  enum class Refusal {
    // One of them is busy (a write still going out, a read whose bytes are not delivered yet):
    // try again once it is idle. Nothing was taken.
    NotNow,
    // They have no sockets to hand over (fakes, a connection not ready): never.
    Never,
  };
  struct Started {
    std::shared_ptr<StreamSplice> splice;  // absent when refused
    Refusal refusal = Refusal::Never;
  };

  virtual ~StreamSplicer() = default;
  // Takes both sockets and starts moving bytes. A read still waiting on the flow or a receive
  // still waiting on the connection is dropped without its completion: its bytes are carried
  // by the splice.
  virtual Started splice(NEAppProxyTCPFlow& agent, NWConnection& upstream,
                         std::shared_ptr<DispatchQueue> queue,
                         std::weak_ptr<SpliceObserver> observer) = 0;
};

// Splices on the real runtime's lanes, with a pool of pipes per lane.
std::shared_ptr<StreamSplicer> realStreamSplicer();

}  // namespace tarnwick

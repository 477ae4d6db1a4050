#pragma once
// Sits between the provider and its daemon channel and counts the events that pass: every
// "relay.open" is a relayed flow, every "relay.failopen" a fail-open under its reason, every
// "quic.deny" a reported UDP flow. The events go on to the real channel unchanged, whether or
// not the daemon is there, so the counts hold while it is away.
//
// Any thread, as the channel it wraps.

#include <memory>

#include "bridge/DaemonChannel.h"
#include "host/status/HostCounters.h"

namespace tarnwick::host {

class CountingDaemonChannel : public DaemonChannel {
 public:
  CountingDaemonChannel(std::shared_ptr<DaemonChannel> channel,
                        std::shared_ptr<HostCounters> counters)
      : channel_(std::move(channel)), counters_(std::move(counters)) {}

  void adoptPath(std::string path, bool real) override {
    channel_->adoptPath(std::move(path), real);
  }
  void send(Json event) override;
  void recordCommittedSeverIfUnhealthy() override { channel_->recordCommittedSeverIfUnhealthy(); }

 private:
  const std::shared_ptr<DaemonChannel> channel_;
  const std::shared_ptr<HostCounters> counters_;
};

}  // namespace tarnwick::host

#include "host/status/CountingDaemonChannel.h"

namespace tarnwick::host {

void CountingDaemonChannel::send(Json event) {
  const Json* kind = jsonMember(event, "kind");
  if (kind != nullptr && kind->is_string()) {
    const auto& name = kind->get_ref<const std::string&>();
    if (name == "relay.open") {
      counters_->countRelayed();
    } else if (name == "quic.deny") {
      counters_->countUDPFlowReported();
    } else if (const Json* reason = jsonMember(event, "reason");
               name == "relay.failopen" && reason != nullptr && reason->is_string()) {
      counters_->countFailedOpen(reason->get_ref<const std::string&>());
    }
  }
  channel_->send(std::move(event));
}

}  // namespace tarnwick::host

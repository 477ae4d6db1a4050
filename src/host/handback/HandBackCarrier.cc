#include "host/handback/HandBackCarrier.h"

namespace tarnwick::host {

HandBackCarrier::HandBackCarrier(std::shared_ptr<HostLoop> loop,
                                 HandBackRelay::DialOptions dialOptions)
    : loop_(std::move(loop)), dial_options_(dialOptions) {}

void HandBackCarrier::carry(UniqueFd client, const SocketAddress& destination) {
  if (loop_->isLoopThread()) return start(std::move(client), destination);
  // The posted work holds the carrier weakly: after the host stops, the socket just closes.
  loop_->post([weak = weak_from_this(), client = std::make_shared<UniqueFd>(std::move(client)),
               destination] {
    if (auto self = weak.lock()) self->start(std::move(*client), destination);
  });
}

void HandBackCarrier::start(UniqueFd client, const SocketAddress& destination) {
  auto relay = HandBackRelay::create(loop_, pipes_, std::move(client),
                                     // The carrier owns every relay and outlives it.
                                     [this](std::uint64_t id) { relays_.erase(id); });
  relays_.emplace(relay->id(), relay);
  relay->dial(destination, dial_options_);
}

}  // namespace tarnwick::host

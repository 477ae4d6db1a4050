#include "FakeProvider.h"

#include <chrono>

namespace tarnwick::host {
namespace {

NENetworkRule outboundTCP(std::optional<NWHostEndpoint> network, int prefix) {
  NENetworkRule rule;
  rule.remoteNetwork = std::move(network);
  rule.remotePrefix = prefix;
  rule.protocol = NENetworkRuleProtocol::TCP;
  rule.direction = NETrafficDirection::Outbound;
  return rule;
}

}  // namespace

void FakeProvider::startProxy(std::optional<Json> options, StartCompletion completion) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    start_options_ = std::move(options);
  }
  if (startError) return completion(startError);
  auto settings = std::make_shared<NETransparentProxyNetworkSettings>();
  settings->tunnelRemoteAddress = "127.0.0.1";
  settings->includedNetworkRules = {outboundTCP(std::nullopt, 0)};
  settings->excludedNetworkRules = {outboundTCP(NWHostEndpoint{"127.0.0.0", "0"}, 8)};
  setTunnelNetworkSettings(std::move(settings), std::move(completion));
}

void FakeProvider::stopProxy(NEProviderStopReason, std::function<void()> completion) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
  }
  completion();
}

bool FakeProvider::handleNewFlow(std::shared_ptr<NEAppProxyFlow> flow) {
  auto tcp = std::dynamic_pointer_cast<NEAppProxyTCPFlow>(flow);
  Offer offer{flow->metaData(), tcp ? tcp->remoteEndpoint() : std::nullopt};
  const bool taken = tcp && take(offer);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    offers_.push_back(std::move(offer));
  }
  offered_.notify_all();
  if (taken) {
    tcp->open(std::nullopt, [tcp](std::optional<NEError> error) {
      if (!error) echo(tcp);
    });
  }
  return taken;
}

// Reads, writes back, reads again; at the client's end closes both directions.
void FakeProvider::echo(std::shared_ptr<NEAppProxyTCPFlow> flow) {
  flow->readData([flow](std::optional<Bytes> data, std::optional<NEError> error) {
    if (error || !data || data->empty()) {
      flow->closeReadWithError(std::nullopt);
      flow->closeWriteWithError(std::nullopt);
      return;
    }
    flow->write(std::move(*data), [flow](std::optional<NEError> writeError) {
      if (!writeError) echo(flow);
    });
  });
}

void FakeProvider::handleAppMessage(Bytes message, AppMessageCompletion completion) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    messages_.push_back(std::move(message));
  }
  if (completion) completion(appReply);
}

std::vector<FakeProvider::Offer> FakeProvider::offers(std::size_t count) {
  std::unique_lock<std::mutex> lock(mutex_);
  offered_.wait_for(lock, std::chrono::seconds(5), [&] { return offers_.size() >= count; });
  return offers_;
}

std::vector<Bytes> FakeProvider::messages() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return messages_;
}

std::optional<Json> FakeProvider::startOptions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return start_options_;
}

bool FakeProvider::stopped() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return stopped_;
}

}  // namespace tarnwick::host

#pragma once
// A provider for the host's tests: hands over the usual network rules, takes or hands back each
// flow as the test decides, echoes the bytes of a flow it takes, and answers app messages with
// what the test sets. Records what it was offered.

#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "platform/NetworkExtension.h"

namespace tarnwick::host {

class FakeProvider : public NETransparentProxyProvider,
                     public std::enable_shared_from_this<FakeProvider> {
 public:
  struct Offer {
    NEFlowMetaData metaData;
    std::optional<NWHostEndpoint> remote;
  };

  // Decides per flow: true takes it (and echoes it), false hands it back.
  std::function<bool(const Offer&)> take = [](const Offer&) { return false; };
  std::optional<NEError> startError;
  Bytes appReply = bytesOf("{\"ok\":true}");

  void startProxy(std::optional<Json> options, StartCompletion completion) override;
  void stopProxy(NEProviderStopReason reason, std::function<void()> completion) override;
  bool handleNewFlow(std::shared_ptr<NEAppProxyFlow> flow) override;
  void handleAppMessage(Bytes message, AppMessageCompletion completion) override;

  // Waits (up to 5 s) until `count` flows were offered; the offers so far.
  std::vector<Offer> offers(std::size_t count);
  std::vector<Bytes> messages() const;
  std::optional<Json> startOptions() const;
  bool stopped() const;

 private:
  static void echo(std::shared_ptr<NEAppProxyTCPFlow> flow);

  mutable std::mutex mutex_;
  std::condition_variable offered_;
  std::vector<Offer> offers_;
  std::vector<Bytes> messages_;
  std::optional<Json> start_options_;
  bool stopped_ = false;
};

}  // namespace tarnwick::host

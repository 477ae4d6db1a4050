#pragma once
// A UDP socket of a candidate process, as kernel-side selection reported it, offered to the
// provider as a UDP flow. Its datagrams already went their way (the kernel never holds them back),
// so there is nothing to carry: the flow only names its process, and opening it fails.

#include "platform/NetworkExtension.h"

namespace tarnwick::host {

class ReportedUdpFlow final : public NEAppProxyUDPFlow {
 public:
  explicit ReportedUdpFlow(NEFlowMetaData metaData) : meta_data_(std::move(metaData)) {}

  void open(std::optional<NWHostEndpoint> localEndpoint, OpenCompletion completion) override;
  NEFlowMetaData metaData() const override { return meta_data_; }

 private:
  const NEFlowMetaData meta_data_;
};

}  // namespace tarnwick::host

#pragma once
// A serial queue of the real runtime: an Asio strand over one lane's io_context, so its work
// runs one item at a time, in order, on that lane's thread.
// Every method: any thread. Work, delayed work and timer handlers run on the strand.

#include <asio.hpp>
#include <string>

#include "platform/Dispatch.h"

namespace tarnwick {

class StrandQueue : public DispatchQueue {
 public:
  using Strand = asio::strand<asio::io_context::executor_type>;

  StrandQueue(asio::io_context& context, std::string label, QualityOfService qos);

  const std::string& label() const override { return label_; }
  QualityOfService qos() const override { return qos_; }
  void async(Work work) override;
  void asyncAfter(Duration delay, Work work) override;
  std::shared_ptr<DispatchTimer> makeTimer() override;
  bool isCurrent() const override;

 private:
  asio::io_context& context_;
  Strand strand_;
  const std::string label_;
  const QualityOfService qos_;
};

}  // namespace tarnwick

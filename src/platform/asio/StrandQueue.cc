#include "platform/asio/StrandQueue.h"

#include "platform/asio/StrandTimer.h"

namespace tarnwick {

StrandQueue::StrandQueue(asio::io_context& context, std::string label, QualityOfService qos)
    : context_(context), strand_(asio::make_strand(context)), label_(std::move(label)), qos_(qos) {}

void StrandQueue::async(Work work) { asio::post(strand_, std::move(work)); }

// The timer rides in its own handler, which keeps it alive until it has fired.
void StrandQueue::asyncAfter(Duration delay, Work work) {
  auto timer = std::make_shared<asio::steady_timer>(context_, delay);
  timer->async_wait(asio::bind_executor(
      strand_, [timer, work = std::move(work)](const asio::error_code&) { work(); }));
}

std::shared_ptr<DispatchTimer> StrandQueue::makeTimer() {
  return std::make_shared<StrandTimer>(context_, strand_);
}

bool StrandQueue::isCurrent() const { return strand_.running_in_this_thread(); }

}  // namespace tarnwick

#include "platform/asio/AsioRuntime.h"

#include <pthread.h>

#include <string>

#include "platform/ThreadQueue.h"
#include "platform/asio/StrandQueue.h"

namespace tarnwick {

AsioRuntime::AsioRuntime(int poolThreads) : keepRunning_(asio::make_work_guard(context_)) {
  for (int i = 0; i < poolThreads; ++i) {
    pool_.emplace_back([this, i] {
      const std::string name = "tw-io-" + std::to_string(i);
      pthread_setname_np(pthread_self(), name.c_str());
      context_.run();
    });
  }
}

std::shared_ptr<DispatchQueue> AsioRuntime::makeQueue(std::string label, QualityOfService qos,
                                                      QueueKind kind) {
  if (kind == QueueKind::Blocking) return std::make_shared<ThreadQueue>(std::move(label), qos);
  return std::make_shared<StrandQueue>(context_, std::move(label), qos);
}

MonotonicTime AsioRuntime::monotonicNow() const { return std::chrono::steady_clock::now(); }

WallTime AsioRuntime::wallNow() const { return std::chrono::system_clock::now(); }

std::shared_ptr<AsioRuntime> processAsioRuntime() {
  // Deliberately leaked: see the header.
  static auto* const runtime =
      new std::shared_ptr<AsioRuntime>(std::make_shared<AsioRuntime>(AsioRuntime::kPoolThreads));
  return *runtime;
}

std::shared_ptr<Runtime> realRuntime() { return processAsioRuntime(); }

}  // namespace tarnwick

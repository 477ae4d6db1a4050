#include "platform/asio/AsioRuntime.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <string>

#include "platform/ThreadQueue.h"
#include "platform/asio/StrandQueue.h"

namespace tarnwick {
namespace {

constexpr std::size_t kMaxLanes = 8;

thread_local AsioLane* tlsLane = nullptr;

// Watches a descriptor the caller owns: released, never closed, when the watch goes. A
// completion already queued when it goes finds `watched_` false and does nothing.
class AsioReadableWatch : public IoLane::ReadableWatch {
 public:
  AsioReadableWatch(asio::io_context& context, int fd) : descriptor_(context, fd) {}
  ~AsioReadableWatch() override {
    *watched_ = false;
    asio::error_code ignored;
    descriptor_.cancel(ignored);
    descriptor_.release();
  }

  void wait(Work then) override {
    descriptor_.async_wait(
        asio::posix::descriptor_base::wait_read,
        [watched = watched_, then = std::move(then)](const asio::error_code& error) {
          if (!error && *watched) then();
        });
  }

 private:
  asio::posix::stream_descriptor descriptor_;
  const std::shared_ptr<bool> watched_ = std::make_shared<bool>(true);
};

// A splice into a socket whose peer has reset raises SIGPIPE, and splice() has no flag to keep
// it from doing so: the lanes block it, so it stays pending on the lane, harmless, whatever the
// process does with the signal (a test binary, a benchmark).
void blockBrokenPipeSignals() {
  sigset_t brokenPipe;
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
}

}  // namespace

AsioLane::AsioLane(std::size_t index, Role role)
    : index_(index), keepRunning_(asio::make_work_guard(context_)), thread_([this, role] {
        blockBrokenPipeSignals();
        if (role == Role::Data) tlsLane = this;
        const std::string name =
            role == Role::Data ? "tw-lane-" + std::to_string(index_) : std::string("tw-offlane");
        pthread_setname_np(pthread_self(), name.c_str());
        context_.run();
      }) {}

void AsioLane::post(Work work) { asio::post(context_, std::move(work)); }

bool AsioLane::isCurrent() const { return tlsLane == this; }

std::unique_ptr<IoLane::ReadableWatch> AsioLane::watchReadable(int fd) {
  return std::make_unique<AsioReadableWatch>(context_, fd);
}

AsioLane* AsioLane::current() { return tlsLane; }

std::size_t AsioRuntime::defaultLaneCount() {
  return std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, kMaxLanes);
}

AsioRuntime::AsioRuntime(std::size_t lanes)
    : offLane_(std::make_unique<AsioLane>(0, AsioLane::Role::OffLane)) {
  for (std::size_t i = 0; i < std::max<std::size_t>(lanes, 1); ++i) {
    lanes_.push_back(std::make_unique<AsioLane>(i, AsioLane::Role::Data));
  }
}

AsioLane& AsioRuntime::pickLane() {
  if (AsioLane* own = AsioLane::current()) return *own;
  return lane(nextLane_.fetch_add(1, std::memory_order_relaxed));
}

std::shared_ptr<DispatchQueue> AsioRuntime::makeQueue(std::string label, QualityOfService qos,
                                                      QueueKind kind) {
  switch (kind) {
    case QueueKind::Blocking:
      return std::make_shared<ThreadQueue>(std::move(label), qos);
    case QueueKind::OffLane:
      return std::make_shared<StrandQueue>(offLane_->context(), std::move(label), qos);
    case QueueKind::Serial:
      break;
  }
  return std::make_shared<StrandQueue>(pickLane().context(), std::move(label), qos);
}

MonotonicTime AsioRuntime::monotonicNow() const { return std::chrono::steady_clock::now(); }

WallTime AsioRuntime::wallNow() const { return std::chrono::system_clock::now(); }

std::shared_ptr<AsioRuntime> processAsioRuntime() {
  // Deliberately leaked: see the header.
  static auto* const runtime = new std::shared_ptr<AsioRuntime>(
      std::make_shared<AsioRuntime>(AsioRuntime::defaultLaneCount()));
  return *runtime;
}

std::shared_ptr<Runtime> realRuntime() { return processAsioRuntime(); }

std::size_t ioLaneCount() { return processAsioRuntime()->laneCount(); }

IoLane& ioLane(std::size_t index) { return processAsioRuntime()->lane(index); }

IoLane& pickIoLane() { return processAsioRuntime()->pickLane(); }

}  // namespace tarnwick

#pragma once
// A splicer whose splices the test plays: it takes any flow and connection (or refuses, as told)
// and moves no bytes itself; the test has the splice report bytes, ends and failures, which run
// on the relay's queue as the real splice's reports do, and reads back how it was closed.

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/StreamSplicer.h"

namespace tarnwick {

class ScriptedSplice : public StreamSplice, public std::enable_shared_from_this<ScriptedSplice> {
 public:
  ScriptedSplice(std::shared_ptr<DispatchQueue> queue, std::weak_ptr<SpliceObserver> observer)
      : queue_(std::move(queue)), observer_(std::move(observer)) {}

  void close(Closing how) override;

  // The test's side: each report is posted to the relay's queue; none once closed.
  void moved(SpliceDirection direction, std::size_t bytes);
  void ended(SpliceDirection direction);
  void failed(SpliceSide side, int errnoValue);

  // How the relay closed it; absent while open.
  std::optional<Closing> closing() const;

 private:
  void report(std::function<void(SpliceObserver&)> event);

  const std::shared_ptr<DispatchQueue> queue_;
  const std::weak_ptr<SpliceObserver> observer_;
  mutable std::mutex mutex_;
  std::optional<Closing> closing_;
};

class ScriptedSplicer : public StreamSplicer {
 public:
  Started splice(NEAppProxyTCPFlow& agent, NWConnection& upstream,
                 std::shared_ptr<DispatchQueue> queue,
                 std::weak_ptr<SpliceObserver> observer) override;

  // The next `count` requests are refused with `refusal`.
  void refuse(Refusal refusal, std::size_t count);
  std::size_t requests() const;
  // The newest splice started, if any.
  std::shared_ptr<ScriptedSplice> last() const;

 private:
  mutable std::mutex mutex_;
  Refusal refusal_ = Refusal::NotNow;
  std::size_t refusals_ = 0;
  std::size_t requests_ = 0;
  std::vector<std::shared_ptr<ScriptedSplice>> splices_;
};

}  // namespace tarnwick

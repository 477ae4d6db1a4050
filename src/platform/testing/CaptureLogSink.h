#pragma once
// A log sink that keeps every record, for tests that assert on exact log lines. ScopedLogCapture
// installs one for its lifetime and restores the previous sink after.

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Log.h"

namespace tarnwick {

class CaptureLogSink : public LogSink {
 public:
  void write(const LogRecord& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(record);
  }
  std::vector<LogRecord> records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }
  std::vector<std::string> messages() const {
    std::vector<std::string> out;
    for (const auto& r : records()) out.push_back(r.message);
    return out;
  }
  // How many records carry exactly this message.
  std::size_t count(const std::string& message) const {
    const auto all = messages();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), message));
  }
  // How many records contain this text.
  std::size_t countContaining(const std::string& text) const {
    const auto all = messages();
    return static_cast<std::size_t>(std::count_if(
        all.begin(), all.end(), [&](const std::string& m) { return m.find(text) != m.npos; }));
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LogRecord> records_;
};

class ScopedLogCapture {
 public:
  ScopedLogCapture() : sink_(std::make_shared<CaptureLogSink>()), previous_(setLogSink(sink_)) {}
  ~ScopedLogCapture() { setLogSink(previous_); }
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

  CaptureLogSink& operator*() { return *sink_; }
  CaptureLogSink* operator->() { return sink_.get(); }

 private:
  std::shared_ptr<CaptureLogSink> sink_;
  std::shared_ptr<LogSink> previous_;
};

}  // namespace tarnwick

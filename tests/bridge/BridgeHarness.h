#pragma once
// A bridge on the simulated runtime, talking over real Unix sockets to a TestDaemon: nothing on
// the bridge queue runs until the test runs the runtime, so each step of a test is one moment.

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TestDaemon.h"
#include "bridge/DaemonBridge.h"
#include "platform/testing/CaptureLogSink.h"
#include "platform/testing/SimulatedRuntime.h"

namespace tarnwick::testing {

// The documents the bridge hands to its policy; filled on the bridge queue, read by the test.
class RecordedPolicy {
 public:
  DaemonBridge::PolicySink sink() {
    return [this](const Json& document) {
      std::lock_guard<std::mutex> lock(mutex_);
      documents_.push_back(document);
    };
  }
  std::vector<Json> documents() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return documents_;
  }
  std::size_t count() const { return documents().size(); }

 private:
  mutable std::mutex mutex_;
  std::vector<Json> documents_;
};

class BridgeTest : public ::testing::Test {
 protected:
  BridgeTest() : path_(dir_.file("ne.sock")) {}

  std::shared_ptr<DaemonBridge> makeBridge(std::string path) {
    DaemonBridge::Options options;
    options.policySink = policy_.sink();
    return DaemonBridge::create(env_, std::move(path), std::move(options));
  }
  DaemonBridge& bridge() {
    if (!bridge_) bridge_ = makeBridge(path_);
    return *bridge_;
  }
  // Starts a daemon at path_, has the bridge adopt the path and the daemon accept.
  TestDaemon& connectToDaemon() {
    daemon_ = std::make_unique<TestDaemon>(path_);
    bridge().adoptPath(path_, true);
    env_->runUntilIdle();
    EXPECT_TRUE(daemon_->accept());
    return *daemon_;
  }
  void send(Json event) {
    bridge().send(std::move(event));
    env_->runUntilIdle();
  }
  static Json alive(std::int64_t ts) { return {{"kind", "proxyext.alive"}, {"ts", ts}}; }

  std::size_t logged(const std::string& message) { return logs_->count(message); }
  std::string connectFailedLine() const {
    return "bridge: connect(" + path_ +
           ") failed errno=2 — is the daemon's ne.sock bound + readable by this (root) sysext?";
  }
  std::string droppedLine() const {
    return "bridge: send dropped — stream not open (scheduling reconnect to " + path_ + ")";
  }
  std::string writeFailedLine() const {
    return "bridge: write failed (n=-1) to " + path_ +
           " — peer likely gone (daemon restart); reconnecting";
  }
  std::string connectedLine() const { return "bridge: connected to " + path_; }

  ScopedLogCapture logs_;
  std::shared_ptr<SimulatedRuntime> env_ = SimulatedRuntime::create();
  TempSocketDir dir_;
  std::string path_;
  RecordedPolicy policy_;
  std::unique_ptr<TestDaemon> daemon_;
  std::shared_ptr<DaemonBridge> bridge_;
};

}  // namespace tarnwick::testing

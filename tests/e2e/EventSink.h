#pragma once
// The daemon's end of the event socket, kept by the test: it accepts the interceptor's
// connections, cuts the bytes into lines and keeps every line that parses as a JSON object.
// It can go away and come back on the same path, as a restarting daemon does.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tarnwick::e2e {

class EventSink {
 public:
  explicit EventSink(std::string path);
  ~EventSink();
  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;

  bool start(std::string& error);
  // Closes the listener and every connection and removes the socket file.
  void stop();

  const std::string& path() const { return path_; }
  std::vector<nlohmann::json> events() const;
  std::vector<nlohmann::json> eventsOfKind(const std::string& kind) const;
  // The first event of `kind` that satisfies `match`, waiting up to `limit` for it.
  std::optional<nlohmann::json> waitFor(
      const std::string& kind, std::chrono::milliseconds limit = std::chrono::seconds(5),
      const std::function<bool(const nlohmann::json&)>& match = nullptr) const;
  // Waits until `count` events of `kind` have arrived.
  bool waitForCount(const std::string& kind, std::size_t count,
                    std::chrono::milliseconds limit = std::chrono::seconds(5)) const;

 private:
  void acceptLoop();
  void readLoop(int fd);
  void keep(const std::string& line);

  const std::string path_;
  int listen_fd_ = -1;
  int wake_read_ = -1;
  int wake_write_ = -1;
  std::thread acceptor_;
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::set<int> open_;
  std::vector<std::thread> readers_;
  std::vector<nlohmann::json> events_;
};

}  // namespace tarnwick::e2e

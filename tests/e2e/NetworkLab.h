#pragma once
// Two private network namespaces joined by a veth pair: the agent host, where the interceptor,
// the front door and the watched programs run, and the world host, where the servers live.
// Addresses come from the benchmarking ranges (198.18.0.0/15 and 2001:db8::/32), names carry the
// test's PID, and both namespaces go when the lab does.

#include <functional>
#include <memory>
#include <string>

namespace tarnwick::e2e {

class NetworkLab {
 public:
  static constexpr const char* kAgentIPv4 = "198.18.0.1";
  static constexpr const char* kWorldIPv4 = "198.18.0.2";
  static constexpr const char* kAgentIPv6 = "2001:db8:18::1";
  static constexpr const char* kWorldIPv6 = "2001:db8:18::2";

  // Absent when a step failed (`error` holds the command and its output); nothing is left behind.
  static std::unique_ptr<NetworkLab> create(std::string& error);
  ~NetworkLab();
  NetworkLab(const NetworkLab&) = delete;
  NetworkLab& operator=(const NetworkLab&) = delete;

  const std::string& agent() const { return agent_; }
  const std::string& world() const { return world_; }
  // A private directory for the test's files (sockets, options, logs), removed with the lab.
  const std::string& directory() const { return directory_; }

  // Runs `work` on a thread that has entered `netns`; sockets it makes belong to that namespace.
  static void within(const std::string& netns, const std::function<void()>& work);

 private:
  NetworkLab(std::string agent, std::string world, std::string directory);
  bool build(std::string& error);

  std::string agent_;
  std::string world_;
  std::string directory_;
};

}  // namespace tarnwick::e2e

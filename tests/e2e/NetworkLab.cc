#include "NetworkLab.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <sstream>
#include <thread>
#include <vector>

#include "ChildProcess.h"

namespace tarnwick::e2e {
namespace {

using Argv = std::vector<std::string>;

std::string uniqueSuffix() {
  static std::atomic<int> counter{0};
  return std::to_string(getpid()) + "-" + std::to_string(counter++);
}

bool runSteps(const std::vector<Argv>& steps, std::string& error) {
  for (const auto& step : steps) {
    const auto result = runCommand(step);
    if (result.status != 0) {
      error = step[0];
      for (std::size_t i = 1; i < step.size(); ++i) error += " " + step[i];
      error += ": " + result.output;
      return false;
    }
  }
  return true;
}

// The hardware address of a link: the third column of `ip -br link show`.
std::string linkAddress(const std::string& netns, const std::string& link) {
  std::istringstream columns(runCommand({"ip", "-n", netns, "-br", "link", "show", link}).output);
  std::string name, state, address;
  columns >> name >> state >> address;
  return address;
}

}  // namespace

std::unique_ptr<NetworkLab> NetworkLab::create(std::string& error) {
  const std::string suffix = uniqueSuffix();
  char pattern[] = "/tmp/tw-e2e.XXXXXX";
  if (!mkdtemp(pattern)) {
    error = "mkdtemp failed";
    return nullptr;
  }
  std::unique_ptr<NetworkLab> lab(
      new NetworkLab("tw-e2e-agent-" + suffix, "tw-e2e-world-" + suffix, pattern));
  if (!lab->build(error)) return nullptr;
  return lab;
}

NetworkLab::NetworkLab(std::string agent, std::string world, std::string directory)
    : agent_(std::move(agent)), world_(std::move(world)), directory_(std::move(directory)) {}

NetworkLab::~NetworkLab() {
  // Deleting a namespace removes its end of the veth pair, and with it the peer.
  runCommand({"ip", "netns", "del", agent_});
  runCommand({"ip", "netns", "del", world_});
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

bool NetworkLab::build(std::string& error) {
  const std::string agentLink = "twa" + std::to_string(getpid());
  const std::string worldLink = "tww" + std::to_string(getpid());
  const std::vector<Argv> steps = {
      {"ip", "netns", "add", agent_},
      {"ip", "netns", "add", world_},
      {"ip", "link", "add", agentLink, "netns", agent_, "type", "veth", "peer", "name", worldLink,
       "netns", world_},
      {"ip", "-n", agent_, "link", "set", "lo", "up"},
      {"ip", "-n", world_, "link", "set", "lo", "up"},
      {"ip", "-n", agent_, "addr", "add", std::string(kAgentIPv4) + "/30", "dev", agentLink},
      {"ip", "-n", world_, "addr", "add", std::string(kWorldIPv4) + "/30", "dev", worldLink},
      {"ip", "-n", agent_, "addr", "add", std::string(kAgentIPv6) + "/64", "dev", agentLink,
       "nodad"},
      {"ip", "-n", world_, "addr", "add", std::string(kWorldIPv6) + "/64", "dev", worldLink,
       "nodad"},
      {"ip", "-n", agent_, "link", "set", agentLink, "up"},
      {"ip", "-n", world_, "link", "set", worldLink, "up"},
  };
  if (!runSteps(steps, error)) return false;
  // Neighbour discovery on a link that has just come up loses the first IPv6 SYN, which then
  // waits a second for its retransmission; fixed neighbour entries take discovery out of play.
  const std::string agentMac = linkAddress(agent_, agentLink);
  const std::string worldMac = linkAddress(world_, worldLink);
  return runSteps({{"ip", "-n", agent_, "neigh", "replace", kWorldIPv6, "lladdr", worldMac, "dev",
                    agentLink, "nud", "permanent"},
                   {"ip", "-n", world_, "neigh", "replace", kAgentIPv6, "lladdr", agentMac, "dev",
                    worldLink, "nud", "permanent"}},
                  error);
}

void NetworkLab::within(const std::string& netns, const std::function<void()>& work) {
  std::thread entered([&] {
    const int fd = open(("/run/netns/" + netns).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) std::terminate();
    close(fd);
    work();
  });
  entered.join();
}

}  // namespace tarnwick::e2e

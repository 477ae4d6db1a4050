#pragma once
// What the kernel-selection tests run on the real kernel: copies of the probe program that the
// tests watch or leave alone, each run with pipes for its stdin and stdout, and sockets that
// wait only a short while.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/posix/SocketAddress.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

inline constexpr int kWaitMs = 3000;

// Polls `done` every millisecond until it holds, for up to kWaitMs.
inline bool eventually(const std::function<bool()>& done) {
  for (int waited = 0; !done() && waited < kWaitMs; ++waited) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return done();
}

inline bool readable(int fd, int timeoutMs) {
  pollfd ready{fd, POLLIN, 0};
  return ::poll(&ready, 1, timeoutMs) == 1;
}

// The next connection waiting on `listener`, with its peer's address; invalid after kWaitMs.
struct Accepted {
  UniqueFd fd;
  SocketAddress peer;
};
inline Accepted acceptWithin(int listener, int timeoutMs = kWaitMs) {
  Accepted accepted;
  accepted.peer.length = sizeof accepted.peer.storage;
  if (readable(listener, timeoutMs)) {
    accepted.fd.reset(::accept4(listener, reinterpret_cast<sockaddr*>(&accepted.peer.storage),
                                &accepted.peer.length, SOCK_CLOEXEC));
  }
  return accepted;
}

inline std::string receiveWithin(int fd, std::size_t size) {
  std::string bytes;
  char chunk[256];
  while (bytes.size() < size && readable(fd, kWaitMs)) {
    const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
    if (got <= 0) break;
    bytes.append(chunk, static_cast<std::size_t>(got));
  }
  return bytes;
}

// A probe process started from the calling thread (so in its network namespace). Killed and
// reaped when it goes.
class Probe {
 public:
  Probe(const std::string& program, std::vector<std::string> args) {
    int input[2], output[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    args.insert(args.begin(), program);
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    if (::posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
      pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    ::close(output[1]);
    input_.reset(input[1]);
    output_.reset(output[0]);
  }
  ~Probe() {
    if (pid_ > 0 && !reaped_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;

  pid_t pid() const { return pid_; }

  // What follows `prefix` in the next report that starts with it (after the PID), from any
  // process of the probe; absent after kWaitMs. `from` gets the reporting PID.
  std::optional<std::string> expect(const std::string& prefix, pid_t* from = nullptr) {
    for (std::string line; readLine(line);) {
      const std::size_t blank = line.find(' ');
      if (blank == std::string::npos || line.compare(blank + 1, prefix.size(), prefix) != 0) {
        continue;
      }
      if (from) *from = static_cast<pid_t>(std::atoi(line.c_str()));
      return line.substr(blank + 1 + prefix.size());
    }
    return std::nullopt;
  }
  void sendLine() { [[maybe_unused]] auto n = ::write(input_.get(), "\n", 1); }
  void endInput() { input_.reset(); }
  // True once the probe has ended (within kWaitMs).
  bool waitForExit() {
    eventually([&] { return reaped_ = reaped_ || ::waitpid(pid_, nullptr, WNOHANG) == pid_; });
    return reaped_;
  }

 private:
  bool readLine(std::string& line) {
    line.clear();
    for (char c; readable(output_.get(), kWaitMs) && ::read(output_.get(), &c, 1) == 1;) {
      if (c == '\n') return true;
      line += c;
    }
    return false;
  }

  pid_t pid_ = -1;
  bool reaped_ = false;
  UniqueFd input_;
  UniqueFd output_;
};

}  // namespace tarnwick::host

#pragma once
// A program started by a test, optionally inside a named network namespace and optionally under a
// chosen PID. Its standard output and error go to a file the test reads; it is killed and reaped
// when the object goes, so a failing test leaves nothing running.

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tarnwick::e2e {

struct SpawnOptions {
  std::vector<std::string> argv;  // argv[0] is looked up on PATH
  std::string netns;              // a name under /run/netns; empty keeps the caller's namespace
  std::string outputPath;         // standard output and error; empty discards them
  bool stdinPipe = false;         // keep a pipe to the program's standard input
  pid_t fixedPid = 0;             // start under this PID (it must be free)
};

class ChildProcess {
 public:
  // Absent when the process could not be started; `error` says why.
  static std::unique_ptr<ChildProcess> spawn(const SpawnOptions& options, std::string& error);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number);
  // The exit status (128 + signal for a killed process), or absent if it is still running when
  // the time is up.
  std::optional<int> waitFor(std::chrono::milliseconds limit);
  bool writeStdin(const std::string& text);
  void closeStdin();
  std::string output() const;
  const std::string& outputPath() const { return output_path_; }

 private:
  ChildProcess(pid_t pid, int stdinFd, std::string outputPath);

  pid_t pid_;
  int stdin_fd_;
  std::string output_path_;
  std::optional<int> status_;
};

struct CommandResult {
  int status = -1;
  std::string output;
};

// Runs a command to its end (killed after `limit`), inside `netns` when given.
CommandResult runCommand(const std::vector<std::string>& argv, const std::string& netns = {},
                         std::chrono::milliseconds limit = std::chrono::seconds(10));

// Polls `ready` every 20 ms until it holds or `limit` passes.
template <typename Predicate>
bool eventually(Predicate ready, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!ready()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace tarnwick::e2e

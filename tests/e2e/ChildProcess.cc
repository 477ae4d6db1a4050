#include "ChildProcess.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace tarnwick::e2e {
namespace {

// Everything the child needs is prepared before the fork: between fork and exec only
// async-signal-safe calls are allowed in a threaded program.
struct Prepared {
  std::vector<char*> argv;
  int netnsFd = -1;
  int outputFd = -1;
  int stdinRead = -1;
  int stdinWrite = -1;
};

void closeIfOpen(int fd) {
  if (fd >= 0) close(fd);
}

bool prepare(const SpawnOptions& options, Prepared& prepared, std::string& error) {
  for (const auto& arg : options.argv) prepared.argv.push_back(const_cast<char*>(arg.c_str()));
  prepared.argv.push_back(nullptr);
  if (!options.netns.empty()) {
    const std::string path = "/run/netns/" + options.netns;
    prepared.netnsFd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (prepared.netnsFd < 0) {
      error = "cannot open " + path + ": " + std::strerror(errno);
      return false;
    }
  }
  const char* output = options.outputPath.empty() ? "/dev/null" : options.outputPath.c_str();
  prepared.outputFd = open(output, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (prepared.outputFd < 0) {
    error = std::string("cannot open ") + output + ": " + std::strerror(errno);
    return false;
  }
  int fds[2] = {-1, -1};
  if (options.stdinPipe && pipe2(fds, O_CLOEXEC) != 0) {
    error = std::string("pipe: ") + std::strerror(errno);
    return false;
  }
  prepared.stdinRead = fds[0];
  prepared.stdinWrite = fds[1];
  return true;
}

void release(Prepared& prepared, bool keepStdinWrite) {
  closeIfOpen(prepared.netnsFd);
  closeIfOpen(prepared.outputFd);
  closeIfOpen(prepared.stdinRead);
  if (!keepStdinWrite) closeIfOpen(prepared.stdinWrite);
}

[[noreturn]] void becomeChild(const Prepared& prepared) {
  if (prepared.netnsFd >= 0 && setns(prepared.netnsFd, CLONE_NEWNET) != 0) _exit(126);
  const int input = prepared.stdinRead >= 0 ? prepared.stdinRead : open("/dev/null", O_RDONLY);
  if (input < 0 || dup2(input, STDIN_FILENO) < 0) _exit(126);
  if (dup2(prepared.outputFd, STDOUT_FILENO) < 0 || dup2(prepared.outputFd, STDERR_FILENO) < 0)
    _exit(126);
  // A fresh process group, so that killing the test's children never reaches the test runner.
  setpgid(0, 0);
  execvp(prepared.argv[0], prepared.argv.data());
  _exit(127);
}

// fork(), or clone3 with set_tid when the test needs a particular PID (for PID reuse).
pid_t forkProcess(pid_t fixedPid) {
  if (fixedPid == 0) return fork();
  pid_t wanted = fixedPid;
  clone_args args{};
  args.exit_signal = SIGCHLD;
  args.set_tid = reinterpret_cast<std::uintptr_t>(&wanted);
  args.set_tid_size = 1;
  return static_cast<pid_t>(syscall(SYS_clone3, &args, sizeof args));
}

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::spawn(const SpawnOptions& options, std::string& error) {
  Prepared prepared;
  if (options.argv.empty()) {
    error = "nothing to run";
    return nullptr;
  }
  if (!prepare(options, prepared, error)) {
    release(prepared, false);
    return nullptr;
  }
  const pid_t pid = forkProcess(options.fixedPid);
  if (pid == 0) becomeChild(prepared);
  if (pid < 0) {
    error = std::string("fork: ") + std::strerror(errno);
    release(prepared, false);
    return nullptr;
  }
  const int stdinWrite = prepared.stdinWrite;
  release(prepared, true);
  return std::unique_ptr<ChildProcess>(new ChildProcess(pid, stdinWrite, options.outputPath));
}

ChildProcess::ChildProcess(pid_t pid, int stdinFd, std::string outputPath)
    : pid_(pid), stdin_fd_(stdinFd), output_path_(std::move(outputPath)) {}

ChildProcess::~ChildProcess() {
  closeStdin();
  if (!status_) {
    kill(pid_, SIGKILL);
    waitFor(std::chrono::seconds(5));
  }
}

void ChildProcess::signal(int number) {
  if (!status_) kill(pid_, number);
}

std::optional<int> ChildProcess::waitFor(std::chrono::milliseconds limit) {
  if (status_) return status_;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return status_;
    }
    if (done < 0 || std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool ChildProcess::writeStdin(const std::string& text) {
  return stdin_fd_ >= 0 &&
         write(stdin_fd_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void ChildProcess::closeStdin() {
  closeIfOpen(stdin_fd_);
  stdin_fd_ = -1;
}

std::string ChildProcess::output() const {
  std::ifstream file(output_path_);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

CommandResult runCommand(const std::vector<std::string>& argv, const std::string& netns,
                         std::chrono::milliseconds limit) {
  char path[] = "/tmp/tw-e2e-command.XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return {-1, "mkstemp failed"};
  close(fd);
  CommandResult result;
  std::string error;
  auto child = ChildProcess::spawn({argv, netns, path}, error);
  if (!child) {
    result.output = error;
  } else {
    result.status = child->waitFor(limit).value_or(-1);
    result.output = child->output();
  }
  unlink(path);
  return result;
}

}  // namespace tarnwick::e2e

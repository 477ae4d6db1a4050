#pragma once
// Helpers shared by the identity tests: parameter names and real child processes.

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

extern char** environ;

namespace tarnwick {

struct CaseName {
  template <typename Param>
  std::string operator()(const ::testing::TestParamInfo<Param>& param) const {
    return param.param.name;
  }
};

// A child process running `path` with `args`, killed and reaped when the object goes. glibc's
// posix_spawn returns only once the child has executed `path`, so its /proc entries already
// describe the new program.
class SpawnedProcess {
 public:
  explicit SpawnedProcess(const std::string& path, std::vector<std::string> args = {"30"}) {
    std::vector<std::string> storage{path};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& arg : storage) argv.push_back(arg.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, path.c_str(), nullptr, nullptr, argv.data(), environ) != 0) pid_ = 0;
  }
  ~SpawnedProcess() { reap(); }
  SpawnedProcess(const SpawnedProcess&) = delete;
  SpawnedProcess& operator=(const SpawnedProcess&) = delete;

  std::int64_t pid() const { return pid_; }

  // Kills the child and waits until it is gone from the process table.
  void reap() {
    if (reaped_ || pid_ <= 0) return;
    reaped_ = true;
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }

 private:
  pid_t pid_ = 0;
  bool reaped_ = false;
};

// A fresh directory under the system's temporary directory, removed with its contents.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "identity-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace tarnwick

// The run and watch commands' arguments and start-up failures: one line on stderr and exit
// status 2 for what cannot start, 1 for a watch that got no good reply.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace tarnwick::host {
namespace {

struct Outcome {
  int status = -1;
  std::string stderrText;
};

Outcome runCommand(const std::string& args) {
  const std::string errPath = ::testing::TempDir() + "cmd-" + std::to_string(::getpid()) + ".err";
  const std::string command =
      std::string(TARNWICK_PROXYEXT_BINARY) + " " + args + " >/dev/null 2>" + errPath;
  const int status = std::system(command.c_str());
  std::ifstream file(errPath);
  Outcome outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                  std::string(std::istreambuf_iterator<char>(file), {})};
  ::unlink(errPath.c_str());
  return outcome;
}

struct CommandCase {
  const char* name;
  std::string args;
  int status;
};

class CommandsTest : public ::testing::TestWithParam<CommandCase> {};

TEST_P(CommandsTest, ExitsWithTheStatusAndAtMostOneLine) {
  const Outcome outcome = runCommand(GetParam().args);
  EXPECT_EQ(outcome.status, GetParam().status) << outcome.stderrText;
  EXPECT_LE(std::count(outcome.stderrText.begin(), outcome.stderrText.end(), '\n'), 1)
      << outcome.stderrText;
  EXPECT_EQ(outcome.stderrText.empty(), outcome.status == 0) << outcome.stderrText;
}

const std::string kMissing = "/nonexistent/tarnwick-options.json";

INSTANTIATE_TEST_SUITE_P(
    Arguments, CommandsTest,
    ::testing::Values(CommandCase{"RunHelp", "run --help", 0},
                      CommandCase{"RunWithoutOptions", "run", 2},
                      CommandCase{"RunUnknownOption", "run --options x --listen 1", 2},
                      CommandCase{"RunPortZero", "run --options x --listen-port 0", 2},
                      CommandCase{"RunPortTooLarge", "run --options x --listen-port=65536", 2},
                      CommandCase{"RunMarkZero", "run --options x --mark 0", 2},
                      CommandCase{"RunMarkNotANumber", "run --options x --mark 0xzz", 2},
                      CommandCase{"RunTableWithBlank", "run --options x --table 'a b'", 2},
                      CommandCase{"RunOptionWithoutValue", "run --options", 2},
                      CommandCase{"RunUnreadableOptions", "run --options " + kMissing, 2},
                      CommandCase{"WatchHelp", "watch --help", 0},
                      CommandCase{"WatchPidNotANumber", "watch --pid abc", 2},
                      CommandCase{"WatchUnknownOption", "watch --signing /bin/sh", 2},
                      CommandCase{"WatchWithoutHost",
                                  "watch --control-socket /nonexistent/sock --pid 1", 1}),
    [](const auto& param) { return std::string(param.param.name); });

// Root reaches the options file; anyone else is stopped earlier, in one line as well.
TEST(CommandsFileTest, AMalformedOptionsFileIsNamedInOneLine) {
  const std::string path = ::testing::TempDir() + "bad-options-" + std::to_string(::getpid());
  std::ofstream(path) << R"({"frontDoorPort": 8443,})";
  const Outcome outcome = runCommand("run --options " + path + " --control-socket " + path +
                                     ".sock --table twhost_never");
  ::unlink(path.c_str());
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(std::count(outcome.stderrText.begin(), outcome.stderrText.end(), '\n'), 1);
  if (::geteuid() == 0) {
    EXPECT_NE(outcome.stderrText.find(path), std::string::npos);
  }
  EXPECT_NE(::access((path + ".sock").c_str(), F_OK), 0);
}

}  // namespace
}  // namespace tarnwick::host

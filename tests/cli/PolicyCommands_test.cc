#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cli/Command.h"

namespace tarnwick::cli {

// The executable's main.cc owns the registry; these tests hold only the two subcommands.
std::vector<Command>& commandRegistry() {
  static std::vector<Command> commands;
  return commands;
}

namespace {

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

Outcome run(const std::string& name, const std::vector<std::string>& args) {
  for (const auto& command : commandRegistry()) {
    if (command.name != name) continue;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const int status = command.run(args);
    std::string out = ::testing::internal::GetCapturedStdout();
    return {status, std::move(out), ::testing::internal::GetCapturedStderr()};
  }
  ADD_FAILURE() << "no command " << name;
  return {-1, "", ""};
}

std::string hello(const std::string& name) {
  return (std::filesystem::path(TARNWICK_HELLO_DIR) / (name + ".bin")).string();
}

struct CommandCase {
  const char* name;
  const char* command;
  std::vector<std::string> args;
  int status;
  const char* out;  // exact standard output; nullptr: anything
  bool errorLine;   // something on standard error
};

struct CaseName {
  template <typename Param>
  std::string operator()(const ::testing::TestParamInfo<Param>& param) const {
    return param.param.name;
  }
};

class CommandTest : public ::testing::TestWithParam<CommandCase> {};

TEST_P(CommandTest, Runs) {
  const auto& c = GetParam();
  const Outcome outcome = run(c.command, c.args);
  EXPECT_EQ(outcome.status, c.status) << outcome.err;
  if (c.out != nullptr) {
    EXPECT_EQ(outcome.out, c.out);
  }
  EXPECT_EQ(!outcome.err.empty(), c.errorLine) << outcome.err;
}

// CTest runs each case in a process of its own, several at once: each writes its own files, and
// removes them when it exits.
struct ProcessFile {
  ProcessFile(const std::string& name, const std::string& content)
      : path(std::filesystem::path(::testing::TempDir()) /
             (std::to_string(::getpid()) + "-" + name)) {
    std::ofstream(path) << content;
  }
  ~ProcessFile() { std::filesystem::remove(path); }
  std::filesystem::path path;
};

const ProcessFile kPolicyFile("cli-policy.json",
                              R"({"kind":"policy.push","version":1,"deny":["evil.net"],
      "agents":{"/usr/bin/agent":{"mode":"enforce","restrict":"allow","allow":["*.ok.net"]}},
      "pids":{"42":{"mode":"monitor","restrict":"deny","deny":["x.net"]}}})");
const std::string kPolicy = kPolicyFile.path.string();

const ProcessFile kNotObjectFile("cli-array.json", "[1,2]");
const std::string kNotObject = kNotObjectFile.path.string();

INSTANTIATE_TEST_SUITE_P(
    Commands, CommandTest,
    ::testing::Values(
        CommandCase{"SniOfRealHello",
                    "sni",
                    {hello("curl")},
                    0,
                    "{\"serverName\":\"www.example.org\",\"alpn\":[\"h2\",\"http/1.1\"]}\n",
                    false},
        CommandCase{
            "SniOfNonHello", "sni", {kNotObject}, 0, "{\"serverName\":null,\"alpn\":[]}\n", false},
        CommandCase{"SniMissingFile", "sni", {"/nonexistent/hello.bin"}, 2, "", true},
        CommandCase{"SniUnknownOption", "sni", {"--verbose"}, 2, "", true},
        CommandCase{"SniHelp", "sni", {"--help"}, 0, nullptr, false},
        CommandCase{"DecideAllowListed",
                    "policy-decide",
                    {"--policy", kPolicy, "--pid", "7", "--signing-id", "/usr/bin/agent", "--sni",
                     "a.ok.net"},
                    0,
                    "allow\n",
                    false},
        CommandCase{
            "DecideDropped",
            "policy-decide",
            {"--policy=" + kPolicy, "--pid=7", "--signing-id=/usr/bin/agent", "--sni=other.net"},
            0,
            "drop\n",
            false},
        CommandCase{"DecideWouldBlockByPid",
                    "policy-decide",
                    {"--policy", kPolicy, "--pid", "42", "--sni", "x.net"},
                    0,
                    "wouldBlock\n",
                    false},
        CommandCase{"DecideNotAnObject",
                    "policy-decide",
                    {"--policy", kNotObject, "--pid", "1", "--sni", "a"},
                    2,
                    "",
                    true},
        CommandCase{
            "DecideMissingSni", "policy-decide", {"--policy", kPolicy, "--pid", "1"}, 2, "", true},
        CommandCase{"DecideBadPid",
                    "policy-decide",
                    {"--policy", kPolicy, "--pid", "4294967296", "--sni", "a"},
                    2,
                    "",
                    true},
        CommandCase{"DecideUnknownOption",
                    "policy-decide",
                    {"--policy", kPolicy, "--pid", "1", "--sni", "a", "--verbose"},
                    2,
                    "",
                    true}),
    CaseName());

}  // namespace
}  // namespace tarnwick::cli

// The sni and policy-decide subcommands, run in-process through their registrations.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "cli/Command.h"
#include "platform/testing/CaseName.h"

namespace tarnwick::cli {

// The executable's main.cc owns the registry; these tests hold only the two subcommands.
std::vector<Command>& commandRegistry() {
  static std::vector<Command> commands;
  return commands;
}

namespace {

struct Case {
  const char* name;
  const char* line;  // the command and its arguments; $P is a policy file, $H a ClientHello
  int status;
  const char* out;  // exact standard output
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.line; }

class CommandTest : public ::testing::TestWithParam<Case> {};

// Standard error carries exactly the failures. CTest runs cases in parallel processes, so the
// policy file is per process.
TEST_P(CommandTest, Runs) {
  const std::string policy = ::testing::TempDir() + std::to_string(::getpid()) + "-policy.json";
  std::vector<std::string> args;
  std::istringstream words(GetParam().line);
  for (std::string word; words >> word;)
    args.push_back(word == "$P" ? policy : word == "$H" ? TARNWICK_HELLO_DIR "/curl.bin" : word);
  const auto command = std::ranges::find(commandRegistry(), args[0], &Command::name);
  ASSERT_NE(command, commandRegistry().end()) << args[0];
  std::ofstream(policy) << R"({"kind":"policy.push","version":1,"deny":["evil.net"],
    "agents":{"/bin/a":{"mode":"enforce","restrict":"allow","allow":["*.ok.net"]}},
    "pids":{"42":{"mode":"monitor","restrict":"deny","deny":["x.net"]}}})";
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(command->run({args.begin() + 1, args.end()}), GetParam().status);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), GetParam().out);
  EXPECT_EQ(::testing::internal::GetCapturedStderr().empty(), GetParam().status == 0);
  ::unlink(policy.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Commands, CommandTest,
    ::testing::Values(
        Case{"SniOfRealHello", "sni $H", 0,
             "{\"serverName\":\"www.example.org\",\"alpn\":[\"h2\",\"http/1.1\"]}\n"},
        Case{"SniOfNonHello", "sni $P", 0, "{\"serverName\":null,\"alpn\":[]}\n"},
        Case{"SniMissingFile", "sni /nonexistent/hello.bin", 2, ""},
        Case{"SniUnknownOption", "sni --verbose", 2, ""},
        Case{"DecideAllowListed",
             "policy-decide --policy $P --pid 7 --signing-id /bin/a --sni a.ok.net", 0, "allow\n"},
        Case{"DecideDropped", "policy-decide --policy $P --pid=7 --signing-id=/bin/a --sni=b.net",
             0, "drop\n"},
        Case{"DecideWouldBlockByPid", "policy-decide --policy $P --pid 42 --sni x.net", 0,
             "wouldBlock\n"},
        Case{"DecideUnreadablePolicy", "policy-decide --policy $H --pid 1 --sni a", 2, ""},
        Case{"DecideMissingSni", "policy-decide --policy $P --pid 1", 2, ""},
        Case{"DecideBadPid", "policy-decide --policy $P --pid 4294967296 --sni a", 2, ""},
        Case{"DecideUnknownOption", "policy-decide --policy $P --pid 1 --sni a -v", 2, ""}),
    CaseName());

}  // namespace
}  // namespace tarnwick::cli

// The scaffold both companions run in: what each command line and each start comes to, and a
// stop signal ending the foreground server however early it comes.

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>

#include "CompanionMain.h"
#include "platform/testing/CaseName.h"

namespace tarnwick::companion {
namespace {

struct FakeConfig {
  bool loud = false;
};

std::variant<CommandLine<FakeConfig>, UsageError> parseFake(
    std::span<const std::string_view> args) {
  CommandLine<FakeConfig> line;
  const Option options[] = {{.name = "--loud", .flag = true, .apply = [&](std::string_view) {
                               line.config.loud = true;
                               return std::optional<std::string>();
                             }}};
  if (auto error = applyOptions(args, options, line.help)) return *error;
  return line;
}

// Serves until stopped; raises SIGTERM itself when told, as an operator would.
class FakeServer : public ForegroundServer {
 public:
  explicit FakeServer(bool raiseWhileRunning) : raise_while_running_(raiseWhileRunning) {}
  void run() override {
    if (raise_while_running_) std::raise(SIGTERM);
    ran_ = stopped_.load();
  }
  void stop() override { stopped_.store(true); }
  static inline bool ran_ = false;  // whether run() found itself stopped

 private:
  const bool raise_while_running_;
  std::atomic<bool> stopped_{false};
};

enum class Start { Fails, FailsAsMisuse, RaisesWhileStarting, RaisesWhileRunning };

struct CompanionCase {
  const char* name;
  std::vector<const char*> args;
  Start start;
  int status;
  std::string stderrText;
  std::string stdoutText = "";
};

void PrintTo(const CompanionCase& c, std::ostream* out) { *out << c.name; }

class CompanionTest : public ::testing::TestWithParam<CompanionCase> {};

TEST_P(CompanionTest, EndsWithTheStatusItsCommandLineAndStartCallFor) {
  const CompanionCase& param = GetParam();
  const Companion<FakeConfig> fake{
      "fake", "usage: fake [--loud]\n", parseFake,
      [&](const FakeConfig&, StartFailure& failure) -> std::unique_ptr<ForegroundServer> {
        switch (param.start) {
          case Start::Fails:
            failure.message = "cannot bind";
            return nullptr;
          case Start::FailsAsMisuse:
            failure = {"cannot read policy.json", 2};
            return nullptr;
          case Start::RaisesWhileStarting:
            std::raise(SIGTERM);
            return std::make_unique<FakeServer>(false);
          case Start::RaisesWhileRunning:
            return std::make_unique<FakeServer>(true);
        }
        return nullptr;
      }};
  std::vector<char*> argv = {const_cast<char*>("fake")};
  for (const char* arg : param.args) argv.push_back(const_cast<char*>(arg));
  FakeServer::ran_ = false;
  ::testing::internal::CaptureStderr();
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(runCompanion(fake, static_cast<int>(argv.size()), argv.data()), param.status);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), param.stdoutText);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), param.stderrText);
  const bool served = param.status == 0 && param.args.empty();
  EXPECT_EQ(FakeServer::ran_, served) << "a stop signal ends a server that runs";
  struct sigaction after {};
  ::sigaction(SIGTERM, nullptr, &after);
  EXPECT_EQ(after.sa_handler, SIG_DFL) << "the companion lets go of the signals once it ends";
}

INSTANTIATE_TEST_SUITE_P(
    Scaffold, CompanionTest,
    ::testing::Values(
        CompanionCase{"UnknownOption",
                      {"--quiet"},
                      Start::Fails,
                      2,
                      "fake: unknown option '--quiet'\nusage: fake [--loud]\n"},
        CompanionCase{"Help", {"--loud", "-h"}, Start::Fails, 0, "", "usage: fake [--loud]\n"},
        CompanionCase{"StartFails", {}, Start::Fails, 1, "fake: cannot bind\n"},
        CompanionCase{
            "StartFailsAsMisuse", {}, Start::FailsAsMisuse, 2, "fake: cannot read policy.json\n"},
        CompanionCase{"SignalWhileStarting", {}, Start::RaisesWhileStarting, 0, ""},
        CompanionCase{"SignalWhileRunning", {}, Start::RaisesWhileRunning, 0, ""}),
    CaseName{});

}  // namespace
}  // namespace tarnwick::companion

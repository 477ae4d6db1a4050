#include "CommandLine.h"

#include <gtest/gtest.h>

#include "FrontDoorHarness.h"

namespace tarnwick::frontdoor {
namespace {

struct ArgsCase {
  std::string name;
  std::vector<std::string_view> args;
  std::optional<FrontDoorConfig> expected;  // absent: a usage error
  bool help = false;
};

FrontDoorConfig configured(HostPort listen, FrontDoorMode mode, double delay = 3.0) {
  FrontDoorConfig config;
  config.listen = std::move(listen);
  config.mode = mode;
  config.ackDelaySeconds = delay;
  return config;
}

class CommandLineTest : public ::testing::TestWithParam<ArgsCase> {};

TEST_P(CommandLineTest, ReadsOptionsOrExplainsTheMistake) {
  const auto parsed = parseCommandLine(GetParam().args);
  if (!GetParam().expected) {
    ASSERT_TRUE(std::holds_alternative<UsageError>(parsed));
    EXPECT_FALSE(std::get<UsageError>(parsed).message.empty());
    return;
  }
  ASSERT_TRUE(std::holds_alternative<CommandLine>(parsed)) << std::get<UsageError>(parsed).message;
  const auto& line = std::get<CommandLine>(parsed);
  EXPECT_EQ(line.config.listen, GetParam().expected->listen);
  EXPECT_EQ(line.config.mode, GetParam().expected->mode);
  EXPECT_DOUBLE_EQ(line.config.ackDelaySeconds, GetParam().expected->ackDelaySeconds);
  EXPECT_EQ(line.help, GetParam().help);
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, CommandLineTest,
    ::testing::Values(
        ArgsCase{"Defaults", {}, configured({"127.0.0.1", 8443}, FrontDoorMode::Normal)},
        ArgsCase{"AllOptions",
                 {"--listen", "[::1]:0", "--mode", "slow-ack", "--delay", "0.25"},
                 configured({"::1", 0}, FrontDoorMode::SlowAck, 0.25)},
        ArgsCase{"EqualsForm",
                 {"--mode=ack-then-silence", "--listen=localhost:9000"},
                 configured({"localhost", 9000}, FrontDoorMode::AckThenSilence)},
        ArgsCase{"Help", {"--help"}, configured({"127.0.0.1", 8443}, FrontDoorMode::Normal), true},
        ArgsCase{"UnknownOption", {"--port", "1"}, std::nullopt},
        ArgsCase{"MissingValue", {"--mode"}, std::nullopt},
        ArgsCase{"UnknownMode", {"--mode", "flaky"}, std::nullopt},
        ArgsCase{"ListenWithoutPort", {"--listen", "127.0.0.1"}, std::nullopt},
        ArgsCase{"NegativeDelay", {"--delay", "-1"}, std::nullopt},
        ArgsCase{"TextDelay", {"--delay", "soon"}, std::nullopt},
        ArgsCase{"NanDelay", {"--delay", "nan"}, std::nullopt},
        ArgsCase{"HugeDelay", {"--delay", "1e9"}, std::nullopt}),
    CaseName{});

TEST(FrontDoorModeTest, EveryModeNameReadsBack) {
  for (const auto mode :
       {FrontDoorMode::Normal, FrontDoorMode::Refuse, FrontDoorMode::Silent, FrontDoorMode::Reject,
        FrontDoorMode::AckThenClose, FrontDoorMode::AckThenSilence, FrontDoorMode::SlowAck,
        FrontDoorMode::Garbage}) {
    EXPECT_EQ(modeFromName(modeName(mode)), mode) << modeName(mode);
  }
}

}  // namespace
}  // namespace tarnwick::frontdoor

#include "platform/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/testing/CaptureLogSink.h"

namespace tarnwick {
namespace {

using ::testing::ElementsAre;

struct RenderCase {
  const char* name;
  const char* format;
  std::vector<LogArg> args;
  const char* expected;
};

class RenderLogFormatTest : public ::testing::TestWithParam<RenderCase> {};

TEST_P(RenderLogFormatTest, RendersAsTheUnifiedLogShowsIt) {
  EXPECT_EQ(renderLogFormat(GetParam().format, GetParam().args), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, RenderLogFormatTest,
    ::testing::Values(
        RenderCase{"PublicText", "dial %{public}s", {"example.com"}, "dial example.com"},
        RenderCase{"PlainTextIsRedacted", "path %s", {"/home/me"}, "path <private>"},
        RenderCase{"BoolTrue", "connected=%{bool}d", {1}, "connected=true"},
        RenderCase{"BoolFalse", "connected=%{bool}d", {0}, "connected=false"},
        RenderCase{
            "Long", "ts %ld", {std::int64_t{-1767225600123456789}}, "ts -1767225600123456789"},
        RenderCase{"Int", "pid %d", {4242}, "pid 4242"},
        RenderCase{"UnsignedShort", "port %hu", {443}, "port 443"},
        RenderCase{"UnsignedShortWraps", "port %hu", {70000}, "port 4464"},
        RenderCase{"Double", "budget %f", {2.5}, "budget 2.500000"},
        RenderCase{"IntegerAsDouble", "budget %f", {3}, "budget 3.000000"},
        RenderCase{"Percent", "100%% done", {}, "100% done"},
        RenderCase{"DashesAndArrows",
                   "relay %{public}s:%{public}s — front door lost → direct",
                   {"example.com", "443"},
                   "relay example.com:443 — front door lost → direct"},
        RenderCase{"MissingArgument", "%{public}s and %d", {"one"}, "one and <missing>"},
        RenderCase{"NumberForText", "host %{public}s", {7}, "host <non-text>"},
        RenderCase{"TrailingPercent", "rate 5%", {}, "rate 5%"}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(LoggerTest, CaptureSinkKeepsRecordsUntilItsScopeEnds) {
  const Logger logger("dev.example.sub", "cat");
  {
    ScopedLogCapture capture;
    logger.error("dial to %{public}s failed — %s", "example.com", "secret");
    logger.info("ready=%{bool}d", 1);
    const auto records = capture->records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].level, LogLevel::Error);
    EXPECT_EQ(records[0].subsystem, "dev.example.sub");
    EXPECT_EQ(records[0].category, "cat");
    EXPECT_EQ(records[1].level, LogLevel::Info);
    EXPECT_THAT(capture->messages(),
                ElementsAre("dial to example.com failed — <private>", "ready=true"));
    {
      ScopedLogCapture inner;
      logger.info("inner");
      EXPECT_EQ(inner->count("inner"), 1u);
    }
    logger.info("outer again");
    EXPECT_EQ(capture->count("outer again"), 1u);
    EXPECT_EQ(capture->count("inner"), 0u);
  }
}

}  // namespace
}  // namespace tarnwick

#include <gtest/gtest.h>

#include "CommandLine.h"
#include "EventFormat.h"

namespace tarnwick::daemon {
namespace {

TEST(DaemonToolTest, CommandLineTakesBothOptionFormsAndNamesEachFault) {
  const std::vector<std::string_view> args = {"--socket", "/s", "--json", "--push=p.json"};
  const auto parsed = parseCommandLine(args);
  ASSERT_TRUE(std::holds_alternative<CommandLine>(parsed));
  const DaemonConfig& config = std::get<CommandLine>(parsed).config;
  EXPECT_TRUE(config.socketPath == "/s" && config.json && config.pushFile == "p.json");
  for (const auto& [faultArgs, message] :
       std::vector<std::pair<std::vector<std::string_view>, std::string>>{
           {{"--socket"}, "option '--socket' needs a value"},
           {{"--push="}, "option '--push' needs a value"},
           {{"--listen", "x"}, "unknown option '--listen'"}}) {
    const auto result = parseCommandLine(faultArgs);
    const auto* fault = std::get_if<UsageError>(&result);
    EXPECT_EQ(fault ? fault->message : "parsed", message);
  }
}

TEST(DaemonToolTest, ReadableLinesShowKindThenSortedKeysQuotingAmbiguousTexts) {
  for (const auto& [line, shown] : std::vector<std::pair<std::string, std::string>>{
           {R"({"ts":5,"kind":"proxyext.alive"})", "proxyext.alive ts=5"},
           {R"({"kind":"relay.failopen","reason":"no-ack","signing_id":"a b","dest_host":""})",
            R"(relay.failopen dest_host="" reason=no-ack signing_id="a b")"},
           {R"({"count":3})", "? count=3"},
           {"[1]", "unparsed: [1]"},
           {"{bad", "unparsed: {bad"}}) {
    EXPECT_EQ(readableEvent(line), shown);
  }
}

TEST(DaemonToolTest, PushLineSetsTheKindAndCountsAreByKind) {
  std::string error;
  EXPECT_EQ(policyPushLine(R"({"version":1,"kind":"other"})", error),
            "{\"kind\":\"policy.push\",\"version\":1}\n");
  EXPECT_EQ(policyPushLine("[1]", error), std::nullopt);
  EXPECT_EQ(error, "the policy file must hold one JSON object");
  KindCounts counts;
  for (const char* kind : {"relay.open", "proxyext.alive", "relay.open"}) counts.add(kind);
  EXPECT_EQ(counts.readableSummary(), "events 3\n  proxyext.alive 1\n  relay.open 2");
  EXPECT_EQ(counts.jsonSummary(), R"({"counts":{"proxyext.alive":1,"relay.open":2},"total":3})");
}

}  // namespace
}  // namespace tarnwick::daemon

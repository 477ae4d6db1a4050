// Which programs are relayed through the front door and which are handed back, and that the bytes
// arrive unchanged either way.

#include <regex>

#include "EndToEnd.h"

namespace tarnwick::e2e {
namespace {

TEST_F(EndToEndTest, WatchedProgramsAreRelayedOthersHandedBackByteExact) {
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  // A relayed flow ends with the agent's end of stream, so watched programs read their echo before
  // closing. Unwatched ones may end their write side first and still get the whole reply, from a
  // server that answers only then. Descendants of a watched program connect as the unwatched twin.
  const std::uint16_t late = late_->port();
  const std::pair<const char*, Client> transfers[] = {
      {"relayed", {.bytes = 3u << 20}},
      {"relayed, one byte", {.bytes = 1}},
      {"relayed, IPv6", {.host = kWorldIPv6, .bytes = 200'000}},
      {"child of a watched program", {.descend = 1}},
      {"grandchild of a watched program", {.descend = 2}},
      {"handed back", {.bytes = 3u << 20, .watched = false}},
      {"handed back, IPv6", {.host = kWorldIPv6, .bytes = 200'000, .watched = false}},
      {"half-close", {.mode = "half-close", .port = late, .bytes = 3u << 20, .watched = false}},
      {"half-close, one byte", {.mode = "half-close", .port = late, .bytes = 1, .watched = false}},
      {"half-close, nothing", {.mode = "half-close", .port = late, .bytes = 0, .watched = false}},
  };
  std::size_t relayed = 0;
  for (const auto& [name, client] : transfers) {
    SCOPED_TRACE(name);
    const auto run = runClient(client);
    ASSERT_EQ(run.status, 0) << run.output;
    if (!client.watched) continue;

    const std::string signing = client.descend > 0 ? twin_ : watchedClient();
    const std::string port = std::to_string(echo_->port());
    const auto lines = frontDoorLines(++relayed);
    ASSERT_EQ(lines.size(), relayed);
    const auto& line = lines.back();
    EXPECT_TRUE(std::regex_match(line.at("trace"), std::regex("[0-9a-f]{16}"))) << line.at("trace");
    const std::map<std::string, std::string> wanted = {
        {"pid", std::to_string(run.pid)},
        {"signing", signing},
        {"dest", (client.host == kWorldIPv6 ? "[" + client.host + "]" : client.host) + ":" + port},
        {"up", std::to_string(client.bytes)},
        {"down", std::to_string(client.bytes)}};
    for (const auto& [key, value] : wanted) EXPECT_EQ(line.at(key), value) << key;
    ASSERT_TRUE(awaitEvents("relay.open", relayed));
    const Json open = events("relay.open").back();
    const Json wantedEvent = {{"pid", run.pid},
                              {"signing_id", signing},
                              {"trace", line.at("trace")},
                              {"dest_host", client.host},
                              {"dest_port", echo_->port()}};
    for (const auto& [key, value] : wantedEvent.items()) EXPECT_EQ(open[key], value) << key;
  }
  ASSERT_TRUE(awaitEvents("relay.close", relayed));
  EXPECT_EQ(frontDoorLines().size(), relayed);
  EXPECT_TRUE(events("relay.failopen").empty());
  // The interceptor's own connections (to the front door, and the dials of handed-back flows)
  // would be relayed under its PID, or reach the servers twice, if they came back to it.
  EXPECT_EQ(echo_->accepted() + late_->accepted(), static_cast<int>(std::size(transfers)));
  const auto opens = events("relay.open");
  EXPECT_EQ(opens.size(), relayed);
  for (const auto& open : opens) EXPECT_NE(open["pid"], interceptor_->pid());
}

// The watch command replaces the running interceptor's whole watch set. A PID watch holds for the
// process that had the PID when its first flow was seen; a later process given the same PID
// (clone3's set_tid) is handed back.
TEST_F(EndToEndTest, WatchCommandSetsPidWatchesThatSurviveNoReuse) {
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  Process gone(lab_.agent, {"true"}, file("true.log"));
  ASSERT_EQ(gone.wait(5s), 0);
  const pid_t pid = gone.pid();  // free again, and watched before anything runs under it

  const std::string watch = proxyext() + " watch --control-socket " + file("control.sock");
  std::string reply;
  ASSERT_EQ(inAgent(watch + " --pid " + std::to_string(pid), &reply), 0) << reply;
  EXPECT_NE(reply.find(R"({"ok":true})"), std::string::npos) << reply;
  ASSERT_EQ(runClient({}).status, 0);  // no longer watched: handed back

  const auto first = finish(*spawn({.watched = false}, pid));
  ASSERT_EQ(first.status, 0) << first.output;
  ASSERT_EQ(first.pid, pid);
  const auto lines = frontDoorLines(1);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].at("pid"), std::to_string(pid));

  // The PID version comes from the start time, counted in clock ticks.
  std::this_thread::sleep_for(50ms);
  const auto reused = finish(*spawn({.watched = false}, pid));
  ASSERT_EQ(reused.status, 0) << reused.output;
  ASSERT_EQ(reused.pid, pid);
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(frontDoorLines().size(), 1u);
}

}  // namespace
}  // namespace tarnwick::e2e

// The counts a status query reports, as the provider's events feed them: each event goes on to
// the daemon untouched, and only the kinds that stand for a relayed, failed-open or reported UDP
// flow count.

#include <gtest/gtest.h>

#include "host/status/CountingDaemonChannel.h"

namespace tarnwick::host {
namespace {

struct RecordingChannel : DaemonChannel {
  void adoptPath(std::string path, bool real) override { adopted = {std::move(path), real}; }
  void send(Json event) override { events.push_back(std::move(event)); }
  void recordCommittedSeverIfUnhealthy() override { ++severs; }

  std::pair<std::string, bool> adopted;
  std::vector<Json> events;
  int severs = 0;
};

TEST(CountingDaemonChannelTest, CountsRelayEventsAndPassesEveryEventOn) {
  auto inner = std::make_shared<RecordingChannel>();
  auto counters = std::make_shared<HostCounters>();
  CountingDaemonChannel channel(inner, counters);
  const std::vector<Json> events = {
      {{"kind", "relay.open"}, {"pid", 7}},
      {{"kind", "relay.open"}},
      {{"kind", "relay.failopen"}, {"reason", "no-ack"}},
      {{"kind", "relay.failopen"}, {"reason", "passthrough_dial"}},
      {{"kind", "relay.failopen"}, {"reason", "passthrough_dial_spliced"}},
      {{"kind", "relay.failopen"}, {"reason", "no-ack"}},
      {{"kind", "relay.failopen"}, {"reason", 5}},
      {{"kind", "relay.failopen"}},
      {{"kind", "quic.deny"}, {"pid", 7}},
      {{"kind", "relay.close"}},
      {{"kind", "proxyext.alive"}},
      {{"kind", 3}},
      Json::object(),
      Json::array()};
  for (const Json& event : events) channel.send(event);
  channel.adoptPath("/run/tarnwick/ne.sock", true);
  channel.recordCommittedSeverIfUnhealthy();
  EXPECT_EQ(inner->events, events);
  EXPECT_EQ(inner->adopted, (std::pair<std::string, bool>{"/run/tarnwick/ne.sock", true}));
  EXPECT_EQ(inner->severs, 1);
  counters->countHandedBack();
  counters->countUnplaced();
  counters->countBytesFromAgent(10);
  counters->countBytesToAgent(20);
  Json expected{
      {"relayed", 2},
      {"handedBack", 1},
      {"failedOpen", {{"no-ack", 2}, {"passthrough_dial", 1}, {"passthrough_dial_spliced", 1}}},
      {"udpFlowsReported", 1},
      {"unplaced", 1},
      {"bytesFromAgents", 10},
      {"bytesToAgents", 20},
      {"kernelEventsDropped", nullptr},
      {"kernelRecordsFailed", nullptr},
      {"kernelCandidatesLost", nullptr}};
  EXPECT_EQ(counters->snapshot(), expected);
  // What kernel-side selection lost is counted in the kernel and shown as it counted it.
  expected.update(
      Json{{"kernelEventsDropped", 3}, {"kernelRecordsFailed", 4}, {"kernelCandidatesLost", 5}});
  EXPECT_EQ(counters->snapshot(SelectionCounters{3, 4, 5}), expected);
}

// A flood of made-up reasons cannot grow the table without bound; known ones still count.
TEST(CountingDaemonChannelTest, KeepsTheReasonTableBounded) {
  HostCounters counters;
  counters.countFailedOpen("no-ack");
  for (int i = 0; i < 1000; ++i) counters.countFailedOpen("reason-" + std::to_string(i));
  counters.countFailedOpen("no-ack");
  const Json failedOpen = counters.snapshot()["failedOpen"];
  EXPECT_EQ(failedOpen.size(), 64u);
  EXPECT_EQ(failedOpen["no-ack"], 2);
}

}  // namespace
}  // namespace tarnwick::host

// A daemon that dies or stops reading, a front door that dies mid-transfer, and destinations that
// refuse, swallow or drop connections: every watched program still gets exactly its bytes, or a
// visible cut, never wrong bytes, no slower, and the circuit stays about the front door.

#include <csignal>

#include "LoadTest.h"

namespace tarnwick::e2e {
namespace {

// The events of a burst meet a daemon that is gone or does not read; the flows must not wait on
// them. Timing is compared within the run, never against a fixed figure.
class DaemonAbsenceTest : public LoadTest, public ::testing::WithParamInterface<int> {};

TEST_P(DaemonAbsenceTest, FlowsAreNotSlowed) {
  ASSERT_NO_FATAL_FAILURE(startRelaying());
  const std::uint64_t count = size_.burst;
  LoadRun round{.count = count, .up = "0-16384", .down = "0-16384"};
  const auto with = runLoad(round);
  ASSERT_EQ(with.outcomes, all(count)) << with.output;
  daemon_->signal(GetParam());
  round.firstId += count;
  const auto without = runLoad(round);
  EXPECT_EQ(without.outcomes, all(count)) << without.output;
  EXPECT_LT(without.seconds, 3 * with.seconds + 1.0)
      << "with the daemon " << with.seconds << " s, without it " << without.seconds << " s";
  expectVisits(1, 2 * count);
  const auto status = settledStatus();
  EXPECT_EQ(status["relayed"], 2 * count) << status.dump();
  EXPECT_EQ(status["failedOpen"], Json::object()) << status.dump();
}

INSTANTIATE_TEST_SUITE_P(Daemon, DaemonAbsenceTest, ::testing::Values(SIGKILL, SIGSTOP),
                         [](const auto& param) {
                           return param.param == SIGKILL ? "Killed" : "NotReading";
                         });

// Killed with transfers open, the front door leaves two kinds behind: those whose destination
// had not answered yet fail over to it directly and complete exactly (their request then
// reached it twice, once through the front door and once replayed); those already answered are
// cut, visibly. Dials while it is gone fail open exactly, and once it is back and the circuit
// allows, flows are relayed again.
TEST_F(LoadTest, FrontDoorKilledMidTransfersFailsOpenExactly) {
  ASSERT_NO_FATAL_FAILURE(startRelaying());
  const std::uint64_t half = std::max<std::uint64_t>(1, size_.killed / 2);
  // Uploads fit the replay buffer, so nothing stands in the way of a failover.
  auto unanswered =
      spawnLoad({.script = "held", .count = half, .up = "1-65536", .down = "1-200000"});
  auto answered = spawnLoad({.script = "held-after-answering",
                             .count = half,
                             .firstId = half + 1,
                             .up = "1-65536",
                             .down = "2048-200000"});
  ASSERT_TRUE(eventually([&] { return world_->unlikeVisits(1, 2 * half, 1).empty(); }, 30s));
  ASSERT_TRUE(eventually([&] { return counter("bytesToAgents") >= half * kHeldAnswerBytes; }))
      << "the answered ones have their first bytes";

  frontDoor_->signal(SIGKILL);
  ASSERT_TRUE(frontDoor_->wait(5s));
  ASSERT_TRUE(eventually([&] { return world_->unlikeVisits(1, half, 2).empty(); }, 20s))
      << "every unanswered request is replayed to its destination";
  world_->openGate();
  const auto failedOver = finishLoad(*unanswered);
  EXPECT_EQ(failedOver.outcomes, all(half)) << failedOver.output;
  // An answered transfer cannot be replayed: it ends early, by a reset or an end of stream
  // before its last byte, and never with a wrong byte.
  const auto cut = finishLoad(*answered);
  EXPECT_EQ(total(cut.outcomes), half) << cut.output;
  for (const auto& [outcome, count] : cut.outcomes.items()) {
    EXPECT_TRUE(outcome == "reset" || outcome == "short") << cut.output;
  }

  constexpr std::uint64_t kWhileGone = 3;
  const auto direct =
      runLoad({.count = kWhileGone, .firstId = 2 * half + 1, .up = "1-100000", .down = "1-100000"});
  EXPECT_EQ(direct.outcomes, all(kWhileGone)) << direct.output;
  expectVisits(2 * half + 1, kWhileGone);

  ASSERT_NO_FATAL_FAILURE(startMarkedFrontDoor());
  // Those dials count against the circuit, which then lets a flow try the front door again
  // only after its one-minute cool-down; the soak run waits that out.
  if (!size_.awaitCooldown) return;
  std::uint64_t nextId = 2 * half + kWhileGone + 1;
  const std::uint64_t before = counter("relayed");
  const bool again = eventually(
      [&] {
        const auto run = runLoad({.firstId = nextId++, .up = "1-1000", .down = "1-1000"});
        EXPECT_EQ(run.outcomes, all(1)) << run.output;
        if (counter("relayed") > before) return true;
        std::this_thread::sleep_for(1s);  // one flow a second while the circuit stays open
        return false;
      },
      90s);
  EXPECT_TRUE(again) << status().dump();
  EXPECT_EQ(status()["circuit"], "closed");
}

// A watched program dialling dead destinations as fast as it can must not switch inspection off:
// the front door answers for each of them, so none counts against it.
TEST_F(LoadTest, DeadDestinationsNeverOpenTheCircuit) {
  ASSERT_NO_FATAL_FAILURE(startRelaying());
  constexpr std::uint16_t kRefused = 9;      // nothing listens there
  constexpr std::uint16_t kBlackholed = 10;  // the world drops its SYNs
  std::string output;
  ASSERT_EQ(shell("ip netns exec " + lab_.world +
                      " nft 'add table inet tw_e2e_blackhole; add chain inet tw_e2e_blackhole in "
                      "{ type filter hook input priority 0; }; add rule inet tw_e2e_blackhole in "
                      "tcp dport " +
                      std::to_string(kBlackholed) + " drop'",
                  &output),
            0)
      << output;
  LoadServer closing(lab_.world, {.closeAfterGreeting = true});
  const std::uint64_t count = size_.deadDestinations;
  std::vector<std::unique_ptr<Process>> dials;
  // Held past the 2.5 s handshake budget, so that a blackholed dial runs it out.
  for (const std::uint16_t port : {kRefused, kBlackholed, closing.port()}) {
    dials.push_back(spawnLoad({.script = "probe",
                               .port = port,
                               .count = count,
                               .firstId = dials.size() * count + 1,
                               .deadlineSeconds = 4}));
  }
  // The blackholed ones are still being dialled directly (a direct dial sets no timer of its
  // own), so the interceptor is not idle yet; the front door has answered for all of them.
  for (auto& dial : dials) EXPECT_EQ(total(finishLoad(*dial, 4).outcomes), count);
  const auto after = status();
  EXPECT_EQ(after["circuit"], "closed") << after.dump();
  EXPECT_FALSE(after["failedOpen"].contains("circuit-open")) << after.dump();

  const auto run =
      runLoad({.count = 3, .firstId = 3 * count + 1, .up = "1-1000", .down = "1-1000"});
  EXPECT_EQ(run.outcomes, all(3)) << run.output;
  expectVisits(3 * count + 1, 3);
  const auto later = status();
  EXPECT_EQ(later["relayed"], after["relayed"].get<std::uint64_t>() + 3) << later.dump();
  EXPECT_EQ(later["failedOpen"], after["failedOpen"]) << later.dump();
}

}  // namespace
}  // namespace tarnwick::e2e

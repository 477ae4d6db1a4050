// The candidate set the kernel keeps, modelled over synthetic process trees, against the
// provider's own decision with the real gates: never smaller, and, where nothing happened that
// the kernel cannot see (reparenting, an ancestor leaving a watched executable, PID reuse of a
// bound PID, trees deeper than the ancestry walk), the same.

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>

#include "SyntheticMachine.h"
#include "platform/testing/CaseName.h"

namespace tarnwick::host {
namespace {

constexpr std::size_t kAgent = 0, kShell = 1, kCurl = 2, kPython = 3;

// Every living process: the kernel selects at least what the provider accepts; with `exact`,
// exactly that.
void expectCoversProvider(SyntheticMachine& machine, bool exact, const std::string& when) {
  if (exact) machine.forgetProviderAncestry();
  for (std::int64_t pid : machine.living()) {
    const bool accepted = machine.providerAccepts(pid);
    const bool selected = machine.kernelSelects(pid);
    ASSERT_TRUE(selected || !accepted) << "pid " << pid << " accepted but not selected " << when;
    if (exact) {
      ASSERT_EQ(selected, accepted) << "pid " << pid << " " << when;
    }
  }
}

// A random history. Tame histories avoid what the kernel cannot follow: exits of processes
// with children (reparenting), leaving a watched executable while having children, execs and
// reuse of watched PIDs, and trees deeper than the ancestry walk.
class History {
 public:
  History(unsigned seed, bool tame) : random_(seed), tame_(tame) {}

  std::string step(SyntheticMachine& machine) {
    const auto living = machine.living();
    const int choice = pick(living.empty() ? 1 : 10);
    if (choice == 0 || living.empty()) return fork(machine, 1);
    const std::int64_t pid = living[pick(living.size())];
    if (choice < 5) return fork(machine, pid);
    if (choice < 7) return exec(machine, pid);
    if (choice < 9) return exit(machine, pid);
    return watch(machine, living);
  }

 private:
  std::size_t pick(std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random_);
  }

  std::string fork(SyntheticMachine& machine, std::int64_t parent) {
    if (tame_ && parent != 1 && machine.depthOf(parent) >= AncestryGate::kDefaultMaxDepth - 1) {
      return "nothing";
    }
    // Tame histories never reuse a PID: the next one is always above every PID used so far.
    const std::int64_t child = machine.fork(parent, tame_ ? ++highestPID_ : 2);
    return "fork " + std::to_string(parent) + " -> " + std::to_string(child);
  }

  std::string exec(SyntheticMachine& machine, std::int64_t pid) {
    const std::size_t executable = pick(4);
    const bool leavesWatched =
        machine.watchedPaths().contains(kExecutables[machine.executableOf(pid)]) &&
        !machine.watchedPaths().contains(kExecutables[executable]);
    if (tame_ &&
        (machine.watchedPIDs().contains(pid) || (leavesWatched && machine.hasChildren(pid)))) {
      return "nothing";
    }
    machine.exec(pid, executable);
    return "exec " + std::to_string(pid) + " " + kExecutables[executable];
  }

  std::string exit(SyntheticMachine& machine, std::int64_t pid) {
    if (tame_ && machine.hasChildren(pid)) return "nothing";
    machine.exit(pid);
    return "exit " + std::to_string(pid);
  }

  std::string watch(SyntheticMachine& machine, const std::vector<std::int64_t>& living) {
    WatchGate::SigningSet paths;
    for (std::size_t i = 0; i < 4; ++i) {
      if (pick(3) == 0) paths.insert(kExecutables[i]);
    }
    WatchGate::PidSet pids;
    // Wild histories also watch PIDs that may be gone, or reused later.
    for (int i = pick(3); i > 0; --i) {
      pids.insert(tame_ ? living[pick(living.size())] : static_cast<std::int64_t>(2 + pick(40)));
    }
    machine.watch(paths, pids);
    return "watch " + std::to_string(paths.size()) + " paths, " + std::to_string(pids.size()) +
           " pids";
  }

  std::mt19937 random_;
  const bool tame_;
  std::int64_t highestPID_ = 1;
};

class CandidateSetPropertyTest : public ::testing::TestWithParam<unsigned> {};

TEST_P(CandidateSetPropertyTest, EqualsTheProviderInTameHistories) {
  SyntheticMachine machine;
  History history(GetParam(), true);
  for (int step = 0; step < 400; ++step) {
    const std::string what = history.step(machine);
    expectCoversProvider(machine, true, "after step " + std::to_string(step) + ": " + what);
    if (HasFatalFailure()) return;
  }
}

TEST_P(CandidateSetPropertyTest, CoversTheProviderInAnyHistory) {
  SyntheticMachine machine;
  History history(GetParam(), false);
  for (int step = 0; step < 400; ++step) {
    const std::string what = history.step(machine);
    expectCoversProvider(machine, false, "after step " + std::to_string(step) + ": " + what);
    if (HasFatalFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, CandidateSetPropertyTest, ::testing::Range(1u, 41u));

// Hand-written histories: what the kernel selects at the end, process by process.
struct Scenario {
  std::string name;
  // Builds the history; returns the PIDs to ask about, in order.
  std::function<std::vector<std::int64_t>(SyntheticMachine&)> run;
  std::vector<bool> selected;
};

class CandidateScenarioTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(CandidateScenarioTest, SelectsWhatTheWatchSetMeans) {
  SyntheticMachine machine;
  std::vector<bool> selected;
  for (std::int64_t pid : GetParam().run(machine)) selected.push_back(machine.kernelSelects(pid));
  EXPECT_EQ(selected, GetParam().selected);
  expectCoversProvider(machine, false, "at the end");
}

INSTANTIATE_TEST_SUITE_P(
    Histories, CandidateScenarioTest,
    ::testing::Values(Scenario{"ChildrenAndGrandchildrenOfAWatchedExecutable",
                               [](SyntheticMachine& m) -> std::vector<std::int64_t> {
                                 m.watch({"/usr/bin/agent"}, {});
                                 const auto agent = m.fork(1);
                                 m.exec(agent, kAgent);
                                 const auto shell = m.fork(agent);
                                 m.exec(shell, kShell);
                                 const auto curl = m.fork(shell);
                                 m.exec(curl, kCurl);
                                 const auto sibling = m.fork(1);
                                 return {agent, shell, curl, sibling};
                               },
                               {true, true, true, false}},
                      Scenario{"ChildOfAWatchedPidIsNotACandidate",
                               [](SyntheticMachine& m) -> std::vector<std::int64_t> {
                                 const auto parent = m.fork(1);
                                 m.watch({}, {parent});
                                 const auto child = m.fork(parent);
                                 return {parent, child};
                               },
                               {true, false}},
                      Scenario{"ExecOfAWatchedExecutableTakesInTheChildrenForkedBefore",
                               [](SyntheticMachine& m) -> std::vector<std::int64_t> {
                                 m.watch({"/usr/bin/python3"}, {});
                                 const auto process = m.fork(1);
                                 const auto before = m.fork(process);
                                 const auto grandchild = m.fork(before);
                                 m.exec(process, kPython);
                                 const auto after = m.fork(process);
                                 return {process, before, grandchild, after};
                               },
                               {true, true, true, true}},
                      Scenario{"ProcessesStartedBeforeTheWatchJoinWithTheirDescendants",
                               [](SyntheticMachine& m) -> std::vector<std::int64_t> {
                                 const auto agent = m.fork(1);
                                 m.exec(agent, kAgent);
                                 const auto child = m.fork(agent);
                                 m.watch({"/usr/bin/agent"}, {});
                                 return {agent, child};
                               },
                               {true, true}},
                      Scenario{"UnwatchingTakesOutTheProcessAndItsDescendants",
                               [](SyntheticMachine& m) -> std::vector<std::int64_t> {
                                 m.watch({"/usr/bin/agent"}, {});
                                 const auto agent = m.fork(1);
                                 m.exec(agent, kAgent);
                                 const auto child = m.fork(agent);
                                 m.watch({"/usr/bin/curl"}, {});
                                 return {agent, child};
                               },
                               {false, false}},
                      // The provider binds a watched PID to the first process it sees under it, so
                      // the process that reuses a PID nobody has used yet is still watched.
                      Scenario{"AReusedWatchedPidStaysACandidate",
                               [](SyntheticMachine& m) -> std::vector<std::int64_t> {
                                 const auto first = m.fork(1);
                                 m.watch({}, {first});
                                 m.exit(first);
                                 const auto reused = m.fork(1);
                                 return {reused == first ? reused : -1};
                               },
                               {true}},
                      Scenario{"AWatchedPidStaysACandidateAcrossExec",
                               [](SyntheticMachine& m) -> std::vector<std::int64_t> {
                                 const auto process = m.fork(1);
                                 m.watch({}, {process});
                                 m.exec(process, kCurl);
                                 return {process};
                               },
                               {true}},
                      Scenario{"AChildForkedBeforeItsParentLeftTheWatchedExecutableStays",
                               [](SyntheticMachine& m) -> std::vector<std::int64_t> {
                                 m.watch({"/usr/bin/agent"}, {});
                                 const auto agent = m.fork(1);
                                 m.exec(agent, kAgent);
                                 const auto child = m.fork(agent);
                                 m.exec(agent, kShell);
                                 return {agent, child};
                               },
                               {false, true}}),
    CaseName());

}  // namespace
}  // namespace tarnwick::host

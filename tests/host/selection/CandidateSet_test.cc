// The candidate set the kernel keeps, modelled over synthetic process trees, against the
// provider's own decision with the real gates: never smaller, and, where nothing happened that
// the kernel cannot see (reparenting, an ancestor leaving a watched executable, PID reuse of a
// bound PID, trees deeper than the ancestry walk), the same.

#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <string>

#include "SyntheticMachine.h"
#include "platform/testing/CaseName.h"

namespace tarnwick::host {
namespace {

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

TEST_P(CandidateSetPropertyTest, CoversTheProviderAndEqualsItInTameHistories) {
  for (const bool tame : {true, false}) {
    SyntheticMachine machine;
    History history(GetParam(), tame);
    for (int step = 0; step < 400; ++step) {
      const std::string what = history.step(machine);
      expectCoversProvider(machine, tame,
                           std::string(tame ? "tame" : "wild") + " history, after step " +
                               std::to_string(step) + ": " + what);
      if (HasFatalFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, CandidateSetPropertyTest, ::testing::Range(1u, 41u));

// Hand-written histories, one step an item: "fork NAME PARENT" (PARENT a name, or 1 for init),
// "exec NAME EXECUTABLE", "exit NAME", "watch EXECUTABLE..." and "watchpid NAME...", each
// watch replacing the last. Then what the kernel selects at the end ("!NAME": not selected).
struct Scenario {
  std::string name;
  std::vector<std::string> steps;
  std::string selected;
};

std::vector<std::string> wordsOf(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

std::size_t executableNamed(const std::string& name) {
  for (std::size_t i = 0; i < kExecutables.size(); ++i) {
    if (kExecutables[i].ends_with("/" + name)) return i;
  }
  ADD_FAILURE() << "no executable " << name;
  return 0;
}

void run(SyntheticMachine& machine, std::map<std::string, std::int64_t>& pids,
         const std::vector<std::string>& words) {
  const std::string& what = words.at(0);
  if (what == "fork") {
    pids[words.at(1)] = machine.fork(pids.at(words.at(2)));
  } else if (what == "exec") {
    machine.exec(pids.at(words.at(1)), executableNamed(words.at(2)));
  } else if (what == "exit") {
    machine.exit(pids.at(words.at(1)));
  } else {
    WatchGate::SigningSet paths;
    WatchGate::PidSet watched;
    for (std::size_t i = 1; i < words.size(); ++i) {
      if (what == "watch") paths.insert(kExecutables[executableNamed(words[i])]);
      if (what == "watchpid") watched.insert(pids.at(words[i]));
    }
    machine.watch(paths, watched);
  }
}

class CandidateScenarioTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(CandidateScenarioTest, SelectsWhatTheWatchSetMeans) {
  SyntheticMachine machine;
  std::map<std::string, std::int64_t> pids = {{"1", 1}};
  for (const std::string& step : GetParam().steps) run(machine, pids, wordsOf(step));
  for (const std::string& word : wordsOf(GetParam().selected)) {
    const bool expected = word[0] != '!';
    EXPECT_EQ(machine.kernelSelects(pids.at(expected ? word : word.substr(1))), expected) << word;
  }
  expectCoversProvider(machine, false, "at the end");
}

INSTANTIATE_TEST_SUITE_P(
    Histories, CandidateScenarioTest,
    ::testing::Values(
        Scenario{"ChildrenAndGrandchildrenOfAWatchedExecutable",
                 {"watch agent", "fork agent 1", "exec agent agent", "fork shell agent",
                  "exec shell sh", "fork curl shell", "exec curl curl", "fork sibling 1"},
                 "agent shell curl !sibling"},
        Scenario{"ChildOfAWatchedPidIsNotACandidate",
                 {"fork parent 1", "watchpid parent", "fork child parent"},
                 "parent !child"},
        Scenario{"ExecOfAWatchedExecutableTakesInTheChildrenForkedBefore",
                 {"watch python3", "fork process 1", "fork before process",
                  "fork grandchild before", "exec process python3", "fork after process"},
                 "process before grandchild after"},
        Scenario{"ProcessesStartedBeforeTheWatchJoinWithTheirDescendants",
                 {"fork agent 1", "exec agent agent", "fork child agent", "watch agent"},
                 "agent child"},
        Scenario{
            "UnwatchingTakesOutTheProcessAndItsDescendants",
            {"watch agent", "fork agent 1", "exec agent agent", "fork child agent", "watch curl"},
            "!agent !child"},
        // The provider binds a watched PID to the first process it sees under it, so the process
        // that reuses a PID nobody has used yet is still watched (the lowest free PID is reused;
        // had it not been, the new process would not be watched at all).
        Scenario{"AReusedWatchedPidStaysACandidate",
                 {"fork first 1", "watchpid first", "exit first", "fork reused 1"},
                 "reused"},
        Scenario{"AWatchedPidStaysACandidateAcrossExec",
                 {"fork process 1", "watchpid process", "exec process curl"},
                 "process"},
        Scenario{"AChildForkedBeforeItsParentLeftTheWatchedExecutableStays",
                 {"watch agent", "fork agent 1", "exec agent agent", "fork child agent",
                  "exec agent sh"},
                 "!agent child"}),
    CaseName());

}  // namespace
}  // namespace tarnwick::host

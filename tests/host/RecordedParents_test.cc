// The parents kernel-side selection recorded stand in for /proc only once a process is gone.

#include "host/selection/RecordedParents.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarnwick::host {
namespace {

// A PID that named a process a moment ago and names none now.
pid_t goneProcess() {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ::waitpid(child, nullptr, 0);
  return child;
}

TEST(RecordedParentsTest, AnswersForAGoneProcessAndNeverOverrulesALiveOne) {
  RecordedParents parents;
  const pid_t gone = goneProcess();
  EXPECT_EQ(parents.parentOf(gone), std::nullopt);
  parents.record(gone, 4242);
  EXPECT_EQ(parents.parentOf(gone), 4242);
  // A live process's parent is the one /proc shows, whatever was recorded under its PID before.
  parents.record(::getpid(), 4242);
  EXPECT_EQ(parents.parentOf(::getpid()), ::getppid());
  // No parent is no answer; the table starts afresh once full.
  parents.record(gone, 0);
  EXPECT_EQ(parents.parentOf(gone), std::nullopt);
  parents.record(gone, 4242);
  for (std::int64_t pid = 1; pid <= static_cast<std::int64_t>(RecordedParents::kCapacity); ++pid) {
    parents.record(-pid, 1);
  }
  EXPECT_EQ(parents.parentOf(gone), std::nullopt);
}

}  // namespace
}  // namespace tarnwick::host

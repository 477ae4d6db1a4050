#include "bridge/EventOutbox.h"

#include <gtest/gtest.h>

#include "platform/testing/CaseName.h"

namespace tarnwick {
namespace {

using Admission = EventOutbox::Admission;
constexpr std::size_t kMax = EventOutbox::kMaxEvents;

struct OutboxCase {
  const char* name;
  std::size_t pushes;  // events pushed before the take, numbered from 0
  Admission first, last;
  std::int64_t dropped;
};

void PrintTo(const OutboxCase& c, std::ostream* out) { *out << c.name; }

class EventOutboxTest : public ::testing::TestWithParam<OutboxCase> {};

// Only the first event of a batch asks for a drain, whatever came before it; a take hands over
// every event kept, oldest first, and the drop count once.
TEST_P(EventOutboxTest, OnlyTheFirstEventOfABatchAsksForADrain) {
  const OutboxCase& c = GetParam();
  EventOutbox outbox;
  std::vector<Json> taken;
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    std::vector<Admission> admissions;
    for (std::size_t i = 0; i < c.pushes; ++i) admissions.push_back(outbox.push(Json{{"i", i}}));
    EXPECT_EQ(admissions.front(), c.first);
    EXPECT_EQ(admissions.back(), c.last);
    taken.clear();
    EXPECT_EQ(outbox.take(taken), c.dropped);
    ASSERT_EQ(taken.size(), std::min(c.pushes, kMax));
    for (std::size_t i = 0; i < taken.size(); ++i) EXPECT_EQ(taken[i]["i"], i);
  }
  taken.clear();
  EXPECT_EQ(outbox.take(taken), 0) << "the drop count went with its take";
  EXPECT_TRUE(taken.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Batches, EventOutboxTest,
    ::testing::Values(
        OutboxCase{"One", 1, Admission::QueuedFirst, Admission::QueuedFirst, 0},
        OutboxCase{"Burst", 3, Admission::QueuedFirst, Admission::Queued, 0},
        OutboxCase{"UpToTheBound", kMax, Admission::QueuedFirst, Admission::Queued, 0},
        OutboxCase{"PastTheBound", kMax + 3, Admission::QueuedFirst, Admission::Dropped, 3}),
    CaseName{});

}  // namespace
}  // namespace tarnwick

#include "LoadServer.h"

#include <algorithm>
#include <chrono>

namespace tarnwick::e2e {
namespace {

// How long one connection may take; the tests' own deadlines are shorter.
constexpr std::int64_t kPatienceMs = 600'000;

}  // namespace

LoadServer::LoadServer(const std::string& netns) : LoadServer(netns, Opening{}) {}

LoadServer::LoadServer(const std::string& netns, Opening opening)
    : opening_(opening), server_(netns, [this](int fd) { serve(fd); }) {}

std::vector<std::string> LoadServer::unlikeVisits(std::uint64_t first, std::uint64_t count,
                                                  int connections,
                                                  const std::string& ending) const {
  std::vector<std::string> unlike;
  std::lock_guard lock(mutex_);
  for (std::uint64_t id = first; id < first + count; ++id) {
    const auto found = visits_.find(id);
    const Visits seen = found == visits_.end() ? Visits{} : found->second;
    if (seen.connections == connections && seen.wholeUploads == connections &&
        (ending.empty() || seen.ending == ending))
      continue;
    unlike.push_back("id " + std::to_string(id) + " reached it " +
                     std::to_string(seen.connections) + " times, " +
                     std::to_string(seen.wholeUploads) + " whole" +
                     (seen.problems.empty() ? "" : "; " + seen.problems.front()) +
                     (ending.empty() ? "" : "; its end: '" + seen.ending + "'"));
  }
  return unlike;
}

void LoadServer::openGate() {
  {
    std::lock_guard lock(mutex_);
    gate_open_ = true;
  }
  gate_opened_.notify_all();
}

bool LoadServer::awaitGate(std::int64_t deadline) {
  std::unique_lock lock(mutex_);
  return gate_opened_.wait_for(lock, std::chrono::milliseconds(deadline - monotonicMs()),
                               [&] { return gate_open_; });
}

void LoadServer::serve(int fd) {
  const std::int64_t deadline = monotonicMs() + kPatienceMs;
  const PumpPlan greeting{.sendStream = kGreetingStream, .send = opening_.greeting};
  if (!pump(fd, greeting, deadline).complete(greeting) || opening_.closeAfterGreeting) return;
  LoadHeader header;
  if (!receiveWithin(fd, &header, sizeof header, deadline) || header.magic != LoadHeader::kMagic)
    return;
  {
    std::lock_guard lock(mutex_);
    ++visits_[header.id].connections;
  }
  converse(fd, header, deadline);
}

void LoadServer::noteUpload(std::uint64_t id, const PumpPlan& plan, const PumpResult& result) {
  std::lock_guard lock(mutex_);
  Visits& visits = visits_[id];
  if (result.received == plan.receive && !result.mismatchAt) {
    ++visits.wholeUploads;
  } else {
    visits.problems.push_back(result.outcome(plan) + ": " + result.describe(plan));
  }
}

// Each script's answer, as LoadProtocol.h describes it.
void LoadServer::converse(int fd, const LoadHeader& header, std::int64_t deadline) {
  const Script script = header.script;
  const bool held = script == Script::Held || script == Script::HeldAfterAnswering;
  std::uint64_t answerFirst = header.down;
  if (held) answerFirst = script == Script::Held ? 0 : std::min(header.down, kHeldAnswerBytes);
  if (script == Script::ClientEndsFirst || script == Script::ClientResets) answerFirst = 0;
  const PumpPlan plan{
      .sendStream = answerStream(header.id),
      .send = answerFirst,
      .endAfterSending = script == Script::ServerEndsFirst,
      .receiveStream = uploadStream(header.id),
      .receive = header.up,
      .readToEnd = script == Script::ServerEndsFirst || script == Script::ClientEndsFirst};
  noteUpload(header.id, plan, pump(fd, plan, deadline));
  if (answerFirst < header.down && (!held || awaitGate(deadline))) {
    const PumpPlan rest{.sendStream = answerStream(header.id),
                        .sendFrom = answerFirst,
                        .send = header.down - answerFirst};
    pump(fd, rest, deadline);
  }
  if (script == Script::ServerResets) {
    // The client sends one byte more to ask for the reset.
    if (char byte = 0; receiveWithin(fd, &byte, 1, deadline)) resetOnClose(fd);
  } else if (script == Script::ClientResets) {
    const PumpPlan end{.readToEnd = true};
    const PumpResult result = pump(fd, end, deadline);
    std::lock_guard lock(mutex_);
    visits_[header.id].ending = result.ended ? "end" : result.outcome(end);
  }
}

}  // namespace tarnwick::e2e

// tw-e2e-load: many connections from one program at once, for the load and fault tests.
//
//   tw-e2e-load SCRIPT HOST PORT COUNT FIRST_ID UP DOWN BANNER DEADLINE_SECONDS
//
// Starts COUNT threads that connect to HOST:PORT together, one connection each, with the ids
// from FIRST_ID on. SCRIPT is one of the scripts of LoadProtocol.h, which the connection follows
// with the server, or "greeting" (read a greeting of BANNER bytes, then the end; send nothing)
// or "probe" (send a header, wait for the end or the deadline, judge nothing). UP and DOWN are
// N or LOW-HIGH: each connection's sizes are drawn from them, seeded by FIRST_ID. With a BANNER
// above 0 the server speaks first: that many bytes are read and checked before the header.
//
// Prints one JSON line: {"outcomes":{OUTCOME:COUNT,...},"failures":[TEXT,...],"seconds":S}, where
// an outcome is "exact", "reset", "end" (a clean end where a reset was due), "short",
// "differs", "timeout", "error: ..." or "connect: ...". Exits 0 once every connection is done.

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <latch>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "LoadProtocol.h"

namespace {

using namespace tarnwick::e2e;

struct Options {
  std::string script, host, port;
  std::uint64_t count = 0, firstId = 0, banner = 0;
  std::uniform_int_distribution<std::uint64_t> up, down;
  std::int64_t deadline = 0;  // monotonicMs()
};

std::uniform_int_distribution<std::uint64_t> range(const std::string& text) {
  const auto dash = text.find('-');
  return std::uniform_int_distribution<std::uint64_t>(
      std::stoull(text.substr(0, dash)),
      std::stoull(dash == std::string::npos ? text : text.substr(dash + 1)));
}

using Outcome = std::pair<std::string, std::string>;  // its kind, and what went wrong

Outcome judge(const PumpPlan& plan, const PumpResult& result) {
  return {result.outcome(plan), result.describe(plan)};
}

// The conversation after the header, as its script has it.
Outcome converse(int fd, const LoadHeader& header, std::int64_t deadline) {
  const Script script = header.script;
  const PumpPlan plan{
      .sendStream = uploadStream(header.id),
      .send = header.up,
      .endAfterSending = script == Script::ClientEndsFirst,
      .receiveStream = answerStream(header.id),
      .receive = header.down,
      .readToEnd = script != Script::ClientResets && script != Script::ServerResets};
  const PumpResult result = pump(fd, plan, deadline);
  if (result.complete(plan) && script == Script::ClientResets) resetOnClose(fd);
  if (!result.complete(plan) || script != Script::ServerResets) return judge(plan, result);
  // The server resets on this byte; a clean end instead would pass a cut stream off as whole.
  if (!sendAllBytes(fd, "!", 1)) return {"error: send", "the byte that asks for the reset"};
  const PumpPlan tail{.readToEnd = true};
  const PumpResult end = pump(fd, tail, deadline);
  if (end.complete(tail)) return {"end", "a clean end where a reset was due"};
  return judge(tail, end);
}

int connectTo(const Options& options, std::string& error) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(options.host.c_str(), options.port.c_str(), &hints, &found) != 0) {
    error = "bad address";
    return -1;
  }
  int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // A send timeout bounds the connect as well.
  const std::int64_t left = std::max<std::int64_t>(1, options.deadline - monotonicMs());
  const timeval limit{left / 1000, left % 1000 * 1000};
  if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0 ||
      connect(fd, found->ai_addr, found->ai_addrlen) != 0) {
    error = std::strerror(errno);
    if (fd >= 0) close(fd);
    fd = -1;
  }
  freeaddrinfo(found);
  return fd;
}

Outcome run(const Options& options, const LoadHeader& header) {
  std::string error;
  const int fd = connectTo(options, error);
  if (fd < 0) return {"connect: " + error, options.host + " port " + options.port};
  const bool greeting = options.script == "greeting";
  const PumpPlan opening{
      .receiveStream = kGreetingStream, .receive = options.banner, .readToEnd = greeting};
  const PumpResult opened = pump(fd, opening, options.deadline);
  Outcome outcome;
  if (greeting || !opened.complete(opening)) {
    outcome = judge(opening, opened);
  } else if (!sendAllBytes(fd, &header, sizeof header)) {
    outcome = {"error: send", "the header"};
  } else if (options.script == "probe") {
    const PumpPlan wait{.readToEnd = true};
    outcome = judge(wait, pump(fd, wait, options.deadline));
  } else {
    outcome = converse(fd, header, options.deadline);
  }
  close(fd);
  return outcome;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string script = argc == 10 ? argv[1] : "";
  if (!scriptFromName(script) && script != "greeting" && script != "probe") {
    std::fprintf(stderr,
                 "usage: tw-e2e-load SCRIPT HOST PORT COUNT FIRST_ID UP DOWN BANNER "
                 "DEADLINE_SECONDS\n");
    return 2;
  }
  const std::int64_t started = monotonicMs();
  const double seconds = std::stod(argv[9]);
  Options options{.script = script,
                  .host = argv[2],
                  .port = argv[3],
                  .count = std::stoull(argv[4]),
                  .firstId = std::stoull(argv[5]),
                  .banner = std::stoull(argv[8]),
                  .up = range(argv[6]),
                  .down = range(argv[7]),
                  .deadline = started + static_cast<std::int64_t>(seconds * 1000)};
  alarm(static_cast<unsigned>(seconds) + 30);  // never outlive a test that forgot this process
  raiseDescriptorLimit();
  std::vector<Outcome> outcomes(options.count);
  std::latch together(static_cast<std::ptrdiff_t>(options.count));
  std::vector<std::thread> threads;
  std::mt19937_64 random(options.firstId);
  for (std::uint64_t i = 0; i < options.count; ++i) {
    const LoadHeader header{.script = scriptFromName(script).value_or(Script::Exchange),
                            .id = options.firstId + i,
                            .up = options.up(random),
                            .down = options.down(random)};
    threads.emplace_back([&, header, i] {
      together.arrive_and_wait();
      outcomes[i] = run(options, header);
    });
  }
  for (auto& thread : threads) thread.join();

  std::map<std::string, int> counts;
  auto failures = nlohmann::json::array();
  for (std::uint64_t i = 0; i < options.count; ++i) {
    const auto& [kind, detail] = outcomes[i];
    ++counts[kind];
    if (kind != "exact" && failures.size() < 20)
      failures.push_back("id " + std::to_string(options.firstId + i) + ": " + kind + " (" + detail +
                         ")");
  }
  const nlohmann::json summary = {
      {"outcomes", counts}, {"failures", failures}, {"seconds", (monotonicMs() - started) / 1e3}};
  std::printf("%s\n", summary.dump().c_str());
}

// tw-e2e-load: many connections from one program at once, for the load and fault tests.
//
//   tw-e2e-load SCRIPT HOST PORT COUNT [--first-id N] [--up N|LOW-HIGH] [--down N|LOW-HIGH]
//               [--seed N] [--banner N] [--deadline SECONDS]
//
// Starts COUNT threads that connect to HOST:PORT together, one connection each, with the ids
// from --first-id on. SCRIPT is one of the scripts of LoadProtocol.h, which the connection
// follows with the server, or "greeting" (read a greeting of --banner bytes, then the end; send
// nothing) or "probe" (send a header, wait for the end or the deadline, judge nothing). Sizes are
// drawn per connection from the seed. With --banner the server speaks first: that many bytes are
// read and checked before the header goes out.
//
// Prints one JSON line: {"outcomes":{OUTCOME:COUNT,...},"failures":[TEXT,...],"seconds":S}, where
// an outcome is "exact", "reset", "end" (a clean end where a reset was due), "short",
// "differs", "timeout", "error: ..." or "connect: ...". Exits 0 once every connection is done.

#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
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

struct Range {
  std::uint64_t low = 0;
  std::uint64_t high = 0;
};

struct Options {
  std::string script;
  std::string host;
  std::string port;
  std::uint64_t count = 0;
  std::uint64_t firstId = 1;
  Range up;
  Range down;
  std::uint64_t seed = 1;
  std::uint64_t banner = 0;
  double deadlineSeconds = 60;
};

struct Outcome {
  std::string kind;
  std::string detail;
};

[[noreturn]] void usage(const std::string& why) {
  std::fprintf(stderr, "tw-e2e-load: %s\n", why.c_str());
  std::exit(2);
}

Range parseRange(const std::string& text) {
  const auto dash = text.find('-');
  if (dash == std::string::npos) return {std::stoull(text), std::stoull(text)};
  return {std::stoull(text.substr(0, dash)), std::stoull(text.substr(dash + 1))};
}

Options parse(int argc, char** argv) {
  if (argc < 5 || (argc - 5) % 2 != 0) usage("usage: SCRIPT HOST PORT COUNT [--option VALUE]...");
  Options options;
  options.script = argv[1];
  options.host = argv[2];
  options.port = argv[3];
  options.count = std::stoull(argv[4]);
  for (int i = 5; i < argc; i += 2) {
    const std::string name = argv[i];
    const std::string value = argv[i + 1];
    if (name == "--first-id") {
      options.firstId = std::stoull(value);
    } else if (name == "--up") {
      options.up = parseRange(value);
    } else if (name == "--down") {
      options.down = parseRange(value);
    } else if (name == "--seed") {
      options.seed = std::stoull(value);
    } else if (name == "--banner") {
      options.banner = std::stoull(value);
    } else if (name == "--deadline") {
      options.deadlineSeconds = std::stod(value);
    } else {
      usage("unknown option " + name);
    }
  }
  const bool known =
      scriptFromName(options.script) || options.script == "greeting" || options.script == "probe";
  if (!known) usage("unknown script " + options.script);
  return options;
}

std::string describe(const PumpPlan& plan, const PumpResult& result) {
  std::string text = "sent " + std::to_string(result.sent) + " of " + std::to_string(plan.send) +
                     ", received " + std::to_string(result.received) + " of " +
                     std::to_string(plan.receive);
  if (result.mismatchAt) text += ", wrong byte at " + std::to_string(*result.mismatchAt);
  if (result.ended) text += ", ended";
  if (result.error) text += std::string(", ") + std::strerror(result.error);
  return text;
}

Outcome judge(const PumpPlan& plan, const PumpResult& result) {
  return {result.outcome(plan), describe(plan, result)};
}

// The conversation after the header, as the script has it.
Outcome converse(int fd, Script script, const LoadHeader& header, std::int64_t deadline) {
  PumpPlan plan{.sendStream = uploadStream(header.id),
                .send = header.up,
                .endAfterSending = script == Script::ClientEndsFirst,
                .receiveStream = answerStream(header.id),
                .receive = header.down,
                .readToEnd = script != Script::ClientResets && script != Script::ServerResets};
  const PumpResult result = pump(fd, plan, deadline);
  if (!result.complete(plan)) return judge(plan, result);
  if (script == Script::ClientResets) resetOnClose(fd);
  if (script != Script::ServerResets) return judge(plan, result);
  // The server resets on this byte; a clean end instead would pass a cut stream off as whole.
  if (!sendAllBytes(fd, "!", 1)) return {"error: send", "the byte that asks for the reset"};
  const PumpPlan tail{.readToEnd = true};
  const PumpResult end = pump(fd, tail, deadline);
  if (end.ended && end.complete(tail)) return {"end", "a clean end where a reset was due"};
  return judge(tail, end);
}

int connectTo(const Options& options, std::int64_t deadline, std::string& error) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(options.host.c_str(), options.port.c_str(), &hints, &found) != 0) {
    error = "bad address";
    return -1;
  }
  const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // A send timeout bounds the connect as well.
  const std::int64_t left = std::max<std::int64_t>(1, deadline - monotonicMs());
  const timeval limit{static_cast<time_t>(left / 1000),
                      static_cast<suseconds_t>(left % 1000 * 1000)};
  if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0 ||
      connect(fd, found->ai_addr, found->ai_addrlen) != 0) {
    error = std::strerror(errno);
    if (fd >= 0) close(fd);
    freeaddrinfo(found);
    return -1;
  }
  freeaddrinfo(found);
  return fd;
}

Outcome run(const Options& options, const LoadHeader& header, std::int64_t deadline) {
  std::string error;
  const int fd = connectTo(options, deadline, error);
  if (fd < 0) return {"connect: " + error, ""};
  Outcome outcome;
  const bool greeting = options.script == "greeting";
  const PumpPlan opening{
      .receiveStream = kGreetingStream, .receive = options.banner, .readToEnd = greeting};
  const PumpResult opened = pump(fd, opening, deadline);
  if (greeting || !opened.complete(opening)) {
    outcome = judge(opening, opened);
  } else if (!sendAllBytes(fd, &header, sizeof header)) {
    outcome = {"error: send", "the header"};
  } else if (options.script == "probe") {
    const PumpPlan wait{.readToEnd = true};
    outcome = judge(wait, pump(fd, wait, deadline));
  } else {
    outcome = converse(fd, *scriptFromName(options.script), header, deadline);
  }
  close(fd);
  return outcome;
}

std::uint64_t draw(std::mt19937_64& random, Range range) {
  return std::uniform_int_distribution<std::uint64_t>(range.low, range.high)(random);
}

void raiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  // Never outlive a test that forgot this process.
  alarm(static_cast<unsigned>(options.deadlineSeconds) + 30);
  raiseDescriptorLimit();
  const std::int64_t started = monotonicMs();
  const std::int64_t deadline = started + static_cast<std::int64_t>(options.deadlineSeconds * 1000);
  const Script script = scriptFromName(options.script).value_or(Script::Exchange);
  std::vector<Outcome> outcomes(options.count);
  std::latch together(static_cast<std::ptrdiff_t>(options.count));
  std::vector<std::thread> threads;
  std::mt19937_64 random(options.seed);
  for (std::uint64_t i = 0; i < options.count; ++i) {
    const LoadHeader header{.script = script,
                            .id = options.firstId + i,
                            .up = draw(random, options.up),
                            .down = draw(random, options.down)};
    threads.emplace_back([&, header, i] {
      together.arrive_and_wait();
      outcomes[i] = run(options, header, deadline);
    });
  }
  for (auto& thread : threads) thread.join();

  std::map<std::string, int> counts;
  nlohmann::json failures = nlohmann::json::array();
  for (std::uint64_t i = 0; i < options.count; ++i) {
    const Outcome& outcome = outcomes[i];
    ++counts[outcome.kind];
    if (outcome.kind != "exact" && failures.size() < 20) {
      failures.push_back("id " + std::to_string(options.firstId + i) + ": " + outcome.kind + ": " +
                         outcome.detail);
    }
  }
  const nlohmann::json summary = {{"outcomes", counts},
                                  {"failures", failures},
                                  {"seconds", (monotonicMs() - started) / 1000.0}};
  std::printf("%s\n", summary.dump().c_str());
  return 0;
}

#pragma once
// The fixture of the load and fault tests: the end-to-end lab with the load client watched as
// well, a load server on the world host, the sizes of the run, and what the interceptor says of
// itself (its status, its descriptors and its memory).
//
// Sizes come from the environment, so that `make soak` runs the same tests at full size; the
// defaults fit a CI run:
//   TW_SOAK_TRANSFERS          concurrent transfers                     (CI 40, full 1000)
//   TW_SOAK_TRANSFER_BYTES     largest transfer, each way               (CI 256 KiB, full 2 MiB)
//   TW_SOAK_BURST              connects in one burst                    (CI 200, full 2000)
//   TW_SOAK_CONVERSATIONS      connections per conversation case        (CI 20, full 200)
//   TW_SOAK_KILLED             transfers open when the front door dies  (CI 10, full 100)
//   TW_SOAK_DEAD_DESTINATIONS  dials per kind of dead destination       (CI 10, full 100)
//   TW_SOAK_SHORT_CLIENTS      short-lived watched programs per round   (CI 40, full 450)
//   TW_SOAK_AWAIT_COOLDOWN     1: wait out the circuit's cool-down      (CI 0, full 1)

#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "EndToEnd.h"
#include "LoadServer.h"

namespace tarnwick::e2e {

// Sanitizers keep freed memory in quarantine: only a plain build says what was given back.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
inline constexpr bool kSanitized =
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool kSanitized = false;
#endif

struct SoakSize {
  std::uint64_t transfers = envOr("TW_SOAK_TRANSFERS", 40);
  std::uint64_t transferBytes = envOr("TW_SOAK_TRANSFER_BYTES", 256 * 1024);
  std::uint64_t burst = envOr("TW_SOAK_BURST", 200);
  std::uint64_t conversations = envOr("TW_SOAK_CONVERSATIONS", 20);
  std::uint64_t killed = envOr("TW_SOAK_KILLED", 10);
  std::uint64_t deadDestinations = envOr("TW_SOAK_DEAD_DESTINATIONS", 10);
  std::uint64_t shortClients = envOr("TW_SOAK_SHORT_CLIENTS", 40);
  bool awaitCooldown = envOr("TW_SOAK_AWAIT_COOLDOWN", 0) != 0;

  static std::uint64_t envOr(const char* name, std::uint64_t fallback) {
    const char* value = std::getenv(name);
    return value && *value ? std::strtoull(value, nullptr, 10) : fallback;
  }
};

// One run of tw-e2e-load (see its header for the scripts and options).
struct LoadRun {
  std::string script = "exchange";
  std::uint16_t port = 0;  // 0: the fixture's load server
  std::string host = kWorldIPv4;
  std::uint64_t count = 1;
  std::uint64_t firstId = 1;
  std::string up = "0";    // N or LOW-HIGH
  std::string down = "0";  // N or LOW-HIGH
  std::uint64_t banner = 0;
  double deadlineSeconds = 60;
};

struct LoadResult {
  Json outcomes;  // {OUTCOME: COUNT}
  double seconds = 0;
  std::string output;
};

class LoadTest : public EndToEndTest {
 protected:
  static constexpr const char* kMark = "0x7477";  // the interceptor's own, as it runs here

  void SetUp() override {
    EndToEndTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    // The world's end of a few thousand connections lives in this process.
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    world_ = std::make_unique<LoadServer>(lab_.world);
    ASSERT_NE(world_->port(), 0);
  }

  static std::string loadClient() { return std::filesystem::canonical(TW_E2E_LOAD); }

  // The front door, marked as a deployment runs it so that its own connections go straight out
  // (its thousands of dials would otherwise be handed back by the interceptor, a second hop the
  // load would measure as well); the interceptor; and the load client watched beside the usual
  // programs.
  void startRelaying() {
    ASSERT_NO_FATAL_FAILURE(startMarkedFrontDoor());
    ASSERT_NO_FATAL_FAILURE(startInterceptor());
    std::string reply;
    ASSERT_EQ(inAgent(proxyext() + " watch --control-socket " + file("control.sock") +
                          " --signing-id " + watchedClient() + " --signing-id " + proxyext() +
                          " --signing-id " + loadClient(),
                      &reply),
              0)
        << reply;
  }

  void startMarkedFrontDoor() {
    startListener(frontDoor_, {TW_E2E_FRONTDOOR, "--listen",
                               "127.0.0.1:" + std::to_string(kFrontDoorPort), "--mark", kMark});
  }

  std::unique_ptr<Process> spawnLoad(const LoadRun& run) {
    const std::uint16_t port = run.port != 0 ? run.port : world_->port();
    return std::make_unique<Process>(
        lab_.agent,
        std::vector<std::string>{loadClient(), run.script, run.host, std::to_string(port),
                                 std::to_string(run.count), "--first-id",
                                 std::to_string(run.firstId), "--up", run.up, "--down", run.down,
                                 "--banner", std::to_string(run.banner), "--deadline",
                                 std::to_string(run.deadlineSeconds)},
        file("load-" + std::to_string(spawned_++) + ".log"));
  }
  // The outcomes of a load run, once it ends (it ends by its own deadline at the latest).
  static LoadResult finishLoad(Process& load, double deadlineSeconds) {
    const auto limit = std::chrono::milliseconds(static_cast<int>(deadlineSeconds * 1000)) + 20s;
    LoadResult result{Json::object(), 0, ""};
    if (load.wait(limit) != 0) {
      result.output = "tw-e2e-load did not finish: " + load.output();
      return result;
    }
    result.output = load.output();
    // The summary is the last line.
    const auto newline = result.output.rfind('\n', result.output.find_last_not_of('\n'));
    const auto summary =
        Json::parse(result.output.substr(newline == std::string::npos ? 0 : newline + 1), nullptr,
                    /*allow_exceptions=*/false);
    if (!summary.is_object()) return result;
    result.outcomes = summary.value("outcomes", Json::object());
    result.seconds = summary.value("seconds", 0.0);
    return result;
  }
  LoadResult runLoad(const LoadRun& run) {
    return finishLoad(*spawnLoad(run), run.deadlineSeconds);
  }
  // How many connections a run's outcomes tell of.
  static std::uint64_t total(const Json& outcomes) {
    std::uint64_t sum = 0;
    for (const auto& [outcome, count] : outcomes.items()) sum += count.get<std::uint64_t>();
    return sum;
  }
  // Outcomes of a run in which all `count` connections are to end as `outcome`.
  static Json all(std::uint64_t count, const char* outcome = "exact") {
    return Json{{outcome, count}};
  }

  // The ids from `first` on, `count` of them, each reach the world `connections` times with a
  // whole upload (a server may note an upload only once the client's end has reached it).
  void expectVisits(std::uint64_t first, std::uint64_t count, int connections = 1) const {
    std::vector<std::string> unlike;
    eventually([&] {
      unlike = world_->unlikeVisits(first, count, connections);
      return unlike.empty();
    });
    EXPECT_TRUE(unlike.empty()) << unlike.size() << " ids did not reach the world exactly "
                                << connections << " times, whole; " << unlike.front();
  }

  // The interceptor's status, or an empty object when it does not answer.
  Json status() const {
    std::string output;
    inAgent(proxyext() + " status --control-socket " + file("control.sock"), &output);
    auto status = Json::parse(output, nullptr, /*allow_exceptions=*/false);
    return status.is_object() ? status : Json::object();
  }
  // The status once the interceptor carries no watched flow any more.
  Json settledStatus(std::chrono::milliseconds limit = 10s) const {
    Json now;
    eventually(
        [&] {
          now = status();
          return now.value("relays", -1) == 0;
        },
        limit);
    return now;
  }

  // The interceptor's descriptors by kind: "socket", "pipe", "proc" (a directory of a process)
  // and "other".
  std::map<std::string, std::size_t> interceptorDescriptors() const {
    std::map<std::string, std::size_t> kinds;
    std::error_code error;
    const auto fds = "/proc/" + std::to_string(interceptor_->pid()) + "/fd";
    for (const auto& entry : std::filesystem::directory_iterator(fds, error)) {
      const std::string target = std::filesystem::read_symlink(entry.path(), error).string();
      if (error) continue;  // closed meanwhile
      const bool socket = target.starts_with("socket:");
      const bool pipe = target.starts_with("pipe:");
      ++kinds[socket ? "socket" : pipe ? "pipe" : target.starts_with("/proc/") ? "proc" : "other"];
    }
    return kinds;
  }
  std::size_t interceptorResidentKiB() const {
    std::ifstream status("/proc/" + std::to_string(interceptor_->pid()) + "/status");
    for (std::string key; status >> key;) {
      std::size_t value = 0;
      if (key == "VmRSS:" && status >> value) return value;
    }
    return 0;
  }

  const SoakSize size_{};
  std::unique_ptr<LoadServer> world_;
};

}  // namespace tarnwick::e2e

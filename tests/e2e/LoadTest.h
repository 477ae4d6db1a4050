#pragma once
// The fixture of the load and fault tests: the end-to-end lab with the load client watched as
// well, a load server on the world host, the sizes of the run, and runs of the load client.
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

#include <cstdlib>
#include <filesystem>
#include <string>

#include "EndToEnd.h"
#include "LoadServer.h"

namespace tarnwick::e2e {

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

// One run of tw-e2e-load (see its header for the scripts and the rest).
struct LoadRun {
  std::string script = "exchange";
  std::uint16_t port = 0;  // 0: the fixture's load server
  std::uint64_t count = 1;
  std::uint64_t firstId = 1;
  std::string up = "0";    // N or LOW-HIGH
  std::string down = "0";  // N or LOW-HIGH
  std::uint64_t banner = 0;
  double deadlineSeconds = 60;
};

struct LoadResult {
  Json outcomes = Json::object();  // {OUTCOME: COUNT}
  double seconds = 0;
  std::string output;
};

class LoadTest : public EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    raiseDescriptorLimit();  // the world's end of every connection lives in this process
    world_ = std::make_unique<LoadServer>(lab_.world);
    ASSERT_NE(world_->port(), 0);
  }

  // The front door, marked as a deployment runs it so that its own connections go straight out
  // (its thousands of dials would otherwise be handed back by the interceptor, a second hop the
  // load would measure as well); the interceptor; and the load client watched beside the usual
  // programs.
  void startRelaying() {
    ASSERT_NO_FATAL_FAILURE(startMarkedFrontDoor());
    ASSERT_NO_FATAL_FAILURE(startInterceptor());
    const auto reply =
        control("watch --signing-id " + watchedClient() + " --signing-id " + proxyext() +
                " --signing-id " + std::filesystem::canonical(TW_E2E_LOAD).string());
    ASSERT_NE(reply.find(R"("ok":true)"), std::string::npos) << reply;
  }
  void startMarkedFrontDoor() {
    startListener(frontDoor_, {TW_E2E_FRONTDOOR, "--listen",
                               "127.0.0.1:" + std::to_string(kFrontDoorPort), "--mark", "0x7477"});
  }

  std::unique_ptr<Process> spawnLoad(const LoadRun& run) {
    const std::uint16_t port = run.port != 0 ? run.port : world_->port();
    return std::make_unique<Process>(
        lab_.agent,
        std::vector<std::string>{TW_E2E_LOAD, run.script, kWorldIPv4, std::to_string(port),
                                 std::to_string(run.count), std::to_string(run.firstId), run.up,
                                 run.down, std::to_string(run.banner),
                                 std::to_string(run.deadlineSeconds)},
        file("load-" + std::to_string(spawned_++) + ".log"));
  }
  // The outcomes of a load run, once it ends (by its own deadline at the latest); its summary is
  // its last line.
  static LoadResult finishLoad(Process& load, double deadlineSeconds = 60) {
    const auto limit = std::chrono::milliseconds(static_cast<int>(deadlineSeconds * 1000)) + 20s;
    if (load.wait(limit) != 0) return {.output = "tw-e2e-load did not finish: " + load.output()};
    LoadResult result{.output = load.output()};
    const auto summary = Json::parse(
        result.output.substr(result.output.rfind('\n', result.output.size() - 2) + 1), nullptr,
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
  // whole upload, and end as `ending` says (see LoadServer::unlikeVisits); a server may note
  // either only once the client's end has reached it.
  void expectVisits(std::uint64_t first, std::uint64_t count, int connections = 1,
                    const std::string& ending = "") const {
    std::vector<std::string> unlike;
    eventually([&] {
      unlike = world_->unlikeVisits(first, count, connections, ending);
      return unlike.empty();
    });
    EXPECT_TRUE(unlike.empty()) << unlike.size() << " ids did not reach the world exactly "
                                << connections << " times, whole; " << unlike.front();
  }

  // The interceptor's status, or an empty object when it does not answer.
  Json status() const {
    auto now = EndToEndTest::status();
    return now.is_object() ? now : Json::object();
  }
  std::uint64_t counter(const char* name) const { return status().value(name, std::uint64_t{0}); }
  // The status once the interceptor carries no watched flow any more.
  Json settledStatus(std::chrono::milliseconds limit = 10s) const {
    Json now;
    eventually([&] { return (now = status()).value("relays", -1) == 0; }, limit);
    return now;
  }

  const SoakSize size_{};
  std::unique_ptr<LoadServer> world_;
};

}  // namespace tarnwick::e2e

#include "EndToEndTest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace tarnwick::e2e {
namespace {

using namespace std::chrono_literals;

FrontDoorLine parseFrontDoorLine(const std::string& line) {
  FrontDoorLine fields;
  std::istringstream words(line);
  std::string word;
  while (words >> word) {
    const auto equals = word.find('=');
    if (equals != std::string::npos) fields[word.substr(0, equals)] = word.substr(equals + 1);
  }
  return fields;
}

pid_t printedPid(const std::string& output) {
  const auto at = output.find("pid=");
  return at == std::string::npos ? 0 : std::atoi(output.c_str() + at + 4);
}

}  // namespace

std::string EndToEndTest::watchedClient() {
  return std::filesystem::canonical(TW_E2E_CLIENT).string();
}

std::string EndToEndTest::proxyext() { return TW_E2E_PROXYEXT; }

void EndToEndTest::SetUp() {
  if (geteuid() != 0) {
    GTEST_SKIP() << "end-to-end tests need root for network namespaces and nftables; "
                    "run them with sudo (make test does)";
  }
  std::string error;
  lab_ = NetworkLab::create(error);
  ASSERT_TRUE(lab_) << error;
  sink_ = std::make_unique<EventSink>(file("daemon.sock"));
  ASSERT_TRUE(sink_->start(error)) << error;
  echo_ = WorldServer::start(lab_->world(), ServerKind::Echo, error);
  ASSERT_TRUE(echo_) << error;
  late_ = WorldServer::start(lab_->world(), ServerKind::ReplyAfterEof, error);
  ASSERT_TRUE(late_) << error;
  flood_ = WorldServer::start(lab_->world(), ServerKind::Flood, error);
  ASSERT_TRUE(flood_) << error;
  reset_ = WorldServer::start(lab_->world(), ServerKind::ResetEarly, error);
  ASSERT_TRUE(reset_) << error;
  std::filesystem::create_directory(file("twin"));
  twin_ = file("twin/tw-e2e-client");
  std::filesystem::copy_file(watchedClient(), twin_);
  chmod(twin_.c_str(), 0755);
}

void EndToEndTest::TearDown() {
  if (HasFailure()) {
    if (interceptor_) std::cerr << "--- interceptor\n" << interceptor_->output();
    if (frontDoor_) std::cerr << "--- front door\n" << frontDoor_->output();
    if (sink_) {
      std::cerr << "--- events\n";
      for (const auto& event : sink_->events()) std::cerr << event.dump() << "\n";
    }
  }
  if (interceptor_) {
    interceptor_->signal(SIGTERM);
    interceptor_->waitFor(5s);
  }
  interceptor_.reset();
  frontDoor_.reset();
  echo_.reset();
  late_.reset();
  flood_.reset();
  reset_.reset();
  sink_.reset();
  lab_.reset();
}

void EndToEndTest::startFrontDoor(const std::string& mode) {
  std::string error;
  frontDoor_ = ChildProcess::spawn({{TW_E2E_FRONTDOOR, "--listen",
                                     "127.0.0.1:" + std::to_string(kFrontDoorPort), "--mode", mode},
                                    lab_->agent(),
                                    file("frontdoor-" + std::to_string(spawned_++) + ".log")},
                                   error);
  ASSERT_TRUE(frontDoor_) << error;
  ASSERT_TRUE(eventually([&] {
    return frontDoor_->output().find("listening") != std::string::npos;
  })) << frontDoor_->output();
}

void EndToEndTest::stopFrontDoor() {
  frontDoor_->signal(SIGTERM);
  ASSERT_TRUE(frontDoor_->waitFor(5s));
}

void EndToEndTest::startInterceptor(const nlohmann::json& options) {
  watchOptions_ = options;
  nlohmann::json all = options;
  all["frontDoorHost"] = "127.0.0.1";
  all["frontDoorPort"] = kFrontDoorPort;
  all["socketPath"] = sink_->path();
  std::ofstream(file("options.json")) << all.dump();
  std::string error;
  interceptor_ = ChildProcess::spawn({{proxyext(), "run", "--options", file("options.json"),
                                       "--control-socket", file("control.sock"), "--table", kTable},
                                      lab_->agent(),
                                      file("interceptor.log")},
                                     error);
  ASSERT_TRUE(interceptor_) << error;
  ASSERT_TRUE(eventually([&] {
    return std::filesystem::exists(file("control.sock")) && tableExists();
  })) << interceptor_->output();
}

bool EndToEndTest::tableExists() const {
  return runCommand({"nft", "list", "table", "inet", kTable}, lab_->agent()).status == 0;
}

bool EndToEndTest::relaying() {
  std::vector<std::string> args;
  for (const auto& id : watchOptions_.value("watchedSigningIDs", nlohmann::json::array())) {
    args.insert(args.end(), {"--signing-id", id.get<std::string>()});
  }
  for (const auto& pid : watchOptions_.value("watchedPIDs", nlohmann::json::array())) {
    args.insert(args.end(), {"--pid", std::to_string(pid.get<long long>())});
  }
  return watch(args).status == 0;
}

std::unique_ptr<ChildProcess> EndToEndTest::spawnClient(const ClientSpec& wanted, bool waitStdin) {
  const std::string program = wanted.watchedCopy ? watchedClient() : unwatchedClient();
  std::vector<std::string> argv = {program};
  if (wanted.descend > 0) {
    argv.insert(argv.end(), {"--descend", std::to_string(wanted.descend), "--via", twin_});
  }
  if (waitStdin) argv.push_back("--wait-stdin");
  const std::uint16_t port = wanted.port != 0 ? wanted.port : echo_->port();
  argv.insert(argv.end(),
              {wanted.mode, wanted.host, std::to_string(port), std::to_string(wanted.bytes)});
  std::string error;
  auto client = ChildProcess::spawn(
      {argv, lab_->agent(), file("client-" + std::to_string(spawned_++) + ".log"), waitStdin},
      error);
  EXPECT_TRUE(client) << error;
  return client;
}

ClientRun EndToEndTest::finishClient(ChildProcess& client) {
  ClientRun run;
  run.status = client.waitFor(20s).value_or(-1);
  run.output = client.output();
  run.pid = printedPid(run.output);
  return run;
}

ClientRun EndToEndTest::runClient(const ClientSpec& wanted) {
  auto client = spawnClient(wanted);
  return client ? finishClient(*client) : ClientRun{};
}

CommandResult EndToEndTest::watch(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {proxyext(), "watch", "--control-socket", file("control.sock")};
  argv.insert(argv.end(), args.begin(), args.end());
  return runCommand(argv, lab_->agent());
}

std::vector<FrontDoorLine> EndToEndTest::frontDoorLines(std::size_t count) {
  std::vector<FrontDoorLine> lines;
  eventually([&] {
    lines.clear();
    std::istringstream text(frontDoor_->output());
    for (std::string line; std::getline(text, line);) {
      if (line.rfind("conn ", 0) == 0) lines.push_back(parseFrontDoorLine(line));
    }
    return lines.size() >= count;
  });
  return lines;
}

}  // namespace tarnwick::e2e

// The control socket: how a request names its operation, what may already be at the socket's
// path, and the server against clients that misbehave: hang up early, say nothing, send too
// much, come in crowds, or are not root. The deadlines run on a simulated clock; the sockets and
// the loop are real.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "HostTesting.h"
#include "host/PassThroughProvider.h"
#include "host/control/ControlClient.h"
#include "host/control/ControlServer.h"
#include "host/control/ControlSocket.h"
#include "platform/testing/CaptureLogSink.h"
#include "platform/testing/CaseName.h"
#include "platform/testing/SimulatedRuntime.h"

namespace tarnwick::host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// A Unix stream socket connected to `path`; invalid when nobody listens.
UniqueFd connectUnix(const std::string& path) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fd.reset();
  }
  return fd;
}

// Whether the server has closed its end of `fd` (read without waiting).
bool closedByServer(const TestClient& client) {
  char byte;
  return ::recv(client.fd(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
}

struct Framing {
  const char* name;
  std::string bytes;
  std::optional<ControlOperation> operation;  // absent: refused
  std::string body;
};

class ControlRequestTest : public ::testing::TestWithParam<Framing> {};

// Only the exact first line names an operation: a bare watch-set message (an empty object
// empties the watch set) is no request, and a status query never carries a watch set.
TEST_P(ControlRequestTest, OnlyAnExactFirstLineNamesTheOperation) {
  std::string error;
  const auto request = parseControlRequest(bytesOf(GetParam().bytes), error);
  ASSERT_EQ(request.has_value(), GetParam().operation.has_value()) << error;
  if (!request) {
    EXPECT_FALSE(error.empty());
    return;
  }
  EXPECT_EQ(request->operation, *GetParam().operation);
  EXPECT_EQ(textOf(request->body), GetParam().body);
  EXPECT_EQ(controlRequestBytes(request->operation, request->body), bytesOf(GetParam().bytes));
}

INSTANTIATE_TEST_SUITE_P(
    Framings, ControlRequestTest,
    ::testing::Values(Framing{"Watch", "watch\n{\"watchedPIDs\":[7]}", ControlOperation::Watch,
                              "{\"watchedPIDs\":[7]}"},
                      Framing{"WatchEmptyObject", "watch\n{}", ControlOperation::Watch, "{}"},
                      Framing{"WatchNothing", "watch\n", ControlOperation::Watch, ""},
                      Framing{"Status", "status\n", ControlOperation::Status, ""},
                      Framing{"BareWatchSet", "{}", std::nullopt, ""},
                      Framing{"BareWatchSetWithLine", "{}\n", std::nullopt, ""},
                      Framing{"StatusWithWatchSet", "status\n{}", std::nullopt, ""},
                      Framing{"NoLineEnd", "status", std::nullopt, ""},
                      Framing{"CarriageReturn", "status\r\n", std::nullopt, ""},
                      Framing{"Capitals", "Watch\n{}", std::nullopt, ""},
                      Framing{"Blank", "watch \n{}", std::nullopt, ""},
                      Framing{"Empty", "", std::nullopt, ""}),
    CaseName());

class ControlSocketTest : public ::testing::Test {
 protected:
  void TearDown() override { fs::remove_all(directory_); }

  const fs::path directory_ = [] {
    const fs::path path =
        fs::path(::testing::TempDir()) / ("control-" + std::to_string(::getpid()));
    fs::create_directories(path);
    return path;
  }();
  const std::string path_ = (directory_ / "control.sock").string();
};

// A running interceptor's socket is never taken over and another file never removed; one that
// nobody listens on any more is replaced. Each refusal says what is there.
TEST_F(ControlSocketTest, WhatIsAtThePathDecides) {
  std::string error;
  EXPECT_TRUE(controlSocketPathUsable(path_, error)) << error;
  UniqueFd live = bindControlSocket(path_, std::nullopt, error);
  ASSERT_TRUE(live) << error;
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_FALSE(controlSocketPathUsable(path_, error));
  EXPECT_NE(error.find(path_ + " is in use by a running interceptor"), std::string::npos);
  EXPECT_FALSE(bindControlSocket(path_, std::nullopt, error));
  EXPECT_TRUE(connectUnix(path_)) << "the live socket is still there";

  live.reset();  // the interceptor died without removing it
  EXPECT_TRUE(controlSocketPathUsable(path_, error)) << error;
  EXPECT_TRUE(bindControlSocket(path_, std::nullopt, error)) << error;

  fs::remove(path_);
  std::ofstream(path_) << "not ours";
  const std::pair<std::string, std::string> refused[] = {
      {path_, path_ + " exists and is not a socket"},
      {directory_.string(), directory_.string() + " exists and is not a socket"},
      {"/run/" + std::string(103, 'a'), "is empty or longer than 107 bytes"},
      {"", "is empty or longer than 107 bytes"}};
  for (const auto& [path, says] : refused) {
    EXPECT_FALSE(controlSocketPathUsable(path, error)) << path;
    EXPECT_NE(error.find(says), std::string::npos) << error;
    EXPECT_FALSE(bindControlSocket(path, std::nullopt, error)) << path;
  }
  EXPECT_EQ(fs::file_size(path_), 8u);
  EXPECT_FALSE(bindControlSocket((directory_ / "none" / "s").string(), std::nullopt, error));
  EXPECT_NE(error.find("its directory does not exist"), std::string::npos) << error;
}

// A host that takes the connection and never answers is reported, not waited on for ever.
TEST_F(ControlSocketTest, TheClientGivesUpOnAHostThatNeverAnswers) {
  std::string error;
  const UniqueFd stuck = bindControlSocket(path_, std::nullopt, error);
  ASSERT_TRUE(stuck) << error;
  EXPECT_FALSE(sendControlRequest(path_, ControlOperation::Status, {}, error, 50ms));
  EXPECT_EQ(error, "control socket " + path_ + ": no reply in time (waited 50 ms)");
}

// Replies to watch sets as the provider gives them, and records what reached it.
struct RecordingProvider : PassThroughProvider {
  void handleAppMessage(Bytes message, AppMessageCompletion completion) override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      messages.push_back(std::move(message));
    }
    completion(bytesOf("{\"ok\":true}"));
  }
  std::size_t count() {
    std::lock_guard<std::mutex> lock(mutex);
    return messages.size();
  }
  std::mutex mutex;
  std::vector<Bytes> messages;
};

class ControlServerTest : public ::testing::Test {
 protected:
  void serve(ControlAccess access = ControlAccess(), ControlServer::Limits limits = {}) {
    server_ = ControlServer::create(
        {loop_, realRuntime()->makeQueue("framework", QualityOfService::Default), simulated_,
         provider_,
         [] {
           return Json{{"relays", 3}};
         },
         access, limits, nullptr});
    std::string error;
    ASSERT_TRUE(server_->listen(path_, error)) << error;
  }
  void TearDown() override {
    loop_->stop();
    if (server_) server_->close();
  }
  std::optional<Bytes> ask(ControlOperation operation, const std::string& body = "") {
    std::string error;
    auto reply = sendControlRequest(path_, operation, bytesOf(body), error);
    EXPECT_TRUE(reply) << error;
    return reply;
  }
  // Advances the deadlines' clock, then waits for a request on the loop: what the timers posted
  // there before it has run by the time it is answered.
  void advance(Duration by) {
    simulated_->advance(by);
    ask(ControlOperation::Status);
  }

  const std::string path_ =
      ::testing::TempDir() + "control-server-" + std::to_string(::getpid()) + ".sock";
  const std::shared_ptr<SimulatedRuntime> simulated_ = SimulatedRuntime::create();
  const std::shared_ptr<HostLoop> loop_ = std::make_shared<HostLoop>();
  const std::shared_ptr<RecordingProvider> provider_ = std::make_shared<RecordingProvider>();
  std::shared_ptr<ControlServer> server_;
};

TEST_F(ControlServerTest, AnswersEachOperationAndRefusesWhatNamesNone) {
  serve();
  EXPECT_EQ(ask(ControlOperation::Watch, "{\"watchedPIDs\":[7]}"), bytesOf("{\"ok\":true}"));
  EXPECT_EQ(ask(ControlOperation::Status), bytesOf("{\"relays\":3}"));
  TestClient bare(connectUnix(path_));
  bare.write("{}", true);
  EXPECT_EQ(bare.readToEnd(), R"({"error":"the request has no operation line","ok":false})");
  ASSERT_EQ(provider_->count(), 1u);
  EXPECT_EQ(provider_->messages[0], bytesOf("{\"watchedPIDs\":[7]}"));
}

// Hanging up leaves a socket that is always ready; the request is answered once all the same,
// and nothing is read from it again.
TEST_F(ControlServerTest, AClientThatHangsUpIsAnsweredOnce) {
  ScopedLogCapture logs;
  serve();
  for (int i = 0; i < 3; ++i) {
    UniqueFd client = connectUnix(path_);
    const Bytes request = controlRequestBytes(ControlOperation::Watch, bytesOf("{}"));
    ASSERT_EQ(::send(client.get(), request.data(), request.size(), 0),
              static_cast<ssize_t>(request.size()));
  }
  ASSERT_TRUE(eventually([&] { return provider_->count() == 3; }));
  ask(ControlOperation::Status);
  EXPECT_EQ(provider_->count(), 3u);
  EXPECT_EQ(logs->records().size(), 0u) << logs->messages().front();
}

TEST_F(ControlServerTest, ASilentClientNeitherHoldsUpOthersNorOutstaysTheDeadline) {
  ScopedLogCapture logs;
  serve();
  TestClient silent(connectUnix(path_));
  EXPECT_EQ(ask(ControlOperation::Watch, "{}"), bytesOf("{\"ok\":true}"));
  advance(4s);  // t=4s
  EXPECT_FALSE(closedByServer(silent));
  advance(2s);  // t=6s: past the 5-second deadline and its leeway
  EXPECT_TRUE(closedByServer(silent));
  EXPECT_EQ(logs->countContaining("no whole request within the deadline"), 1u);
}

TEST_F(ControlServerTest, AnOversizedRequestIsClosedUnanswered) {
  ScopedLogCapture logs;
  serve(ControlAccess(), {.maximumRequestBytes = 1024});
  TestClient client(connectUnix(path_));
  client.write("watch\n" + std::string(1019, ' '), false);  // 1025 bytes
  EXPECT_EQ(client.readToEnd(), "");
  EXPECT_EQ(provider_->count(), 0u);
  EXPECT_EQ(logs->count("control: a request larger than 1024 bytes — closed unanswered"), 1u);
  EXPECT_EQ(ask(ControlOperation::Watch, std::string(1018, ' ')), bytesOf("{\"ok\":true}"));
}

// Idle connections beyond the cap push out the oldest idle ones, so the newest request always
// gets through, and the server never holds more than the cap.
TEST_F(ControlServerTest, CrowdsOfIdleClientsNeverCrowdOutARequest) {
  constexpr int kIdle = 100;
  constexpr std::size_t kCap = 8;
  ScopedLogCapture logs;
  serve(ControlAccess(), {.maximumConnections = kCap});
  std::vector<TestClient> idle;
  for (int i = 0; i < kIdle; ++i) idle.emplace_back(connectUnix(path_));
  EXPECT_EQ(ask(ControlOperation::Status), bytesOf("{\"relays\":3}"));
  for (int i = 0; i < kIdle; ++i) {
    EXPECT_EQ(closedByServer(idle[i]), i < kIdle - static_cast<int>(kCap) + 1) << i;
  }
}

// Root (this test) may use the socket; another user may not, even where the file's mode lets
// it connect, unless it belongs to the control group, as primary group or supplementary.
TEST_F(ControlServerTest, OnlyRootAndTheControlGroupAreServed) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run clients as another user";
  constexpr gid_t kGroup = 4242;
  serve(ControlAccess(kGroup));
  struct stat file {};
  ASSERT_EQ(::stat(path_.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777, 0660u);
  EXPECT_EQ(file.st_gid, kGroup);
  ::chmod(path_.c_str(), 0666);
  const auto as = [&](const std::string& credentials, const std::string& command) {
    const std::string line = "setpriv --reuid=65534 " + credentials + " " +
                             TARNWICK_PROXYEXT_BINARY + " " + command + " --control-socket " +
                             path_ + " >/dev/null 2>&1";
    const int status = std::system(line.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  EXPECT_EQ(as("--regid=65534 --clear-groups", "watch --pid 1"), 1);
  EXPECT_EQ(as("--regid=65534 --clear-groups", "status"), 1);
  EXPECT_EQ(provider_->count(), 0u);
  EXPECT_EQ(as("--regid=65534 --groups=4242", "watch --pid 1"), 0);
  EXPECT_EQ(as("--regid=4242 --clear-groups", "status"), 0);
  EXPECT_EQ(provider_->count(), 1u);
}

}  // namespace
}  // namespace tarnwick::host

// A relayed flow's two sockets handed to the real splicer: the agent's (a socket-backed flow) and
// the upstream's (a real connection). Bytes cross exactly, both ways, each end after its bytes,
// counted on the host's counters; a read still waiting is the splice's to carry; a leg that is
// busy is not taken; a host that stops resets the agent through the splice.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <mutex>

#include "HostTesting.h"
#include "host/intake/SocketFlow.h"
#include "platform/StreamSplicer.h"
#include "platform/posix/Sockets.h"
#include "platform/testing/LoopbackServer.h"
#include "platform/testing/ScriptedFlow.h"

namespace tarnwick::host {
namespace {

using namespace std::chrono_literals;

const char* nameOf(SpliceDirection direction) {
  return direction == SpliceDirection::AgentToUpstream ? "agent-to-upstream" : "upstream-to-agent";
}

// What the splice reported: the bytes each way, and each end or failure with the bytes reported
// in its direction before it.
class SpliceRecord : public SpliceObserver {
 public:
  void spliceMoved(SpliceDirection d, std::size_t bytes) override {
    std::lock_guard<std::mutex> lock(mutex_);
    moved_[d] += bytes;
  }
  void spliceEnded(SpliceDirection d) override {
    std::lock_guard<std::mutex> lock(mutex_);
    trail_.push_back(std::string("end ") + nameOf(d) + " after " + std::to_string(moved_[d]));
  }
  void spliceFailed(SpliceSide side, const NWError& error) override {
    std::lock_guard<std::mutex> lock(mutex_);
    trail_.push_back(std::string(side == SpliceSide::Agent ? "agent" : "upstream") +
                     " failed: " + std::to_string(error.code));
  }
  std::vector<std::string> trail() {
    std::lock_guard<std::mutex> lock(mutex_);
    return trail_;
  }

 private:
  std::mutex mutex_;
  std::map<SpliceDirection, std::size_t> moved_;
  std::vector<std::string> trail_;
};

class SpliceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    const UniqueFd listener = bindTcpSocket(loopbackAddress("127.0.0.1", 0), error);
    ASSERT_EQ(::listen(listener.get(), 1), 0) << error;
    agent_.emplace(*localAddress(listener.get()));
    flow_ = SocketFlow::create(
        loop_, UniqueFd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)),
        {"127.0.0.1", "443"}, {}, queue_, counters_);
    flow_->open(std::nullopt, [](std::optional<NEError>) {});
    upstream_ = realConnectionFactory()->makeConnection(
        NWEndpoint::hostPort("127.0.0.1", *NWEndpointPort::make(destination_.port())),
        NWParameters::tcp());
    std::promise<void> ready;
    upstream_->setStateUpdateHandler([&ready](const NWConnectionState& state) {
      if (state.kind == NWConnectionState::Kind::Ready) ready.set_value();
    });
    upstream_->start(queue_);
    ASSERT_EQ(ready.get_future().wait_for(5s), std::future_status::ready);
    upstream_->setStateUpdateHandler(nullptr);
    peer_ = destination_.peer(0);
    ASSERT_NE(peer_, nullptr);
  }

  StreamSplicer::Started splice() {
    return realStreamSplicer()->splice(*flow_, *upstream_, queue_, record_);
  }

  LoopbackServer destination_{"127.0.0.1"};
  std::shared_ptr<HostLoop> loop_ = std::make_shared<HostLoop>();
  std::shared_ptr<DispatchQueue> queue_ =
      realRuntime()->makeQueue("relay", QualityOfService::UserInitiated);
  std::shared_ptr<HostCounters> counters_ = std::make_shared<HostCounters>();
  std::optional<TestClient> agent_;
  std::shared_ptr<SocketFlow> flow_;
  std::shared_ptr<NWConnection> upstream_;
  LoopbackServer::Peer* peer_ = nullptr;
  std::shared_ptr<SpliceRecord> record_ = std::make_shared<SpliceRecord>();
};

TEST_F(SpliceTest, CarriesEveryByteBothWaysAndEachEndAfterItsBytes) {
  // The relay's read, still waiting, is dropped: its bytes are the splice's.
  flow_->readData([](std::optional<Bytes>, std::optional<NEError>) {
    ADD_FAILURE() << "a read dropped by the splice completed";
  });
  const auto started = splice();
  ASSERT_TRUE(started.splice);
  const std::string up = patterned(3 << 20), down = patterned(700001);
  std::thread writer([&] { agent_->write(up, true); });
  const std::string arrived = peer_->readToEnd();
  writer.join();
  EXPECT_TRUE(arrived == up) << arrived.size() << " of " << up.size() << " bytes";
  peer_->write(down);
  peer_->shutdownWrite();
  const std::string back = agent_->readToEnd();
  EXPECT_TRUE(back == down) << back.size() << " of " << down.size() << " bytes";
  EXPECT_EQ(agent_->error(), 0);
  ASSERT_TRUE(eventually([&] { return record_->trail().size() == 2; }));
  EXPECT_EQ(record_->trail(), (std::vector<std::string>{
                                  "end agent-to-upstream after " + std::to_string(up.size()),
                                  "end upstream-to-agent after " + std::to_string(down.size())}));
  const Json counts = counters_->snapshot();
  EXPECT_EQ(counts["bytesFromAgents"], up.size());
  EXPECT_EQ(counts["bytesToAgents"], down.size());
  started.splice->close(StreamSplice::Closing::Orderly);
  started.splice->close(StreamSplice::Closing::ResetAgent);  // once only
}

// The connection's socket goes to the splice with its receive still waiting: that receive never
// completes, and what the destination sends after the hand-over reaches the agent, both before
// and after the agent's side has moved bytes.
TEST_F(SpliceTest, AReceiveWaitingOnTheConnectionIsTheSplicesToCarry) {
  upstream_->receive(1, 65536, [](std::optional<Bytes>, bool, std::optional<NWError>) {
    ADD_FAILURE() << "a receive dropped by the splice completed";
  });
  const auto started = splice();
  ASSERT_TRUE(started.splice);
  for (const std::string& round : {std::string("first"), patterned(300000)}) {
    peer_->write(round);
    std::string arrived(round.size(), '\0');
    std::size_t got = 0;
    for (pollfd ready{agent_->fd(), POLLIN, 0};
         got < round.size() && ::poll(&ready, 1, 5000) > 0;) {
      const ssize_t n = ::recv(agent_->fd(), arrived.data() + got, round.size() - got, 0);
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    EXPECT_TRUE(arrived == round) << got << " of " << round.size() << " bytes";
    agent_->write("ack", false);
    EXPECT_EQ(peer_->read(3), "ack");
  }
  started.splice->close(StreamSplice::Closing::Orderly);
  EXPECT_EQ(peer_->readToEnd(), "");
  EXPECT_FALSE(peer_->sawReset());
}

// A connection whose send completion is still on its way is not taken, and neither is the flow:
// once the completion has run, both go.
TEST_F(SpliceTest, ALegWithACompletionOnItsWayIsTakenOnlyOnceItArrives) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  queue_->async([released] { released.wait(); });  // holds the connection's completions back
  std::atomic<bool> sent{false};
  upstream_->send(bytesOf("GET"), true, [&sent](std::optional<NWError>) { sent = true; });
  EXPECT_EQ(peer_->read(3), "GET");
  EXPECT_EQ(splice().refusal, StreamSplicer::Refusal::NotNow);
  release.set_value();
  ASSERT_TRUE(eventually([&] { return sent.load(); }));
  const auto started = splice();
  ASSERT_TRUE(started.splice);
  agent_->write("x", false);
  EXPECT_EQ(peer_->read(1), "x");
  started.splice->close(StreamSplice::Closing::Orderly);
}

TEST_F(SpliceTest, FlowsWithoutSocketsAreNeverSpliced) {
  auto scripted = std::make_shared<ScriptedTCPFlow>(queue_, NEFlowMetaData{}, std::nullopt);
  scripted->open(std::nullopt, [](std::optional<NEError>) {});
  const auto started = realStreamSplicer()->splice(*scripted, *upstream_, queue_, record_);
  EXPECT_FALSE(started.splice);
  EXPECT_EQ(started.refusal, StreamSplicer::Refusal::Never);
}

// An agent that resets while bytes pour in fails the agent's side, and only that (this test's
// process does not ignore SIGPIPE).
TEST_F(SpliceTest, AnAgentThatResetsUnderABulkTransferFailsItsSide) {
  const auto started = splice();
  ASSERT_TRUE(started.splice);
  std::thread writer([this] { peer_->write(patterned(8 << 20)); });
  char first[4096];
  ASSERT_GT(::recv(agent_->fd(), first, sizeof first, 0), 0);
  agent_->reset();
  ASSERT_TRUE(eventually([&] { return !record_->trail().empty(); }));
  EXPECT_TRUE(record_->trail()[0].starts_with("agent failed: ")) << record_->trail()[0];
  started.splice->close(StreamSplice::Closing::ResetUpstream);
  writer.join();
}

// A host that stops aborts its flows: a spliced agent is reset, and the relay hears of it.
TEST_F(SpliceTest, AnAbortedFlowResetsItsAgentThroughTheSplice) {
  const auto started = splice();
  ASSERT_TRUE(started.splice);
  flow_->abort();
  EXPECT_EQ(agent_->readToEnd(), "");
  EXPECT_EQ(agent_->error(), ECONNRESET);
  ASSERT_TRUE(eventually([&] { return !record_->trail().empty(); }));
  EXPECT_EQ(record_->trail(),
            std::vector<std::string>{"agent failed: " + std::to_string(ECONNABORTED)});
  started.splice->close(StreamSplice::Closing::ResetUpstream);
  EXPECT_EQ(peer_->readToEnd(), "");
  EXPECT_TRUE(peer_->sawReset());
}

}  // namespace
}  // namespace tarnwick::host

// Flows over accepted loopback sockets: what the provider reads and writes reaches the client,
// completions run on the framework queue, and closing ends the client's connection.

#include "host/SocketFlow.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <future>

#include "HostTesting.h"
#include "platform/ThreadQueue.h"
#include "platform/posix/Sockets.h"

namespace tarnwick::host {
namespace {

using namespace std::chrono_literals;

struct ReadResult {
  std::optional<Bytes> data;
  std::optional<NEError> error;
  bool onFramework = false;
};

class SocketFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    listener_ = bindTcpSocket(loopbackAddress("127.0.0.1", 0), error);
    ASSERT_TRUE(listener_) << error;
    ASSERT_EQ(::listen(listener_.get(), 4), 0);
    client_ = std::make_unique<TestClient>(*localAddress(listener_.get()));
    ASSERT_TRUE(client_->connected());
    UniqueFd accepted(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    ASSERT_TRUE(accepted);
    flow_ = SocketFlow::create(loop_, std::move(accepted), {"198.18.0.7", "443"}, {"/bin/x", {}},
                               framework_);
  }

  // The loop stops before the objects its handlers may be holding go.
  void TearDown() override { loop_->stop(); }

  void open() {
    std::promise<std::optional<NEError>> opened;
    flow_->open(std::nullopt, [&](std::optional<NEError> error) { opened.set_value(error); });
    ASSERT_EQ(opened.get_future().get(), std::nullopt);
  }

  ReadResult read() {
    auto done = std::make_shared<std::promise<ReadResult>>();
    flow_->readData(
        [done, queue = framework_](std::optional<Bytes> data, std::optional<NEError> error) {
          done->set_value({std::move(data), std::move(error), queue->isCurrent()});
        });
    auto future = done->get_future();
    EXPECT_EQ(future.wait_for(kPatience), std::future_status::ready);
    return future.get();
  }

  std::future<std::optional<NEError>> write(std::string_view bytes) {
    auto done = std::make_shared<std::promise<std::optional<NEError>>>();
    flow_->write(bytesOf(bytes), [done](std::optional<NEError> error) { done->set_value(error); });
    return done->get_future();
  }

  std::shared_ptr<HostLoop> loop_ = std::make_shared<HostLoop>();
  std::shared_ptr<DispatchQueue> framework_ =
      std::make_shared<ThreadQueue>("framework", QualityOfService::Default);
  UniqueFd listener_;
  std::unique_ptr<TestClient> client_;
  std::shared_ptr<SocketFlow> flow_;
};

TEST_F(SocketFlowTest, ReadsWhatTheClientSentThenItsEnd) {
  open();
  client_->send("hello");
  ReadResult first = read();
  EXPECT_EQ(first.data, bytesOf("hello"));
  EXPECT_TRUE(first.onFramework);
  // A read posted before the bytes arrive waits for them without holding a buffer.
  auto later = std::async(std::launch::async, [&] { return read(); });
  std::this_thread::sleep_for(20ms);
  client_->send("world");
  EXPECT_EQ(later.get().data, bytesOf("world"));
  client_->shutdownWrite();
  ReadResult end = read();
  EXPECT_EQ(end.data, Bytes{});
  EXPECT_EQ(end.error, std::nullopt);
}

TEST_F(SocketFlowTest, WritesMoreThanTheSocketTakesInOrderThenEnds) {
  open();
  const std::string big = patterned(8 << 20);
  auto written = write(big);
  auto more = write("tail");
  EXPECT_EQ(written.wait_for(50ms), std::future_status::timeout);  // the client is not reading
  flow_->closeWriteWithError(std::nullopt);                        // ends after the bytes
  const std::string received = client_->readToEnd();
  EXPECT_EQ(client_->error(), 0);
  EXPECT_TRUE(received == big + "tail") << received.size();
  EXPECT_EQ(written.get(), std::nullopt);
  EXPECT_EQ(more.get(), std::nullopt);
}

TEST_F(SocketFlowTest, ClosingWithAnErrorResetsTheClient) {
  open();
  flow_->closeWriteWithError(NEError{ECONNABORTED, "relay failed"});
  client_->readToEnd();
  EXPECT_EQ(client_->error(), ECONNRESET);
  EXPECT_TRUE(write("late").get().has_value());
}

TEST_F(SocketFlowTest, ClosingBothDirectionsEndsTheClientsStream) {
  open();
  EXPECT_EQ(write("bye").get(), std::nullopt);
  flow_->closeReadWithError(std::nullopt);
  flow_->closeWriteWithError(std::nullopt);
  EXPECT_EQ(client_->readToEnd(), "bye");
  EXPECT_EQ(client_->error(), 0);
  EXPECT_TRUE(read().error.has_value());
}

TEST_F(SocketFlowTest, AClientResetFailsThePendingRead) {
  open();
  auto pending = std::async(std::launch::async, [&] { return read(); });
  std::this_thread::sleep_for(20ms);
  const linger hard{1, 0};
  ::setsockopt(client_->fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  client_.reset();
  const ReadResult result = pending.get();
  EXPECT_TRUE(result.error.has_value());
  EXPECT_EQ(result.error->code, ECONNRESET);
}

// Until it is opened the flow can still be handed back, socket and all; after, it cannot.
TEST_F(SocketFlowTest, HandsItsSocketBackOnlyBeforeOpening) {
  EXPECT_TRUE(read().error.has_value());
  EXPECT_TRUE(write("x").get().has_value());
  auto socket = flow_->takeSocket();
  ASSERT_TRUE(socket);
  EXPECT_TRUE(socket->valid());
  EXPECT_FALSE(flow_->takeSocket());
  std::promise<std::optional<NEError>> opened;
  flow_->open(std::nullopt, [&](std::optional<NEError> error) { opened.set_value(error); });
  EXPECT_TRUE(opened.get_future().get().has_value());
}

TEST_F(SocketFlowTest, ReportsItsEndpointAndMetadata) {
  EXPECT_EQ(flow_->remoteEndpoint(), (NWHostEndpoint{"198.18.0.7", "443"}));
  EXPECT_EQ(flow_->metaData().sourceAppSigningIdentifier, "/bin/x");
  open();
  EXPECT_FALSE(flow_->takeSocket());
}

}  // namespace
}  // namespace tarnwick::host

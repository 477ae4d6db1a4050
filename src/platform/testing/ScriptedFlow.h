#pragma once
// App-proxy flows whose agent side the test plays: it pushes the agent's bytes, ends or fails
// the stream, fails opens and writes, and reads back what was written to the agent and which
// sides were closed. Completions run on the "framework" queue given at construction.

#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/Dispatch.h"
#include "platform/NetworkExtension.h"

namespace tarnwick {

class ScriptedTCPFlow : public NEAppProxyTCPFlow,
                        public std::enable_shared_from_this<ScriptedTCPFlow> {
 public:
  ScriptedTCPFlow(std::shared_ptr<DispatchQueue> frameworkQueue, NEFlowMetaData metaData,
                  std::optional<NWHostEndpoint> remote);

  // NEAppProxyTCPFlow, as strict as the socket-backed flow: see NetworkExtension.h.
  void open(std::optional<NWHostEndpoint> localEndpoint, OpenCompletion completion) override;
  NEFlowMetaData metaData() const override { return metaData_; }
  void readData(ReadCompletion completion) override;
  void write(Bytes data, WriteCompletion completion) override;
  void closeReadWithError(std::optional<NEError> error) override;
  void closeWriteWithError(std::optional<NEError> error) override;
  std::optional<NWHostEndpoint> remoteEndpoint() const override { return remote_; }

  // The agent's side.
  void setOpenError(std::optional<NEError> error);
  void agentSends(Bytes data);
  // Ends the agent's stream: this read and every later one deliver no bytes.
  void agentEnds();
  void agentFails(NEError error);
  // While set, every write to the agent completes with this error.
  void failWrites(std::optional<NEError> error);

  Bytes written() const;
  bool opened() const;
  bool readClosed() const;
  bool writeClosed() const;
  // The write side was closed with an error: the agent would have seen a reset.
  bool writeReset() const;
  std::size_t pendingReads() const;
  // Calls the socket-backed flow would have failed: a read or write before open, a second read
  // while one is pending, a read after closeRead, a write after closeWrite. Each is a bug of the
  // caller.
  std::size_t rejected() const;

 private:
  struct Delivery {
    std::optional<Bytes> data;
    std::optional<NEError> error;
  };
  void push(Delivery delivery);
  void pumpLocked(std::vector<Work>& out);
  void post(std::vector<Work>& work);

  const std::shared_ptr<DispatchQueue> queue_;
  const NEFlowMetaData metaData_;
  const std::optional<NWHostEndpoint> remote_;
  mutable std::mutex mutex_;
  std::optional<NEError> openError_;
  std::optional<NEError> writeError_;
  bool opened_ = false;
  bool readClosed_ = false;
  bool writeClosed_ = false;
  bool writeReset_ = false;
  bool ended_ = false;  // the agent's end of stream was read
  std::size_t rejected_ = 0;
  Bytes written_;
  ReadCompletion read_;
  std::deque<Delivery> deliveries_;
};

class ScriptedUDPFlow : public NEAppProxyUDPFlow {
 public:
  explicit ScriptedUDPFlow(NEFlowMetaData metaData) : metaData_(std::move(metaData)) {}
  void open(std::optional<NWHostEndpoint>, OpenCompletion completion) override {
    completion(std::nullopt);
  }
  NEFlowMetaData metaData() const override { return metaData_; }

 private:
  const NEFlowMetaData metaData_;
};

}  // namespace tarnwick

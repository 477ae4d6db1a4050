#pragma once
// The stand-in for the platform's outbound TCP connection (NWConnection): states, send, receive
// and cancel, every callback on the queue given to start().
//
// Contract of every implementation:
// - States move setup -> preparing -> ready, or to failed(error); cancel() leads to cancelled.
//   waiting(error) exists for fakes; the real connection never reports it.
// - send() before ready queues the content; queued sends are written in order once ready. An
//   absent or empty content with isComplete shuts down the write side.
// - receive(min, max) completes once at least `min` bytes are there (or fewer at the end of the
//   stream), with at most `max` bytes, isComplete at the end of the stream, or an error. A peer
//   that resets the connection is reported as an error (ECONNRESET), never as isComplete: a
//   stream cut short is never taken for a complete one.
// - cancel() before ready drops pending sends and receives without calling their completions
//   (their bytes never left). cancel() after ready completes pending operations with ECANCELED.
// - forceCancel() is cancel() that also aborts the stream: the peer of a ready connection sees a
//   reset rather than an end of stream, and bytes not yet written are dropped.
// - Every completion is called at most once, on the start() queue.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Bytes.h"
#include "platform/DetachedSocket.h"
#include "platform/Dispatch.h"

namespace tarnwick {

struct NWError {
  int code = 0;  // errno value
  std::string localizedDescription;

  static NWError fromErrno(int code);
};

struct NWConnectionState {
  enum class Kind { Setup, Preparing, Ready, Waiting, Failed, Cancelled };
  Kind kind = Kind::Setup;
  std::optional<NWError> error;  // for Waiting and Failed

  static NWConnectionState of(Kind kind) { return {kind, std::nullopt}; }
  static NWConnectionState failed(NWError e) { return {Kind::Failed, std::move(e)}; }
  static NWConnectionState waiting(NWError e) { return {Kind::Waiting, std::move(e)}; }
};

// A TCP port the endpoint layer accepts: 1 to 65535.
class NWEndpointPort {
 public:
  static std::optional<NWEndpointPort> make(std::uint16_t rawValue);
  std::uint16_t rawValue() const { return raw_; }

 private:
  explicit NWEndpointPort(std::uint16_t raw) : raw_(raw) {}
  std::uint16_t raw_;
};

// A host (name, IPv4 literal, or IPv6 literal with or without brackets) and a port.
struct NWEndpoint {
  std::string host;
  NWEndpointPort port;

  static NWEndpoint hostPort(std::string host, NWEndpointPort port) {
    return {std::move(host), port};
  }
};

struct NWParameters {
  // SO_MARK for the socket, so the host's own traffic is never redirected back to it.
  std::optional<std::uint32_t> socketMark;
  // Plain TCP, TCP_NODELAY, the process's socket mark if one is set.
  static NWParameters tcp();
};

// The mark every outbound socket of this process carries (set once by the host before any flow).
void setProcessSocketMark(std::optional<std::uint32_t> mark);
std::optional<std::uint32_t> processSocketMark();

class NWConnection {
 public:
  using StateHandler = std::function<void(const NWConnectionState&)>;
  using SendCompletion = std::function<void(std::optional<NWError>)>;
  using ReceiveCompletion =
      std::function<void(std::optional<Bytes> content, bool isComplete, std::optional<NWError>)>;

  virtual ~NWConnection() = default;
  // May be set before or after start(); nullptr removes the handler.
  virtual void setStateUpdateHandler(StateHandler handler) = 0;
  virtual void start(std::shared_ptr<DispatchQueue> queue) = 0;
  virtual void send(std::optional<Bytes> content, bool isComplete, SendCompletion completion) = 0;
  virtual void receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                       ReceiveCompletion completion) = 0;
  virtual void cancel() = 0;
  virtual void forceCancel() = 0;

  // Handing the socket to a splicer (StreamSplicer). Now only when ready with no send going
  // out and no completion on its way; then detachSocket() drops a receive still waiting for
  // bytes, without its completion, and the connection is cancelled without touching the socket.
  // Connections without a socket of their own never hand one over.
  virtual Detachable detachable() { return Detachable::Never; }
  virtual std::optional<DetachedSocket> detachSocket() { return std::nullopt; }
};

// Makes connections; the relay engine takes one so tests can hand it scripted connections.
class NWConnectionFactory {
 public:
  virtual ~NWConnectionFactory() = default;
  virtual std::shared_ptr<NWConnection> makeConnection(const NWEndpoint& endpoint,
                                                       const NWParameters& parameters) = 0;
};

// How long a real connection may take to become ready, name resolution and every address tried
// included, before it fails with ETIMEDOUT. Long enough for a slow name server and one lost SYN
// (the kernel retransmits it after 1 s, then 3 s, 7 s, 15 s); short enough that a flow behind a
// dead destination is closed well before its agent would give up on its own.
inline constexpr Duration kRealConnectTimeout = std::chrono::seconds(30);

// Real TCP connections on the process-wide real runtime, with kRealConnectTimeout.
std::shared_ptr<NWConnectionFactory> realConnectionFactory();
// The same with another connect timeout.
std::shared_ptr<NWConnectionFactory> realConnectionFactory(Duration connectTimeout);

}  // namespace tarnwick

#pragma once
// The stand-in for the platform's network-extension framework: app-proxy flows with their
// metadata, network rules and settings, and the transparent-proxy provider's entry points.
// Flow completions run on threads of the flow implementation's choosing ("framework threads").

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Bytes.h"
#include "platform/DetachedSocket.h"
#include "platform/Json.h"

namespace tarnwick {

struct NEError {
  int code = 0;
  std::string localizedDescription;
};

// What a TCP flow completes a read or a write with when it cannot take it (see the contract of
// NEAppProxyTCPFlow).
inline NEError flowNotReadableError() { return {ENOTCONN, "flow is not open for reading"}; }
inline NEError flowNotWritableError() { return {ENOTCONN, "flow is not open for writing"}; }

// A host endpoint as the framework reports it: host and port texts, unchecked.
struct NWHostEndpoint {
  std::string hostname;
  std::string port;

  bool operator==(const NWHostEndpoint&) const = default;
};

struct NEFlowMetaData {
  std::string sourceAppSigningIdentifier;
  std::optional<Bytes> sourceAppAuditToken;  // absent when the process is unknown
};

class NEAppProxyFlow {
 public:
  using OpenCompletion = std::function<void(std::optional<NEError>)>;

  virtual ~NEAppProxyFlow() = default;
  virtual void open(std::optional<NWHostEndpoint> localEndpoint, OpenCompletion completion) = 0;
  virtual NEFlowMetaData metaData() const = 0;
};

// Contract of every TCP flow (the socket-backed one and the scripted one alike):
// - Reads and writes work once the flow is open.
// - One read at a time: a read while another is pending completes at once with an error, as does
//   every read after closeReadWithError(), which drops a pending read without calling it. Once
//   the agent has ended its stream, every read delivers no bytes.
// - Writes go to the agent in order; a write after closeWriteWithError() fails.
// - closeWriteWithError() with no error ends the agent's stream once pending writes are out (a
//   half-close: reads go on). With an error it aborts the connection at once: pending writes
//   fail and the agent sees a reset, not an end of stream that would pass for a complete one.
class NEAppProxyTCPFlow : public NEAppProxyFlow {
 public:
  // Absent or empty content means the agent ended its stream.
  using ReadCompletion = std::function<void(std::optional<Bytes>, std::optional<NEError>)>;
  using WriteCompletion = std::function<void(std::optional<NEError>)>;

  virtual void readData(ReadCompletion completion) = 0;
  virtual void write(Bytes data, WriteCompletion completion) = 0;
  virtual void closeReadWithError(std::optional<NEError> error) = 0;
  virtual void closeWriteWithError(std::optional<NEError> error) = 0;
  // Absent when the remote endpoint is not a host endpoint.
  virtual std::optional<NWHostEndpoint> remoteEndpoint() const = 0;

  // Handing the agent's socket to a splicer (StreamSplicer). Now only while open both ways with
  // no write going out and no read completion on its way; then detachSocket() drops a read still
  // waiting for bytes, without its completion, and every later read and write fails. Flows
  // without a socket of their own never hand one over.
  virtual Detachable detachable() { return Detachable::Never; }
  virtual std::optional<DetachedSocket> detachSocket() { return std::nullopt; }
};

class NEAppProxyUDPFlow : public NEAppProxyFlow {};

enum class NENetworkRuleProtocol { Any, TCP, UDP };
enum class NETrafficDirection { Any, Inbound, Outbound };

struct NENetworkRule {
  std::optional<NWHostEndpoint> remoteNetwork;  // absent: any destination
  int remotePrefix = 0;
  std::optional<NWHostEndpoint> localNetwork;
  int localPrefix = 0;
  NENetworkRuleProtocol protocol = NENetworkRuleProtocol::Any;
  NETrafficDirection direction = NETrafficDirection::Any;

  bool operator==(const NENetworkRule&) const = default;
};

struct NETransparentProxyNetworkSettings {
  std::string tunnelRemoteAddress;
  std::vector<NENetworkRule> includedNetworkRules;
  std::vector<NENetworkRule> excludedNetworkRules;
};

enum class NEProviderStopReason : std::int64_t {
  None = 0,
  UserInitiated = 1,
  ProviderFailed = 2,
  NoNetworkAvailable = 3,
  UnrecoverableNetworkChange = 4,
  ProviderDisabled = 5,
  AuthenticationCanceled = 6,
  ConfigurationFailed = 7,
  IdleTimeout = 8,
  ConfigurationDisabled = 9,
  ConfigurationRemoved = 10,
  Superceded = 11,
  UserLogout = 12,
  UserSwitch = 13,
  ConnectionFailed = 14,
  Sleep = 15,
  AppUpdate = 16,
};

// Whoever hosts a provider (the Linux host, or a test) receives its network settings here.
class NETunnelHost {
 public:
  using SettingsCompletion = std::function<void(std::optional<NEError>)>;
  virtual ~NETunnelHost() = default;
  virtual void applyTunnelNetworkSettings(std::shared_ptr<const NETransparentProxyNetworkSettings>,
                                          SettingsCompletion completion) = 0;
};

class NETransparentProxyProvider {
 public:
  using StartCompletion = std::function<void(std::optional<NEError>)>;
  using AppMessageCompletion = std::function<void(std::optional<Bytes>)>;

  virtual ~NETransparentProxyProvider() = default;

  // Start options: a JSON object, or absent.
  virtual void startProxy(std::optional<Json> options, StartCompletion completion) = 0;
  virtual void stopProxy(NEProviderStopReason reason, std::function<void()> completion) = 0;
  // True when the provider takes the flow over; false hands it back to the host.
  virtual bool handleNewFlow(std::shared_ptr<NEAppProxyFlow> flow) = 0;
  // `completion` may be empty.
  virtual void handleAppMessage(Bytes message, AppMessageCompletion completion) = 0;

  // Set by the host before startProxy; held weakly.
  void attachTunnelHost(std::weak_ptr<NETunnelHost> host) { tunnelHost_ = std::move(host); }

 protected:
  // Hands the settings to the host; without one, completes at once with an error.
  void setTunnelNetworkSettings(std::shared_ptr<const NETransparentProxyNetworkSettings> settings,
                                NETunnelHost::SettingsCompletion completion) {
    if (auto host = tunnelHost_.lock()) {
      host->applyTunnelNetworkSettings(std::move(settings), std::move(completion));
    } else {
      completion(NEError{1, "no tunnel host attached"});
    }
  }

 private:
  std::weak_ptr<NETunnelHost> tunnelHost_;
};

}  // namespace tarnwick

#include "host/control/ControlRequest.h"

#include <algorithm>
#include <string_view>

namespace tarnwick::host {
namespace {

constexpr std::string_view kWatchLine = "watch";
constexpr std::string_view kStatusLine = "status";

std::string_view lineOf(ControlOperation operation) {
  return operation == ControlOperation::Watch ? kWatchLine : kStatusLine;
}

}  // namespace

std::optional<ControlRequest> parseControlRequest(Bytes bytes, std::string& error) {
  const auto end = std::find(bytes.begin(), bytes.end(), '\n');
  if (end == bytes.end()) {
    error = "the request has no operation line";
    return std::nullopt;
  }
  const std::string_view line(reinterpret_cast<const char*>(bytes.data()),
                              static_cast<std::size_t>(end - bytes.begin()));
  ControlRequest request{ControlOperation::Watch, Bytes(end + 1, bytes.end())};
  if (line == kStatusLine) {
    request.operation = ControlOperation::Status;
    if (request.body.empty()) return request;
    error = "a status request takes nothing after its line";
    return std::nullopt;
  }
  if (line == kWatchLine) return request;
  error = "unknown operation (the operations are \"watch\" and \"status\")";
  return std::nullopt;
}

Bytes controlRequestBytes(ControlOperation operation, const Bytes& body) {
  const std::string_view line = lineOf(operation);
  Bytes bytes(line.begin(), line.end());
  bytes.push_back('\n');
  bytes.insert(bytes.end(), body.begin(), body.end());
  return bytes;
}

}  // namespace tarnwick::host

#pragma once
// What a control-socket client asks for. A request is a first line naming the operation, then
// what that operation takes, up to the end of the client's stream:
//   "watch\n" followed by the watch-set message, which replaces the whole watch set;
//   "status\n" and nothing more, which asks how the interceptor is doing.
// The line is matched exactly, so no watch-set message (an empty JSON object empties the watch
// set) can be read as a status query, nor a query as a watch set.

#include <optional>
#include <string>

#include "platform/Bytes.h"

namespace tarnwick::host {

enum class ControlOperation { Watch, Status };

struct ControlRequest {
  ControlOperation operation;
  Bytes body;  // the watch-set message, for Watch
};

// The request in `bytes`; absent, with `error` saying why in one line, for anything else.
std::optional<ControlRequest> parseControlRequest(Bytes bytes, std::string& error);

// The bytes a client sends for `operation`.
Bytes controlRequestBytes(ControlOperation operation, const Bytes& body = {});

}  // namespace tarnwick::host

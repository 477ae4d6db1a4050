#include "host/status/ProviderStatus.h"

namespace tarnwick::host {
namespace {

const char* circuitText(FrontDoorCircuitState::Kind kind) {
  switch (kind) {
    case FrontDoorCircuitState::Kind::Closed:
      return "closed";
    case FrontDoorCircuitState::Kind::Open:
      return "open";
    case FrontDoorCircuitState::Kind::HalfOpen:
      return "half-open";
  }
  return "closed";
}

}  // namespace

Json describeProviderStatus(const TransparentProxyProvider::Status& status) {
  return Json{{"watchedSigningIDs", status.watchedSigningIDs},
              {"watchedPIDs", status.watchedPIDs},
              {"circuit", circuitText(status.circuit.kind())}};
}

}  // namespace tarnwick::host

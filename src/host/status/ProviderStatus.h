#pragma once
// The provider's part of the status object: how many signing identifiers and PIDs are watched,
// and the front-door circuit's state ("closed", "open" or "half-open").

#include "platform/Json.h"
#include "provider/TransparentProxyProvider.h"

namespace tarnwick::host {

Json describeProviderStatus(const TransparentProxyProvider::Status& status);

}  // namespace tarnwick::host

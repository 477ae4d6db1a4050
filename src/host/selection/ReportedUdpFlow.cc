#include "host/selection/ReportedUdpFlow.h"

#include <cerrno>

namespace tarnwick::host {

void ReportedUdpFlow::open(std::optional<NWHostEndpoint>, OpenCompletion completion) {
  if (completion) {
    completion(NEError{EOPNOTSUPP, "a reported UDP socket is carried by the system itself"});
  }
}

}  // namespace tarnwick::host

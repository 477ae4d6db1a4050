#include "host/HostLog.h"

namespace tarnwick::host {

const Logger& hostLog() {
  static const Logger logger("dev.fernquill.tarnwick.host", "host");
  return logger;
}

}  // namespace tarnwick::host

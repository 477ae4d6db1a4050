#pragma once
// The Linux host's own log lines: start-up, rules, listeners, and what it drops.

#include "platform/Log.h"

namespace tarnwick::host {

// Subsystem "dev.fernquill.tarnwick.host", category "host".
const Logger& hostLog();

}  // namespace tarnwick::host

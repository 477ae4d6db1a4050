#pragma once
// What a flow's metadata says about the process that opened it: the signing identifier (on
// Linux the canonical path of the executable) and the 32-byte audit token. PID 0 means the
// process is unknown: no identifier, no token.

#include <sys/types.h>

#include "platform/NetworkExtension.h"

namespace tarnwick::host {

NEFlowMetaData processMetaData(pid_t pid);

}  // namespace tarnwick::host

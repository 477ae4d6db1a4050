#pragma once
// SIGINT and SIGTERM for the companions' foreground loops: both run `handler`, which must be
// async-signal-safe (the loops' stop() methods are).

#include <signal.h>

namespace tarnwick {

inline void installStopSignalHandler(void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

}  // namespace tarnwick

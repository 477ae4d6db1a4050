#pragma once
// The provider's start options as a JSON file, checked strictly before the provider sees them:
// the host runs as root in other programs' path, and a typo must stop it with a line saying
// what is wrong rather than start it watching nothing or inspecting nothing. The keys are the
// provider's ("frontDoorPort", "frontDoorHost", "watchedSigningIDs", "watchedPIDs",
// "socketPath", "providerConfiguration" holding "socketPath"); any other key is an error. What
// passes reaches the provider unchanged, to be read by its own rules.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Json.h"

namespace tarnwick::host {

struct StartOptionsResult {
  std::optional<Json> options;  // absent on failure
  std::string error;            // one line saying why, when absent
  // What the host starts with anyway but an operator should hear of, one line each.
  std::vector<std::string> warnings;
};

// Parses and checks the bytes of an options file.
StartOptionsResult parseStartOptions(std::string_view bytes);

// Reads, parses and checks the regular file at `path`; every message names the file.
StartOptionsResult readStartOptionsFile(const std::string& path);

}  // namespace tarnwick::host

#pragma once
// The provider's start options as a JSON file: one object whose keys the provider reads
// ("frontDoorPort", "frontDoorHost", "watchedSigningIDs", "watchedPIDs", "socketPath",
// "providerConfiguration"). Other keys are passed along untouched.

#include <optional>
#include <string>
#include <string_view>

#include "platform/Json.h"

namespace tarnwick::host {

struct StartOptionsResult {
  std::optional<Json> options;  // absent on failure
  std::string error;            // one line saying why, when absent
};

// Parses the bytes of an options file: a JSON object, nothing else.
StartOptionsResult parseStartOptions(std::string_view bytes);

// Reads and parses the file at `path`.
StartOptionsResult readStartOptionsFile(const std::string& path);

}  // namespace tarnwick::host

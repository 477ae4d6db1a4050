#include "host/StartOptionsFile.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace tarnwick::host {
namespace {

// An options file is a handful of keys; anything far larger is not one.
constexpr std::size_t kMaximumOptionsBytes = 1 << 20;

StartOptionsResult failure(std::string error) { return {std::nullopt, std::move(error)}; }

}  // namespace

StartOptionsResult parseStartOptions(std::string_view bytes) {
  auto document = parseJsonDocument(bytes);
  if (!document) return failure("is not valid JSON");
  if (!document->is_object()) return failure("must hold a JSON object");
  return {std::move(document), {}};
}

StartOptionsResult readStartOptionsFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return failure("options file " + path + ": " + std::strerror(errno));
  std::ostringstream contents;
  contents << file.rdbuf();
  const std::string bytes = contents.str();
  if (file.bad() || bytes.size() > kMaximumOptionsBytes) {
    return failure("options file " + path + ": unreadable or too large");
  }
  StartOptionsResult result = parseStartOptions(bytes);
  if (!result.options) result.error = "options file " + path + " " + result.error;
  return result;
}

}  // namespace tarnwick::host

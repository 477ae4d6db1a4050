#include "platform/Network.h"

#include <atomic>
#include <cstring>

namespace tarnwick {
namespace {

// 0 means no mark; a mark of 0 would mean the same to the kernel.
std::atomic<std::uint32_t> gSocketMark{0};

}  // namespace

NWError NWError::fromErrno(int code) { return {code, std::strerror(code)}; }

std::optional<NWEndpointPort> NWEndpointPort::make(std::uint16_t rawValue) {
  if (rawValue == 0) return std::nullopt;
  return NWEndpointPort(rawValue);
}

NWParameters NWParameters::tcp() { return {processSocketMark()}; }

void setProcessSocketMark(std::optional<std::uint32_t> mark) { gSocketMark = mark.value_or(0); }

std::optional<std::uint32_t> processSocketMark() {
  const std::uint32_t mark = gSocketMark;
  if (mark == 0) return std::nullopt;
  return mark;
}

}  // namespace tarnwick

// The ClientHello parser over arbitrary bytes: it must stay inside the buffer and return only
// valid UTF-8 texts that it found there.

#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

#include "platform/Text.h"
#include "policy/SNIParser.h"

namespace {

bool foundIn(std::span<const std::uint8_t> data, std::string_view text) {
  const std::string_view haystack(reinterpret_cast<const char*>(data.data()), data.size());
  return haystack.find(text) != std::string_view::npos;
}

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  const tarnwick::SNIParseResult result = tarnwick::SNIParser::parse(bytes);
  check(!result.ja3.has_value());
  if (result.serverName) {
    check(tarnwick::isValidUTF8(*result.serverName) && foundIn(bytes, *result.serverName));
  }
  for (const auto& protocol : result.alpn) {
    check(protocol.size() < 256 && tarnwick::isValidUTF8(protocol) && foundIn(bytes, protocol));
  }
  return 0;
}

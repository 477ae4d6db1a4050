// Bytes from the daemon, in arbitrary chunks, through the line cutter and the line handling:
// every line the cutter yields is whole, bytes are only ever dropped as an overlong line, the
// buffer stays under its ceiling, and every push document is taken by a policy.
//
// Input: a sequence of chunks, each a length byte followed by that many bytes. The length byte
// 255 stands for 64 KiB without a line feed (the first five times in an input), so short inputs
// still reach the ceiling.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "bridge/InboundLine.h"
#include "bridge/LineBuffer.h"
#include "policy/EnforcementPolicy.h"

namespace {

using tarnwick::LineBuffer;

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string kLongRun(64 * 1024, 'x');
  LineBuffer buffer;
  tarnwick::EnforcementPolicy policy;
  std::size_t at = 0;
  int longRuns = 0;
  while (at < size) {
    const std::uint8_t length = data[at++];
    std::span<const std::uint8_t> chunk;
    if (length == 255 && longRuns++ < 5) {
      chunk = std::span(reinterpret_cast<const std::uint8_t*>(kLongRun.data()), kLongRun.size());
    } else {
      chunk = std::span(data + at, std::min<std::size_t>(length, size - at));
      at += chunk.size();
    }
    const std::size_t before = buffer.bufferedBytes();
    std::size_t consumed = 0;
    buffer.append(chunk, [&](std::string_view line) {
      require(line.find('\n') == std::string_view::npos);
      consumed += line.size() + 1;
      if (auto document = tarnwick::InboundLine::policyPush(line)) {
        require(document->is_object());
        policy.update(*document);
        policy.decide(1, "agent", "host.example");
      }
    });
    const std::size_t after = buffer.bufferedBytes();
    require(after <= LineBuffer::kMaxBufferedBytes);
    const std::size_t left = before + chunk.size() - consumed;
    require(after == left || (after == 0 && left > LineBuffer::kMaxBufferedBytes));
  }
  return 0;
}

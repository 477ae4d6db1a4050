// The front door's reply, in arbitrary chunks, through the acknowledgement scanner, checked
// against a plain model of what the verdict must be: decided at the chunk that completes the
// first "\r\n\r\n" (good when the head is UTF-8 and mentions "200", refused when it is UTF-8 and
// starts with a status line, garbage otherwise), or garbage once more than 8192 bytes are held
// without it; and after a good head, every byte that followed it in that chunk, kept exactly.
//
// Input: a sequence of chunks, each a length byte followed by that many bytes.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/Text.h"
#include "relay/AckReader.h"

namespace {

using tarnwick::AckScanner;

void require(bool condition) {
  if (!condition) std::abort();
}

AckScanner::Verdict expected(std::string_view head) {
  if (!tarnwick::isValidUTF8(head)) return AckScanner::Verdict::Garbage;
  if (head.find("200") != std::string_view::npos) return AckScanner::Verdict::Good;
  return tarnwick::startsWithStatusLine(head) ? AckScanner::Verdict::Rejected
                                              : AckScanner::Verdict::Garbage;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  AckScanner scanner;
  std::string seen;
  std::size_t at = 0;
  while (at < size) {
    const std::size_t wanted = data[at++];
    const std::size_t length = std::min(wanted, size - at);
    const tarnwick::Bytes chunk(data + at, data + at + length);
    at += length;
    if (chunk.empty()) continue;  // the reader never hands the scanner an empty chunk
    seen.append(chunk.begin(), chunk.end());
    const auto verdict = scanner.append(chunk);
    const std::size_t end = seen.find("\r\n\r\n");
    if (end == std::string::npos) {
      require(verdict == (seen.size() > AckScanner::kMaxHeadBytes ? AckScanner::Verdict::Garbage
                                                                  : AckScanner::Verdict::NeedMore));
    } else {
      require(verdict == expected(std::string_view(seen).substr(0, end)));
      const std::string leftover(tarnwick::textOf(scanner.takeLeftover()));
      require(leftover == (verdict == AckScanner::Verdict::Good ? seen.substr(end + 4) : ""));
    }
    if (verdict != AckScanner::Verdict::NeedMore) break;
  }
  return 0;
}

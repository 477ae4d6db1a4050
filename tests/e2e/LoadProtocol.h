#pragma once
// What the load client (tw-e2e-load) and the load server of the end-to-end tests say to each
// other. Every byte either side sends comes from a pattern keyed by its stream and its offset, so
// a lost, doubled, reordered or foreign chunk shows at the first byte it touches.
//
// A connection opens with a fixed header from the client naming the script both ends follow,
// the connection's id (the server counts how often each id reaches it) and how many bytes go
// each way. A server that greets its clients sends its greeting before it reads anything.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tarnwick::e2e {

enum class Script : std::uint32_t {
  // Both ways at once; the server closes once it has read the upload and sent the answer.
  Exchange,
  // The server sends its answer and ends its side at once, then reads the upload to its end.
  ServerEndsFirst,
  // The client sends its upload and ends its side; the server answers only then.
  ClientEndsFirst,
  // The server answers once it has the whole upload; the client reads the whole answer and
  // resets, and the server records how the stream ended.
  ClientResets,
  // The server answers and resets as soon as the client sends one byte more.
  ServerResets,
  // The server reads the upload and answers only once the test opens its gate.
  Held,
  // The server sends the first kHeldAnswerBytes of its answer at once, the rest once the test
  // opens its gate.
  HeldAfterAnswering,
};

inline constexpr std::uint64_t kHeldAnswerBytes = 1024;

// "exchange", "server-ends-first", "client-ends-first", "client-resets", "server-resets", "held",
// "held-after-answering".
std::optional<Script> scriptFromName(std::string_view name);

struct LoadHeader {
  static constexpr std::uint32_t kMagic = 0x314c5754;  // "TWL1" on the wire
  std::uint32_t magic = kMagic;
  Script script = Script::Exchange;
  std::uint64_t id = 0;
  std::uint64_t up = 0;    // bytes the client sends after the header
  std::uint64_t down = 0;  // bytes the server answers
};
static_assert(sizeof(LoadHeader) == 32);

// Pattern streams: the upload and the answer of connection `id`, and a server's greeting.
constexpr std::uint64_t uploadStream(std::uint64_t id) { return id * 2; }
constexpr std::uint64_t answerStream(std::uint64_t id) { return id * 2 + 1; }
inline constexpr std::uint64_t kGreetingStream = ~std::uint64_t{0};

// Writes the pattern of `stream` from byte `offset` on into `out`.
void fillPattern(std::uint64_t stream, std::uint64_t offset, std::span<unsigned char> out);
// The index within `bytes` of the first byte that is not the pattern of `stream` at `offset`.
std::optional<std::size_t> firstMismatch(std::uint64_t stream, std::uint64_t offset,
                                         std::span<const unsigned char> bytes);

// One side's bytes on a blocking socket: it sends `send` bytes of its stream while it reads and
// checks what comes in, until both are done or the deadline passes.
struct PumpPlan {
  std::uint64_t sendStream = 0;
  std::uint64_t sendFrom = 0;  // offset of the first byte to send
  std::uint64_t send = 0;
  bool endAfterSending = false;  // shutdown(SHUT_WR) once all is sent
  std::uint64_t receiveStream = 0;
  std::uint64_t receiveFrom = 0;
  std::uint64_t receive = 0;
  bool readToEnd = false;  // read on after `receive` bytes until the peer ends or fails
};

struct PumpResult {
  std::uint64_t sent = 0;
  std::uint64_t received = 0;
  bool ended = false;  // the peer ended its side
  int error = 0;       // errno of a failed send or receive
  bool timedOut = false;
  std::optional<std::uint64_t> mismatchAt;  // offset of a wrong or surplus byte

  bool complete(const PumpPlan& plan) const {
    return !error && !timedOut && !mismatchAt && sent == plan.send && received == plan.receive &&
           (ended || !plan.readToEnd);
  }
  // "exact", "differs", "timeout", "reset", "error: ..." or "short" (an end before every byte).
  std::string outcome(const PumpPlan& plan) const;
  // The counts of bytes each way and where they went wrong, for a failure message.
  std::string describe(const PumpPlan& plan) const;
};

// deadlineMs: CLOCK_MONOTONIC milliseconds after which the pump gives up.
PumpResult pump(int fd, const PumpPlan& plan, std::int64_t deadlineMs);
std::int64_t monotonicMs();

bool sendAllBytes(int fd, const void* data, std::size_t size);
// Reads exactly `size` bytes, waiting for the first of them until the deadline at most.
bool receiveWithin(int fd, void* data, std::size_t size, std::int64_t deadlineMs);
// Makes the socket's close a reset rather than an orderly end.
void resetOnClose(int fd);
// Both ends of thousands of connections: as many descriptors as the hard limit allows.
void raiseDescriptorLimit();

}  // namespace tarnwick::e2e

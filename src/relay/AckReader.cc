#include "relay/AckReader.h"

#include <string_view>

#include "platform/Text.h"

namespace tarnwick {
namespace {

constexpr std::string_view kTerminator = "\r\n\r\n";
constexpr std::size_t kReceiveMinimum = 1;
constexpr std::size_t kReceiveMaximum = 1024;

struct AckRead {
  std::shared_ptr<NWConnection> connection;
  std::function<void(bool)> completion;
  AckScanner scanner;
};

void postReceive(std::shared_ptr<AckRead> read) {
  auto connection = read->connection;
  connection->receive(kReceiveMinimum, kReceiveMaximum,
                      [read = std::move(read)](std::optional<Bytes> content, bool isComplete,
                                               std::optional<NWError> error) mutable {
                        if (content && !content->empty()) {
                          const auto verdict = read->scanner.append(*content);
                          if (verdict != AckScanner::Verdict::NeedMore) {
                            read->completion(verdict == AckScanner::Verdict::Good);
                            return;
                          }
                        }
                        if (isComplete || error) {
                          read->completion(false);
                          return;
                        }
                        postReceive(std::move(read));
                      });
}

}  // namespace

AckScanner::Verdict AckScanner::append(const Bytes& chunk) {
  // The terminator can straddle the previous chunk, so the search starts three bytes back.
  const std::size_t from =
      buffer_.size() >= kTerminator.size() - 1 ? buffer_.size() - (kTerminator.size() - 1) : 0;
  buffer_.insert(buffer_.end(), chunk.begin(), chunk.end());
  const std::string_view held = textOf(buffer_);
  const std::size_t end = held.find(kTerminator, from);
  if (end != std::string_view::npos) {
    const std::string_view head = held.substr(0, end);
    const bool good = isValidUTF8(head) && head.find("200") != std::string_view::npos;
    return good ? Verdict::Good : Verdict::Bad;
  }
  return buffer_.size() > kMaxHeadBytes ? Verdict::Bad : Verdict::NeedMore;
}

void readAck(std::shared_ptr<NWConnection> connection, std::function<void(bool good)> completion) {
  postReceive(std::make_shared<AckRead>(
      AckRead{std::move(connection), std::move(completion), AckScanner{}}));
}

}  // namespace tarnwick

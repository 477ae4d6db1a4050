#include "relay/AckReader.h"

#include <cctype>
#include <string_view>

#include "platform/Text.h"

namespace tarnwick {
namespace {

constexpr std::string_view kTerminator = "\r\n\r\n";
constexpr std::size_t kReceiveMinimum = 1;
constexpr std::size_t kReceiveMaximum = 1024;

struct AckRead {
  std::shared_ptr<NWConnection> connection;
  std::function<void(AckOutcome)> completion;
  AckScanner scanner;
};

AckOutcome::Kind kindOf(AckScanner::Verdict verdict) {
  switch (verdict) {
    case AckScanner::Verdict::Good:
      return AckOutcome::Kind::Good;
    case AckScanner::Verdict::Rejected:
      return AckOutcome::Kind::Rejected;
    default:
      return AckOutcome::Kind::Garbage;
  }
}

void postReceive(std::shared_ptr<AckRead> read) {
  auto connection = read->connection;
  connection->receive(kReceiveMinimum, kReceiveMaximum,
                      [read = std::move(read)](std::optional<Bytes> content, bool isComplete,
                                               std::optional<NWError> error) mutable {
                        // A chunk that completes the head decides, whatever else it carries.
                        if (content && !content->empty()) {
                          const auto verdict = read->scanner.append(*content);
                          if (verdict != AckScanner::Verdict::NeedMore) {
                            read->completion({kindOf(verdict), read->scanner.takeLeftover(),
                                              isComplete, std::move(error)});
                            return;
                          }
                        }
                        if (isComplete || error) {
                          read->completion({AckOutcome::Kind::Cut, {}, isComplete, error});
                          return;
                        }
                        postReceive(std::move(read));
                      });
}

bool isDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

}  // namespace

bool startsWithStatusLine(std::string_view text) {
  constexpr std::string_view kShape = "HTTP/0.0 000";
  if (text.size() < kShape.size() || !text.starts_with("HTTP/")) return false;
  for (std::size_t i = 5; i < kShape.size(); ++i) {
    if (kShape[i] == '0' ? !isDigit(text[i]) : text[i] != kShape[i]) return false;
  }
  return text.size() == kShape.size() || text[kShape.size()] == ' ' || text[kShape.size()] == '\r';
}

AckScanner::Verdict AckScanner::append(const Bytes& chunk) {
  // The terminator can straddle the previous chunk, so the search starts three bytes back.
  const std::size_t from =
      buffer_.size() >= kTerminator.size() - 1 ? buffer_.size() - (kTerminator.size() - 1) : 0;
  buffer_.insert(buffer_.end(), chunk.begin(), chunk.end());
  const std::string_view held = textOf(buffer_);
  const std::size_t end = held.find(kTerminator, from);
  if (end == std::string_view::npos) {
    return buffer_.size() > kMaxHeadBytes ? Verdict::Garbage : Verdict::NeedMore;
  }
  const std::string_view head = held.substr(0, end);
  if (!isValidUTF8(head)) return Verdict::Garbage;
  if (head.find("200") == std::string_view::npos) {
    return startsWithStatusLine(head) ? Verdict::Rejected : Verdict::Garbage;
  }
  leftover_.assign(buffer_.begin() + static_cast<std::ptrdiff_t>(end + kTerminator.size()),
                   buffer_.end());
  Bytes().swap(buffer_);
  return Verdict::Good;
}

void readAck(std::shared_ptr<NWConnection> connection,
             std::function<void(AckOutcome outcome)> completion) {
  postReceive(std::make_shared<AckRead>(
      AckRead{std::move(connection), std::move(completion), AckScanner{}}));
}

}  // namespace tarnwick

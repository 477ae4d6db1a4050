#include "bridge/LineBuffer.h"

namespace tarnwick {

void LineBuffer::append(std::span<const std::uint8_t> chunk, const LineHandler& onLine) {
  // What was buffered holds no line feed, so the search starts in the new bytes.
  std::size_t searchFrom = buffer_.size();
  buffer_.append(reinterpret_cast<const char*>(chunk.data()), chunk.size());
  std::size_t lineStart = 0;
  for (std::size_t feed; (feed = buffer_.find('\n', searchFrom)) != std::string::npos;) {
    onLine(std::string_view(buffer_).substr(lineStart, feed - lineStart));
    lineStart = feed + 1;
    searchFrom = lineStart;
  }
  buffer_.erase(0, lineStart);
  if (buffer_.size() > kMaxBufferedBytes) std::string().swap(buffer_);
}

}  // namespace tarnwick

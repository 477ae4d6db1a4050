#pragma once
// The byte stream from the daemon cut into lines at each line feed. Between appends it holds at
// most one incomplete line, and never more than kMaxBufferedBytes of it: a daemon that sends no
// line feed cannot make the extension hold more. Owned by the bridge, used on its queue only.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace tarnwick {

class LineBuffer {
 public:
  static constexpr std::size_t kMaxBufferedBytes = 262144;
  using LineHandler = std::function<void(std::string_view line)>;

  // Appends `chunk`, then hands each complete line to `onLine` in order, without its line feed
  // and with nothing else stripped. The view is valid during the call only. When no line feed is
  // left and more than kMaxBufferedBytes wait, the incomplete line is dropped.
  void append(std::span<const std::uint8_t> chunk, const LineHandler& onLine);

  std::size_t bufferedBytes() const { return buffer_.size(); }

 private:
  std::string buffer_;
};

}  // namespace tarnwick

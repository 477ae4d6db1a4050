#include "platform/SecureRandom.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace tarnwick {

void fillSecureRandom(std::span<std::uint8_t> out) {
  std::size_t filled = 0;
  while (filled < out.size()) {
    const ssize_t n = getrandom(out.data() + filled, out.size() - filled, 0);
    if (n > 0) {
      filled += static_cast<std::size_t>(n);
    } else if (n < 0 && errno != EINTR) {
      // Without the kernel's random source no identifier can be trusted to be unique; there is
      // no sensible way to continue.
      std::perror("getrandom");
      std::abort();
    }
  }
}

}  // namespace tarnwick

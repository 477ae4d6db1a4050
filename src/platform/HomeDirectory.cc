#include "platform/HomeDirectory.h"

#include <pwd.h>
#include <unistd.h>

#include <vector>

namespace tarnwick {

std::string homeDirectory() {
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_dir && found->pw_dir[0] != '\0') {
    return found->pw_dir;
  }
  return "/";
}

}  // namespace tarnwick

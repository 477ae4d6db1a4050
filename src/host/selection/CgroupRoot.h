#pragma once
// The root of the cgroup v2 hierarchy, where the socket programs attach so that they see every
// process. Where no cgroup2 is mounted at its root, a private, detached mount is made: it has no
// path and goes away with the last descriptor, so nothing is left behind however the process
// ends.

#include <string>

#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

// A directory descriptor of the root; invalid with `whyNot` set when there is none to be had.
UniqueFd openCgroupRoot(std::string& whyNot);

}  // namespace tarnwick::host

#pragma once
// The operating system's secure random source (not a seeded generator).

#include <cstdint>
#include <span>

namespace tarnwick {

// Fills `out` from getrandom(2). Blocks only until the kernel's pool is first initialised.
void fillSecureRandom(std::span<std::uint8_t> out);

}  // namespace tarnwick

#pragma once
// The process's home directory as the platform reports it (NSHomeDirectory()): the account
// database's entry for the effective user, "/" when there is none.

#include <string>

namespace tarnwick {

std::string homeDirectory();

}  // namespace tarnwick

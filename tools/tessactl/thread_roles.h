#pragma once

#include <string>

namespace tessactl {

/// What a thread that runs a function is for; empty if the function does not tell.
std::string ThreadRole(const std::string& function);

}  // namespace tessactl

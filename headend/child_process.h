// Programs of this project that a headend starts, and that end with it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace headend {

// A program that is beside this one where both are installed, and in tools/ where both are built. Throws
// std::runtime_error.
std::string programBeside(const std::string& name);

// The child's part after a fork by process `parent`.
[[noreturn]] void becomeProgram(const std::string& program, std::vector<std::string> arguments, pid_t parent);

}  // namespace headend

// How the headend's parts report an error that ends the run or its start.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

namespace headend {

// Throws std::runtime_error with the formatted text.
template <typename... Args>
[[noreturn]] void fail(fmt::format_string<Args...> text, Args&&... args) {
  throw std::runtime_error(fmt::format(text, std::forward<Args>(args)...));
}

}  // namespace headend

// What a call says when it fails.
#pragma once

#include <stdexcept>
#include <string>

namespace test {

// Of the error that the call ends with; empty when it goes through.
template <typename Call>
std::string messageOf(const Call& call) {
  try {
    call();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace test

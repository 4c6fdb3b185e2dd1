// What a call says when it fails.
#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <string>

namespace test {

// Of the error that the call ends with; empty when it goes through.
template <typename Call>
std::string messageOf(const Call& call) {
  try {
    call();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Holds the part, or is empty where that is.
inline void expectSays(const std::string& text, const std::string& part) {
  EXPECT_TRUE(part.empty() ? text.empty() : has(text, part)) << "'" << part << "' is not in: " << text;
}

}  // namespace test

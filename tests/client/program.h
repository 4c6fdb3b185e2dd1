// Runs a program and holds what it said and its exit code against what a test expects.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/client/messages.h"

namespace test {

struct Outcome {
  int code;
  std::string text;  // stdout and stderr
};

// `command` is for the shell.
inline Outcome runProgram(const std::string& command) {
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  Outcome outcome{.code = -1, .text = {}};
  std::array<char, 4096> buffer{};
  while (const std::size_t n = fread(buffer.data(), 1, buffer.size(), pipe))
    outcome.text.append(buffer.data(), n);
  outcome.code = WEXITSTATUS(pclose(pipe));
  return outcome;
}

inline void expect(const Outcome& outcome, int code, const std::string& part) {
  EXPECT_EQ(outcome.code, code) << outcome.text;
  EXPECT_TRUE(has(outcome.text, part)) << "no '" << part << "' in: " << outcome.text;
}

// A call of a program, its exit code and a part of what it says.
struct Call {
  std::string arguments;
  int code;
  std::string part;
};

inline void expectCalls(const std::function<Outcome(const std::string&)>& run,
                        const std::vector<Call>& calls) {
  for (const Call& call : calls) {
    SCOPED_TRACE(call.arguments);
    expect(run(call.arguments), call.code, call.part);
  }
}

// Calls, separated by semicolons, that the program must refuse as wrong.
inline void expectWrongCalls(const std::function<Outcome(const std::string&)>& run,
                             const std::string& calls) {
  std::istringstream all(calls);
  for (std::string call; std::getline(all, call, ';');) EXPECT_EQ(run(call).code, 2) << call;
}

}  // namespace test

// What the judges' programs have in common: their exit codes, and a run under them.
#pragma once

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

namespace judge {

inline constexpr int kOk = 0;
inline constexpr int kFaulty = 1;
inline constexpr int kWrongCall = 2;

// Parses the call and runs the judge, which gives the exit code. What it throws goes to stderr.
template <typename Run>
int runProgram(const char* name, CLI::App& app, int argc, char** argv, const Run& run) {
  try {
    app.parse(argc, argv);
    return run();
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kOk : kWrongCall;
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}: {}\n", name, error.what());
    return kWrongCall;
  }
}

}  // namespace judge

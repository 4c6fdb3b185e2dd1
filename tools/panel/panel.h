// The front panel of a running headend on this process's terminal, as `qamctl panel` and `headend --panel`
// show it.
#pragma once

#include <chrono>
#include <string>

namespace tools {

struct PanelOptions {
  std::string server;
  std::chrono::seconds patience{30};  // with a headend that does not answer any more
};

// Runs until the operator quits, a signal asks for the end, or the terminal is gone. Throws
// std::runtime_error: no terminal for it, no headend from the start, or none any more. However it ends, the
// terminal is as it was.
void runPanel(const PanelOptions& options);

}  // namespace tools

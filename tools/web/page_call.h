// A command of qamctl that is carried out for the page.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace tools {

// A headend that the page shows.
struct Place {
  std::string name;         // for people
  std::string management;   // its socket, "ADDR:PORT"
  std::string calibration;  // its service, likewise; empty: unknown
};

struct Outcome {
  std::string output;              // what qamctl would print
  std::vector<std::string> notes;  // what it would print beside it
};

// The words are those of qamctl's command line, as "var", "set", "1", "rfreq", "602000". `file` is the only
// file that they may name. `ends` makes a command that waits give up. Throws commands::WrongCall,
// client::Error, std::runtime_error.
Outcome carryOut(const Place& place, const std::vector<std::string>& words, const std::string& file,
                 const std::atomic<bool>& ends);

}  // namespace tools

// What a run is asked to do: the flags of `headend`, checked and turned into values. Slots and channels count
// from 0 here, from 1 on the command line.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/channel.h"
#include "headend/kernel/kernel.h"

namespace headend {

struct Options {
  struct Psi {
    client::Channel channel;
    std::filesystem::path file;
    Nanos at = 0;
  };

  std::filesystem::path flash = "flash";
  bool initFlash = false;
  std::vector<int> slots;
  std::vector<Psi> psi;
  std::map<client::Channel, client::Intervals> intervals;
  std::map<client::Channel, std::string> outputs;
  std::optional<Nanos> duration;
  bool fast = false;
  std::optional<std::pair<std::string, std::uint16_t>> manage;  // none: off
  std::string log;
  std::string report;
  std::string busLog;
  std::string trace;
  std::vector<std::string> traceLines;  // globs; none: every register
  Kernel::Settings kernel;
  std::size_t heapBytes = 32U << 20;
  u8 heapFill = 0xFF;
  unsigned seed = 0;
  bool anyBitstream = false;
};

enum ExitCode : int {
  kExitDone = 0,
  kExitFailed = 1,  // a card does not run at the end, an output, save or upload failed, a file cannot be used
  kExitWrongCall = 2,  // the command line
  kExitStopped = 3,    // an interrupt routine did what it may not
};

// The options of a command line; or the exit code with which to leave, after help or an error has been
// printed.
struct CommandLine {
  Options options;
  std::optional<int> exitCode;
};
CommandLine parseCommandLine(int argc, char** argv);

}  // namespace headend

// The options of a run: the flags of `headend`, checked and converted into values. Slots and channels count
// from 0 here, from 1 on the command line.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/address.h"
#include "commands/command.h"
#include "headend/firmware/snmp/secrets.h"
#include "headend/kernel/kernel.h"
#include "protocol/channel.h"

namespace headend {

// A command that the run carries out (headend/jobs.h), the virtual time from which it does, and how far it
// has come.
struct Job {
  std::string flag;   // for messages: "--psi 1.1=capture.ts"
  std::string text;   // the command: "psi load 1.1 capture.ts"
  Nanos at = 0;       // at this time, or as soon as the card runs
  bool isDo = false;  // of --do: its result is shown
  std::shared_ptr<commands::Call> call;
  std::vector<std::string> notes{};  // of its preparation
  std::optional<Nanos> began{};
  std::optional<Nanos> ended{};
  std::string output{};
  std::string error{};  // empty: it succeeded, or has not ended

  const commands::Target& target() const { return call->command->target; }
  // Of the card that it works on, from 0; -1: none.
  int slot() const { return target().channel ? target().channel->slot : target().slot.value_or(-1); }
};

struct Options {
  // The temperature of a sensor from a time on.
  struct Temperature {
    int slot = 0;
    int sensor = 1;
    double celsius = 0;
    Nanos at = 0;
  };
  // A fault from a time on, until another or permanently; with a period only in the first half of each.
  struct Fault {
    protocol::FaultPlace place;
    Nanos at = 0;
    std::optional<Nanos> until{};
    std::optional<Nanos> period{};
  };

  // A power cut, at an edge of the slot's DAC and EEPROM lines or at a time.
  struct PowerCut {
    int slot = 0;
    std::uint64_t edge = 0;  // from 1; 0: at the time
    Nanos at = 0;
  };

  // The signal at an input of a source card: a file, at its own pace or at a bit rate, or packets received at
  // an address of this machine.
  struct Input {
    std::filesystem::path file;
    std::optional<std::uint64_t> bitRate;
    std::optional<base::Address> address;
  };

  std::filesystem::path flash = "flash";
  bool initFlash = false;
  std::vector<int> slots;
  std::map<protocol::Channel, std::string> outputs;
  std::map<int, std::vector<Input>> sources;  // by slot
  client::InputCounts inputCounts() const {   // of source cards
    client::InputCounts counts;
    for (const auto& [slot, inputs] : sources)
      counts[static_cast<u16>(slot)] = static_cast<u32>(inputs.size());
    return counts;
  }
  std::vector<Job> jobs;
  Nanos deJitter = kSecond / 5;
  Nanos menuTimeout = 60 * kSecond;
  Nanos statusPeriod = kSecond;
  std::vector<Temperature> temperatures;
  std::vector<Fault> faults;
  std::map<int, Nanos> eepromCycles;  // by slot
  std::set<int> blankEeproms;         // slots
  std::map<int, Nanos> lockTimes;     // of the synthesizers, by slot
  std::optional<PowerCut> powerCut;
  std::optional<Nanos> duration;
  bool fast = false;
  u32 epoch = 0;                             // start of virtual time: seconds since 1970-01-01 UTC
  std::optional<base::Address> manage;       // nullopt: off
  std::optional<base::Address> calibration;  // nullopt: no service
  Nanos calibrationAge = 10 * kSecond;       // after which a request is dropped; 0: never
  SnmpSettings snmp;
  bool panel = false;
  struct Web {
    std::optional<base::Address> listen;  // nullopt: no web page
    bool isWritable = false;
    std::string tokenFile;  // empty: the token is shown on the terminal
  };
  Web web;
  std::string log;
  std::vector<std::string> reports;
  std::string busLog;
  std::string trace;
  std::vector<std::string> traceLines;  // globs; empty: every register
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
  kExitStopped = 3,    // an interrupt routine did something forbidden, or a menu tree is broken
};

// The options of a command line; or the exit code, after help or an error has been printed.
struct CommandLine {
  Options options;
  std::optional<int> exitCode;
};
CommandLine parseCommandLine(int argc, char** argv);

}  // namespace headend

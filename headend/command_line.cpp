// The flags of `headend`.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <map>
#include <set>
#include <system_error>

#include "base/files.h"
#include "headend/flag_values.h"
#include "headend/hardware/faults.h"
#include "headend/options.h"
#include "headend/snmp_flags.h"
#include "headend/source_flags.h"
#include "headend/vcd_trace.h"
#include "protocol/datagram.h"

namespace headend {
namespace {

constexpr const char* kDescription =
    "A virtual headend: a chassis with QAM modulator cards in one process, in virtual time. It loads each "
    "card's FPGA "
    "from the flash folder, starts the card, and puts its transport streams where --out says. Slots (1 to 6) "
    "and "
    "channels (1, 2) count from 1: 2.1 is channel 1 of the card in slot 2.";

constexpr const char* kFooter = R"(
Examples:
  headend --init-flash --flash flash
      make a flash folder with the sample bitstream
  headend --psi 1.1=capture.ts --out 1.1=udp://127.0.0.1:5000
      real time, PSI of a capture on channel 1, watch it with a player on port 5000
  headend --fast --seconds 60 --psi 1.1=capture.ts --out 1.1=out.ts --report r.json
      a minute of output in a second or so, the same bytes each time
  headend --card 1 --card 5 --interval 5.2.PAT=100 --fast --seconds 10
      two cards; a new interval for the PAT of slot 5, channel 2, kept in its record
  headend --source 6=four.ts --programme 1.1=6.1:101 --out 1.1=udp://127.0.0.1:5000
      a programme of a file on channel 1, under PIDs of its own, with tables that match
  headend --snmp --snmp-secrets FILE --snmp-trap 127.0.0.1:1162
      any SNMP manager whom FILE names reads and sets the cards, and gets their alarms

Exit codes:
  0  the run went through (failed checks and violations are reported, no more)
  1  a card does not run at the end; an output, save, upload, setting, log, trace or the alarms' history failed or
     was not done by the end; or a file or an address cannot be used
  2  wrong call
  3  an interrupt routine waited, allocated, used a file or touched a register, or a card's menu is broken: the run
     was stopped)";

// Two flags that name one file would leave a mixture, or none of the one read. Devices and pipes are for all.
void refuseSharedFiles(const Options& options) {
  namespace fs = std::filesystem;
  std::map<fs::path, std::string> users;
  const auto nameOf = [](const fs::path& file) {
    std::error_code ignored;
    try {
      return fs::weakly_canonical(fs::absolute(base::followLinks(file)), ignored);
    } catch (const std::system_error&) {  // a loop of links: the open reports it
      return fs::absolute(file);
    }
  };
  const auto use = [&](const std::string& flag, const fs::path& file) {
    std::error_code ignored;
    if (file.empty() || (fs::exists(file, ignored) && !fs::is_regular_file(file, ignored))) return;
    const fs::path name = nameOf(file);
    for (const auto& [other, user] : users) {  // a hard link is another name of the same file
      if (other == name || fs::equivalent(other, file, ignored))
        refuse(flag, file.string(), "is the file of " + user + " already");
    }
    users[name] = flag;
  };
  users[nameOf(options.flash / "K717_QAM" / "qam.bin")] = "the cards";
  users[nameOf(options.flash / "alarms" / "history.dat")] = "the alarms";
  users[nameOf(options.flash / "snmp" / "engine.txt")] = "the SNMP engine";
  for (int slot = 1; slot <= MAX_BOARD_NUM; ++slot) {
    const std::string name = "card" + std::to_string(slot);
    users[nameOf(options.flash / "para" / (name + ".dat"))] = "the cards";
    users[nameOf(options.flash / "eeprom" / (name + ".bin"))] = "the cards";
  }
  for (const auto& [channel, target] : options.outputs) {
    if (!target.starts_with("udp://")) use("--out " + protocol::channelName(channel), target);
  }
  use("--snmp-secrets", options.snmp.secrets);
  use("--report", options.report);
  use("--log", options.log);
  use("--bus-log", options.busLog);
  use("--trace", options.trace);
  std::set<fs::path> captures;
  for (const Options::Psi& psi : options.psi) captures.insert(psi.file);
  for (const fs::path& capture : captures) use("--psi", capture);
  std::set<fs::path> maps;
  for (const Options::PidMap& map : options.pidMaps) maps.insert(map.file);
  for (const fs::path& map : maps) use("--pidmap", map);
  std::set<fs::path> sources;
  for (const auto& [slot, inputs] : options.sources) {
    for (const Options::Input& input : inputs) {
      if (!input.address && !captures.contains(input.file)) sources.insert(input.file);
    }
  }
  for (const fs::path& source : sources) use("--source", source);
}

void checkTogether(const Options& options) {
  const auto hasCard = [&](int slot) {
    return std::find(options.slots.begin(), options.slots.end(), slot) != options.slots.end();
  };
  const auto demandSlot = [&](const std::string& flag, const std::string& what, int slot) {
    if (!hasCard(slot)) refuse(flag, what, "no card in that slot: add --card " + std::to_string(slot + 1));
  };
  const auto demand = [&](const std::string& flag, const protocol::Channel& channel) {
    demandSlot(flag, protocol::channelName(channel), channel.slot);
  };
  for (const Options::Psi& psi : options.psi) demand("--psi", psi.channel);
  for (const auto& [channel, intervals] : options.intervals) demand("--interval", channel);
  for (const auto& [channel, target] : options.outputs) demand("--out", channel);
  for (const auto& setting : options.settings) demandSlot("--set", setting.name, setting.slot);
  for (const auto& t : options.temperatures) demandSlot("--set", "temperature", t.slot);
  for (const auto& fault : options.faults) {
    if (fault.slot) demandSlot("--fault", fault.name, *fault.slot);
  }
  for (const auto& map : options.pidMaps) demand("--pidmap", map.channel);
  for (const auto& programme : options.programmes) demand("--programme", programme.channel);
  checkSources(options);
  for (const auto& [slot, cycle] : options.eepromCycles) demandSlot("--eeprom-cycle", "write cycle", slot);
  if (options.powerCut) demandSlot("--power-cut", "power cut", options.powerCut->slot);
  for (const std::string& glob : options.traceLines) {
    if (options.trace.empty()) refuse("--trace-lines", glob, "needs --trace FILE.vcd");
    if (!VcdTrace::matches(glob, options.slots))
      refuse("--trace-lines", glob, "no register of the cards has such a name, as cdce925_* or slot1.att_*");
  }
  if (options.panel && options.fast)
    throw CLI::ValidationError("--panel", "is for real time: leave --fast out");
  if (options.panel && !options.manage)
    throw CLI::ValidationError("--panel", "reaches the headend over --manage, which is off");
  if (options.fast && !options.duration)
    throw CLI::ValidationError("--fast", "needs --seconds: nothing else would end the run");
}

// Texts as they come; they are turned into options when all are there.
struct Texts {
  std::vector<int> cards;
  std::vector<std::string> psi;
  std::vector<std::string> intervals;
  std::vector<std::string> outputs;
  std::vector<std::string> sources;
  std::vector<std::string> pidMaps;
  std::vector<std::string> programmes;
  double deJitter_ms = 200;
  std::vector<std::string> settings;
  std::vector<std::string> keys;
  double menuTimeout_s = 60;
  double statusPeriod_s = 1;
  std::vector<std::string> faults;
  std::vector<std::string> eepromCycles;
  std::optional<std::string> calibration;
  std::string powerCut;
  std::string seconds;
  std::string epoch;
  std::string manage;
  SnmpTexts snmp;
  int heapFill = 0xFF;
};

void addFlags(CLI::App& app, Options& o, Texts& t) {
  app.add_option("--flash", o.flash, "the folder that stands for the flash file system")
      ->capture_default_str();
  app.add_flag("--init-flash", o.initFlash,
               "make that folder with the sample bitstream, no record yet, and exit");
  app.add_option("--card", t.cards, "a card in slot N (repeatable; default 1)")->check(CLI::Range(1, 6));
  app.add_option("--psi", t.psi,
                 "N.P=FILE.ts[@SECONDS]: upload the PSI of a capture once the card runs, or at that time; a "
                 "file whose name ends in @NUMBER takes @0 behind it (repeatable)");
  app.add_option(
      "--interval", t.intervals,
      "N.P.TABLE=TICKS: repetition interval in auxiliary-clock ticks, 0 to 65535, of PAT, PMT, SDT_C, SDT_O, "
      "NIT_C, NIT_O, BAT or CAT (repeatable). It goes with the first --psi of the channel; alone it is set "
      "while the tables are on the air. 0 stops a table; set in the middle of a section it leaves the "
      "tables on the same PID waiting until the next upload");
  app.add_option(
      "--out", t.outputs,
      "N.P=FILE or N.P=udp://ADDRESS:PORT: where the channel's packets go, bare or seven a datagram "
      "(repeatable)");
  app.add_option(
      "--source", t.sources,
      "N=FILE.ts[,FILE.ts...]: a source card in slot N with an input for each file, which plays between its "
      "PCRs, over and over; FILE.ts@RATE for one without PCRs (bit/s); udp://ADDRESS:PORT listens there "
      "(repeatable)");
  app.add_option("--pidmap", t.pidMaps,
                 "N.P=FILE.csv[@SECONDS]: load a PID map, as qamctl pidmap load does (repeatable)");
  app.add_option(
      "--programme", t.programmes,
      "N.P=SLOT.INPUT:SERVICE[@SECONDS]: put a programme of an input on the channel, by service name or "
      "number, as qamctl programme add does (repeatable)");
  app.add_option("--dejitter", t.deJitter_ms, "milliseconds that a udp:// input waits for late datagrams")
      ->check(CLI::Range(1, 5'000))
      ->capture_default_str();
  app.add_option("--set", t.settings,
                 "N.NAME=VALUE[@SECONDS]: set a variable of the card in slot N once it runs, or at that "
                 "time: rfreq (kHz), "
                 "rflevel (0.1 dBuV), symbolrate (kBd), qammode, rfswitch, power (qamctl var list tells "
                 "their values); or "
                 "what a sensor measures: temperature1, temperature2 (degrees C) (repeatable)");
  app.add_option(
      "--fault", t.faults,
      "[N.]NAME[@SECONDS]: break something on the card in slot N, or on all, from the start or from that "
      "time on; 'help' lists the names (repeatable). N.P.input-lost[@SECONDS[/PERIOD]] takes input P of "
      "source card N away, for good or for the first half of each period");
  app.add_option("--key", t.keys,
                 "NAME[,NAME...][@SECONDS]: press keys of the front panel: up, down, left, right, ok, cancel "
                 "(repeatable)");
  app.add_option("--menu-timeout", t.menuTimeout_s,
                 "seconds without a key after which the front panel goes back to its first screen; 0: never")
      ->check(CLI::Range(0, 86'400))
      ->capture_default_str();
  app.add_option("--status-period", t.statusPeriod_s,
                 "seconds between status checks of a card, which raise and end its alarms; 0: none. A check "
                 "holds up PSI packets for some milliseconds")
      ->check(CLI::Range(0.0, 86'400.0))
      ->capture_default_str();
  app.add_option("--seconds", t.seconds, "end after this much virtual time");
  app.add_flag("--fast", o.fast, "as fast as this machine can; needs --seconds");
  app.add_option(
      "--epoch", t.epoch,
      "when virtual time begins, for the alarms: UTC, as 2024-05-01 or 2024-05-01T12:00:00Z (default "
      "this machine's clock, with --fast 2000-01-01)");
  app.add_option(
      "--manage", t.manage,
      "ADDRESS:PORT of the management socket, or off; port 0 takes a free one and says which (default "
      "127.0.0.1:" +
          std::to_string(protocol::kDefaultManagementPort) +
          ", with --fast off). It has no "
          "authentication: leave it on loopback unless the network is yours");
  app.add_option("--calibration", t.calibration,
                 "start the DAC calibration service, on ADDRESS:PORT of this machine (default "
                 "127.0.0.1:49156). It has "
                 "no authentication: leave it on loopback unless the network is yours")
      ->expected(0, 1)
      ->default_str("127.0.0.1:49156");
  app.add_flag(
      "--panel", o.panel,
      "the front panel on this terminal: LCD, keys, lamps, RF readout, alarms. What the headend says on it "
      "meanwhile is shown when the panel has ended. Whoever quits it ends the run");
  app.add_option("--log", o.log, "debug lines into this file instead of stderr");
  app.add_option("--report", o.report, "write the report (JSON, docs/report.md) to this file at the end");
  app.add_option(
      "--bus-log", o.busLog,
      "one line an access to a card's window or configuration port: ns, slot, r or w, byte offset, value, "
      "register");
  app.add_option("--trace", o.trace,
                 "the cards' registers over virtual time, as a VCD file for waveform viewers and protocol "
                 "decoders (docs/tracing.md)");
  app.add_option(
      "--trace-lines", o.traceLines,
      "only registers whose name matches this pattern, as 'cdce925_*' or 'slot1.att_*' (repeatable)");
}

void addMachineFlags(CLI::App& app, Options& o, Texts& t) {
  Kernel::Settings& k = o.kernel;
  const std::string group = "The machine";
  const auto cost = [&](const char* flag, Nanos& value, const char* what, Nanos atLeast) {
    app.add_option(flag, value, what)
        ->check(CLI::Range(atLeast, Nanos{10} * kSecond))
        ->capture_default_str()
        ->group(group);
  };
  app.add_option("--aux-hz", k.auxHz, "auxiliary clock, which counts the PSI intervals")
      ->check(CLI::Range(1, 100'000))
      ->capture_default_str()
      ->group(group);
  app.add_option("--tick-hz", k.tickHz, "system clock, which counts delays")
      ->check(CLI::Range(1, 100'000))
      ->capture_default_str()
      ->group(group);
  cost("--bus-ns", k.costs.busAccess, "virtual time of a register access; clean runs from 30 on", 1);
  cost("--loop-ns", k.costs.loopTurn, "of a turn of a counting loop", 1);
  cost("--wait5us-ns", k.costs.wait5us, "of the 5 us wait", 1);
  cost("--dog-ns", k.costs.watchdogKick, "of a kick of the watchdog", 1);
  cost("--call-ns", k.costs.kernelCall, "of a call of the kernel", 1);
  cost("--memory-ns", k.costs.memoryCall, "of malloc and free", 1);
  cost("--file-ns", k.costs.fileCall, "of opening a file", 1);
  cost("--save-ns", k.costs.save, "of saving a parameter record", 1);
  app.add_option("--heap", o.heapBytes, "bytes of the cards' heap")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{1} << 40))
      ->capture_default_str()
      ->group(group);
  app.add_option("--heap-fill", t.heapFill, "byte that fresh memory holds")
      ->check(CLI::Range(0, 255))
      ->capture_default_str()
      ->group(group);
  app.add_option("--seed", o.seed, "for the spread of the parts' times; the same seed, the same run")
      ->capture_default_str()
      ->group(group);
  app.add_option(
         "--eeprom-cycle", t.eepromCycles,
         "N=MILLISECONDS: write cycle of the calibration EEPROM of slot N, 0 to 1000 (default 5; repeatable)")
      ->group(group);
  app.add_option("--power-cut", t.powerCut,
                 "N=EDGE or N=@SECONDS: the power goes at that edge of the lines to DAC and EEPROM of slot "
                 "N, or at that "
                 "time. Ends the run; what the EEPROM then holds is kept")
      ->group(group);
  app.add_flag("--any-bitstream", o.anyBitstream,
               "the cards' FPGAs take any bitstream, not only one with length and CRC of its own")
      ->group(group);
}

void interpret(const Texts& t, Options& o) {
  for (const int card : t.cards) o.slots.push_back(card - 1);
  if (o.slots.empty()) o.slots.push_back(0);
  std::sort(o.slots.begin(), o.slots.end());
  o.slots.erase(std::unique(o.slots.begin(), o.slots.end()), o.slots.end());

  for (const std::string& text : t.psi) parsePsi(text, o);
  for (const std::string& text : t.intervals) parseInterval(text, o);
  for (const std::string& text : t.outputs) parseOutput(text, o);
  for (const std::string& text : t.sources) parseSource(text, o);
  for (const std::string& text : t.pidMaps) parsePidMap(text, o);
  for (const std::string& text : t.programmes) parseProgramme(text, o);
  o.deJitter = static_cast<Nanos>(t.deJitter_ms * 1e6);
  for (const std::string& text : t.settings) parseSet(text, o);
  o.statusPeriod = static_cast<Nanos>(t.statusPeriod_s * 1e9);
  o.menuTimeout = static_cast<Nanos>(t.menuTimeout_s * 1e9);
  for (const std::string& text : t.keys) parseKeys(text, o);
  for (const std::string& text : t.faults) {
    if (!parseInputLoss(text, o)) parseFault(text, o);
  }
  for (const std::string& text : t.eepromCycles) parseEepromCycle(text, o);
  if (!t.powerCut.empty()) parsePowerCut(t.powerCut, o);
  if (t.calibration) parseCalibration(*t.calibration, o);
  if (!t.seconds.empty()) {
    o.duration = parseSeconds(t.seconds);
    if (!o.duration || *o.duration == 0)
      refuse("--seconds", t.seconds, "want a number of seconds above 0, 1e9 at most");
  }
  parseEpoch(t.epoch, o);
  if (!t.manage.empty()) {
    parseManage(t.manage, o);
  } else if (!o.fast) {
    o.manage = {"127.0.0.1", protocol::kDefaultManagementPort};
  }
  parseSnmp(t.snmp, o.snmp);
  o.heapFill = static_cast<u8>(t.heapFill);
  checkTogether(o);
  refuseSharedFiles(o);
}

// "help" instead of a name.
bool asksForFaults(const Texts& texts) {
  return std::find(texts.faults.begin(), texts.faults.end(), "help") != texts.faults.end();
}

void listFaults() {
  for (const FaultKind& kind : faultKinds()) std::cout << kind.name << ": " << kind.text << '\n';
  std::cout << "input-lost: an input of a source card is lost (as 6.1.input-lost@10/4)\n";
}

}  // namespace

CommandLine parseCommandLine(int argc, char** argv) {
  CLI::App app(kDescription, "headend");
  app.footer(kFooter);
  CommandLine line;
  Texts texts;
  addFlags(app, line.options, texts);
  addSnmpFlags(app, line.options.snmp, texts.snmp);
  addMachineFlags(app, line.options, texts);
  try {
    app.parse(argc, argv);
    if (asksForFaults(texts)) {
      listFaults();
      line.exitCode = kExitDone;
      return line;
    }
    interpret(texts, line.options);
  } catch (const CLI::ParseError& e) {
    const bool help = e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success);
    app.exit(e, std::cout, std::cerr);
    line.exitCode = help ? kExitDone : kExitWrongCall;
  }
  return line;
}

}  // namespace headend

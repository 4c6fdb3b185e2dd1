// The flags of `headend`.
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <system_error>

#include "base/files.h"
#include "client/calibration.h"
#include "commands/command.h"
#include "headend/fail.h"
#include "headend/flag_values.h"
#include "headend/hardware/faults.h"
#include "headend/hardware/packet_sink.h"
#include "headend/jobs.h"
#include "headend/vcd_trace.h"
#include "protocol/datagram.h"
#include "protocol/mib_rows.h"

namespace headend {
namespace {

constexpr double kDay = 86'400;  // seconds

using commands::Form;
using commands::kAny;
using commands::Option;

constexpr const char* kDescription =
    "A virtual headend: a chassis with QAM modulator cards in one process, in virtual time. It loads each "
    "card's FPGA from the flash folder, starts the card, and puts its transport streams where --out says. "
    "Slots (1 to 6) and channels (1, 2) count from 1: 2.1 is channel 1 of the card in slot 2. An ADDRESS is "
    "an IPv4 address, an IPv6 address in brackets, or a host name.";

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
  headend --fast --seconds 10 --do '@5 var set 1 rfreq 474000' --do '@8 rf'
      any command of qamctl, at a time of the run
  headend --snmp --snmp-secrets FILE --snmp-trap 127.0.0.1:1162
      any SNMP manager that FILE names reads and sets the cards, and gets their alarms

Exit codes:
  0  the run went through (failed checks and violations are reported, no more)
  1  a card does not run at the end; an output, upload, setting, log, trace or the alarms' history failed or was
     not done by the end; a card's record is not kept; or a file or an address cannot be used
  2  wrong call
  3  an interrupt routine waited, allocated, used a file or touched a register, or a card's menu is broken: the run
     was stopped)";

[[noreturn]] void wrong(const std::string& flag, const std::string& why) {
  throw commands::WrongCall(flag + ": " + why);
}

// Two flags that write one file would leave a mixture; one that reads it would lose it. Devices and pipes are
// for all.
void refuseSharedFiles(const Options& options) {
  namespace fs = std::filesystem;
  std::map<fs::path, std::string> users;
  const auto nameOf = [](const fs::path& file) {
    std::error_code ignored, error;
    const fs::path folder = file.is_relative() ? fs::current_path(error) : fs::path();
    if (error) fail("{}: the current folder is gone: change to another one", file.string());
    try {
      return fs::weakly_canonical(folder / base::followLinks(file), ignored);
    } catch (const std::system_error&) {  // a loop of links: the open reports it
      return folder / file;
    }
  };
  const auto use = [&](const std::string& flag, const fs::path& file, bool isWritten) {
    std::error_code ignored;
    if (file.empty() || (fs::exists(file, ignored) && !fs::is_regular_file(file, ignored))) return;
    const fs::path name = nameOf(file);
    for (const auto& [other, user] : users) {  // a hard link is another name of the same file
      if (other == name || fs::equivalent(other, file, ignored))
        wrong(flag, "'" + file.string() + "': is the file of " + user + " already");
    }
    if (isWritten) users[name] = flag;
  };
  const auto own = [&](const char* user, const fs::path& file) {
    users[nameOf(options.flash / file)] = user;
  };
  own("the cards", "K717_QAM/qam.bin");
  own("the alarms", "alarms/history.dat");
  own("the front panel", "panel/language.txt");
  own("the SNMP engine", "snmp/engine.txt");
  for (int slot = 1; slot <= MAX_BOARD_NUM; ++slot) {
    own("the cards", fmt::format("para/card{}.dat", slot));
    own("the cards", fmt::format("eeprom/card{}.bin", slot));
  }
  for (const auto& [channel, target] : options.outputs) {
    if (!isNetworkTarget(target)) use("--out " + protocol::channelName(channel), target, true);
  }
  for (const std::string& report : options.reports) use("--report", report, true);
  use("--log", options.log, true);
  use("--bus-log", options.busLog, true);
  use("--trace", options.trace, true);
  for (const bool isWritten : {true, false}) {  // several flags may read one file
    for (const Job& job : options.jobs) {
      for (const commands::FileUse& file : job.call->command->files) {
        if (file.isWritten == isWritten) use(job.flag, file.file, isWritten);
      }
    }
  }
  use("--snmp-secrets", options.snmp.secrets, false);
  for (const auto& [slot, inputs] : options.sources) {
    for (const Options::Input& input : inputs) use("--source", input.file, false);
  }
}

// Slots and inputs that other flags name.
void checkPlaces(const Options& options) {
  const auto hasCard = [&](int slot) { return std::ranges::count(options.slots, slot) > 0; };
  const auto demandSlot = [&](const std::string& flag, int slot) {
    if (!hasCard(slot)) wrong(flag, "no card in that slot: add --card " + std::to_string(slot + 1));
  };
  const auto demandInput = [&](const std::string& flag, const protocol::SourcePort& input) {
    const auto card = options.sources.find(input.slot);
    if (card == options.sources.end() || input.port >= card->second.size())
      wrong(flag, "no such input: add --source " + std::to_string(input.slot + 1) + "=FILE.ts");
  };
  for (const auto& [slot, inputs] : options.sources) {
    const std::string flag = "--source " + std::to_string(slot + 1);
    if (options.fast && std::ranges::any_of(inputs, [](const auto& i) { return i.address.has_value(); }))
      wrong(flag, "a udp:// input comes in real time: leave --fast away");
    if (hasCard(slot)) wrong(flag, "there is a modulator card in that slot");
  }
  for (const Job& job : options.jobs) {
    if (job.slot() >= 0) demandSlot(job.flag, job.slot());
    if (job.target().input) demandInput(job.flag, *job.target().input);
  }
  for (const auto& [channel, target] : options.outputs)
    demandSlot("--out " + protocol::channelName(channel), channel.slot);
  for (const auto& t : options.temperatures) demandSlot("--set", t.slot);
  for (const auto& fault : options.faults) {
    const auto& [slot, input, name] = fault.place;
    const std::string flag = "--fault " + protocol::faultName(fault.place);
    if (input) demandInput(flag, {*slot, *input});
    if (slot && !input) demandSlot(flag, *slot);
  }
  for (const int slot : options.blankEeproms) demandSlot("--eeprom", slot);
  for (const auto& [slot, cycle] : options.eepromCycles) demandSlot("--eeprom-cycle", slot);
  for (const auto& [slot, time] : options.lockTimes) demandSlot("--lock-time", slot);
  if (options.powerCut) demandSlot("--power-cut", options.powerCut->slot);
}

void checkTogether(const Options& options) {
  checkPlaces(options);
  for (const std::string& glob : options.traceLines) {
    if (options.trace.empty()) wrong("--trace-lines " + glob, "needs --trace FILE.vcd");
    if (!VcdTrace::matches(glob, options.slots))
      wrong("--trace-lines " + glob, "no register of the cards has such a name, as cdce925_* or slot1.att_*");
  }
  const SnmpSettings& snmp = options.snmp;
  if (!snmp.isUsed() && !snmp.secrets.empty()) wrong("--snmp-secrets", "needs --snmp or --snmp-trap");
  if (!snmp.isUsed() && !std::ranges::equal(snmp.base, protocol::kDefaultMibBase))
    wrong("--snmp-base", "needs --snmp or --snmp-trap");
  if (!snmp.listen && snmp.writeCommunity) wrong("--snmp-write-community", "needs --snmp");
  if (!snmp.trapSink && snmp.inform) wrong("--snmp-inform", "needs --snmp-trap");
  if (snmp.trapSink && snmp.trapSink->port == 0) wrong("--snmp-trap", "no program receives on port 0");
  if (options.panel && options.fast) wrong("--panel", "is for real time: leave --fast out");
  if (options.panel && !options.manage) wrong("--panel", "reaches the headend over --manage, which is off");
  if (options.web.listen && options.fast) wrong("--web", "is for real time: leave --fast out");
  if (options.web.isWritable && !options.web.listen) wrong("--web-write", "needs --web");
  if (!options.web.isWritable && !options.web.tokenFile.empty())
    wrong("--web-token-file", "needs --web-write");
  if (options.web.listen && !options.manage)
    wrong("--web", "reaches the headend over --manage, which is off");
  if (options.fast && !options.duration) wrong("--fast", "needs --seconds: nothing else would end the run");
}

// ---- The flags ----

// Flags whose default depends on other flags.
struct Given {
  bool manage = false;
  std::optional<u32> epoch;
};

// A flag that may be given several times.
void repeated(Form& form, Options& o, const char* name, const std::string& text,
              void (*parse)(const std::string& text, Options& options), const char* group = "") {
  form.take(Option(name, "TEXT", text).repeatable(kAny).group(group),
            [&o, parse](const std::string& value) { parse(value, o); });
}

// A time in units of `unit`, from `least` to `most` of them.
void time(Form& form, Option option, Nanos& field, Nanos unit, double least, double most) {
  const auto scale = static_cast<double>(unit);
  option.byDefault(fmt::format("{:g}", static_cast<double>(field) / scale));
  form.take(option, [=, &field](const std::string& text) {
    const auto value = base::parseReal(text);
    if (!value || *value < least || *value > most)
      refuse(text, fmt::format("want a number from {:g} to {:g}", least, most));
    field = static_cast<Nanos>(*value * scale);
  });
}

void describeCards(Form& form, Options& o) {
  form.value(Option("--flash", "TEXT", "the folder of the flash file system").byDefault(o.flash.string()),
             o.flash, std::identity());
  form.flag("--init-flash", "make that folder with the sample bitstream, no record yet, and exit",
            o.initFlash);
  form.values(Option("--card", "N", "a card in slot N (repeatable; default 1)").repeatable(kAny), o.slots,
              commands::slotOf);
  repeated(
      form, o, "--out",
      fmt::format("{}: where the channel's packets go, bare or seven a datagram (repeatable)", kOutputForms),
      parseOutput);
  repeated(
      form, o, "--source",
      "N=FILE.ts[,FILE.ts...]: a source card in slot N with an input for each file, which plays between its "
      "PCRs, over and over; FILE.ts@RATE for one without PCRs (bit/s); udp://ADDRESS:PORT listens there "
      "(repeatable)",
      parseSource);
  time(form, {"--dejitter", "MS", "milliseconds that a udp:// input waits for late datagrams"}, o.deJitter,
       kSecond / 1000, 1, 5'000);
}

void describeRun(Form& form, Options& o, JobFlags& jobs) {
  jobs.describe(form);
  form.take(
      Option("--set", "TEXT",
             "N.NAME=VALUE[@SECONDS]: set a variable of the card in slot N once it runs, or at that time: "
             "rfreq (kHz), rflevel (0.1 dBuV), symbolrate (kBd), qammode, rfswitch, power (qamctl var list "
             "shows their values); or what a sensor measures: temperature1, temperature2 (degrees C) "
             "(repeatable)")
          .repeatable(kAny),
      [&](const std::string& text) {
        if (!parseTemperature(text, o)) jobs.set(text);
      });
  repeated(
      form, o, "--fault",
      "[N.]NAME[@SECONDS[..SECONDS]]: break something on the card in slot N, or on all, from the start or "
      "from the first time on, permanently or until the second; 'help' lists the names (repeatable). "
      "N.P.input-lost takes input P of source card N away; with /PERIOD at the end only for the first half "
      "of each period",
      parseFault);
  time(form,
       {"--menu-timeout", "S",
        "seconds without a key after which the front panel goes back to its first screen; 0: never"},
       o.menuTimeout, kSecond, 0, kDay);
  time(form,
       {"--status-period", "S",
        "seconds between status checks of a card, which raise and end its alarms; 0: none. A check holds up "
        "PSI "
        "packets for some milliseconds"},
       o.statusPeriod, kSecond, 0, kDay);
  form.take(Option("--seconds", "S", "end after this much virtual time"), [&o](const std::string& text) {
    o.duration = parseSeconds(text);
    if (*o.duration == 0) refuse(text, "want a number of seconds above 0");
  });
  form.flag("--fast", "as fast as this machine can; needs --seconds", o.fast);
}

constexpr const char* kOpenToAll =
    "It has no authentication: leave it on loopback unless the network is yours";

void describeServices(Form& form, Options& o, Given& given) {
  form.take(Option("--manage", "ADDRESS:PORT",
                   fmt::format("ADDRESS:PORT of the management socket, or off; port 0 takes a free one and "
                               "prints which (default 127.0.0.1:{}, with --fast off). {}",
                               protocol::kDefaultManagementPort, kOpenToAll)),
            [&](const std::string& text) {
              given.manage = true;
              if (text != "off") o.manage = parseAddress(text);
            });
  form.value(Option("--epoch", "TIME",
                    "when virtual time begins, for the alarms: UTC, as 2024-05-01 or 2024-05-01T12:00:00Z "
                    "(default this machine's clock, with --fast 2000-01-01)"),
             given.epoch, parseEpoch);
  const std::string calibration = fmt::format("127.0.0.1:{}", client::kDefaultCalibrationPort);
  const std::string text =
      fmt::format("start the DAC calibration service, on ADDRESS:PORT of this machine (default {}). {}",
                  calibration, kOpenToAll);
  form.value(Option("--calibration", "ADDRESS:PORT", text).count(0, 1).byDefault(calibration), o.calibration,
             parseAddress);
  time(form,
       {"--calibration-age", "S",
        "seconds after which a calibration request that still waits is dropped, so that a flood of requests "
        "does not leave others without an answer; 0: never"},
       o.calibrationAge, kSecond, 0, kDay);
  form.flag(
      "--panel",
      "the front panel on this terminal: LCD, keys, lamps, RF readout, alarms. What the headend prints on "
      "it meanwhile is shown when the panel has ended. To quit the panel ends the run",
      o.panel);
  const std::string web = fmt::format("127.0.0.1:{}", protocol::kDefaultWebPort);
  form.value(
      Option("--web", "ADDRESS:PORT",
             fmt::format("a web page of this headend on ADDRESS:PORT of this machine, for browsers (default "
                         "{}; port 0 takes a free one and prints which). It changes nothing without "
                         "--web-write",
                         web))
          .count(0, 1)
          .byDefault(web),
      o.web.listen, parseAddress);
  form.flag("--web-write",
            "users of the web page who know the token, which is shown on the terminal, may change all",
            o.web.isWritable);
  form.text({"--web-token-file", "FILE", "write the token to FILE, which only this user may read, instead"},
            o.web.tokenFile);
  form.text({"--log", "FILE", "debug lines into this file instead of stderr"}, o.log);
  form.values(
      Option("--report", "FILE",
             "write the report to this file at the end: as JSON (docs/report.md), or as a web page for a "
             "browser if the name ends in .html (repeatable)")
          .repeatable(),
      o.reports, std::identity());
  form.text(
      {"--bus-log", "FILE",
       "one line an access to a card's window or configuration port: ns, slot, r or w, byte offset, value, "
       "register"},
      o.busLog);
  form.text(
      {"--trace", "FILE",
       "the cards' registers over virtual time, as a VCD file for waveform viewers and protocol decoders "
       "(docs/tracing.md)"},
      o.trace);
  form.values(
      Option("--trace-lines", "PATTERN",
             "only registers whose name matches this pattern, as 'cdce925_*' or 'slot1.att_*' (repeatable)")
          .repeatable(kAny),
      o.traceLines, std::identity());
}

void describeSnmp(Form& form, SnmpSettings& snmp) {
  const std::string group = "SNMP (docs/snmp.md)";
  const std::string address = "127.0.0.1:1161";
  const std::string text = fmt::format(
      "open the SNMP agent, on ADDRESS:PORT of this machine (default {}; port 0 takes a free one and prints "
      "which). Only managers that --snmp-secrets names are answered",
      address);
  form.value(Option("--snmp", "ADDRESS:PORT", text).count(0, 1).byDefault(address).group(group), snmp.listen,
             parseAddress);
  form.text(
      Option("--snmp-secrets", "FILE",
             "FILE with communities and users, which its owner alone may read (chmod 600). Without it the "
             "environment variable HEADEND_SNMP_SECRETS holds the lines: read-community WORD; "
             "write-community WORD; user NAME read|write SHA-256 PASSPHRASE [AES PASSPHRASE]; "
             "trap-community WORD; trap-user NAME")
          .group(group),
      snmp.secrets);
  form.flag(
      "--snmp-write-community",
      "let managers that know the write-community set the cards: SNMPv2c sends it in the clear. Without "
      "this, only users with authentication and privacy write",
      snmp.writeCommunity, group);
  form.value(
      Option("--snmp-trap", "ADDRESS:PORT",
             "ADDRESS:PORT to which alarms go as notifications, by the trap-community or the trap-user")
          .group(group),
      snmp.trapSink, parseAddress);
  form.flag(
      "--snmp-inform",
      "send notifications as INFORM, which the receiver acknowledges; those that it does not are sent again",
      snmp.inform, group);
  form.value(Option("--snmp-base", "OID",
                    fmt::format("OID of ten components below which the slots are, slot 1 as .2 (default {}; "
                                "qamctl mib --base prints a MIB for another)",
                                protocol::mibBaseText(snmp.base)))
                 .group(group),
             snmp.base, parseSnmpBase);
}

void describeMachine(Form& form, Options& o) {
  Kernel::Settings& k = o.kernel;
  constexpr const char* kGroup = "The machine";
  const auto number = [&](const char* flag, auto& value, const char* what, u64 least, u64 most) {
    form.integer(Option(flag, "NUMBER", what).group(kGroup), value, least, most);
  };
  const auto cost = [&](const char* flag, Nanos& value, const char* what) {
    number(flag, value, what, 1, u64{10} * kSecond);
  };
  number("--aux-hz", k.auxHz, "auxiliary clock, which counts the PSI intervals", 1, 100'000);
  number("--tick-hz", k.tickHz, "system clock, which counts delays", 1, 100'000);
  cost("--bus-ns", k.costs.busAccess, "virtual time of a register access; clean runs from 30 on");
  cost("--loop-ns", k.costs.loopTurn, "of a turn of a counting loop");
  cost("--wait5us-ns", k.costs.wait5us, "of the 5 us wait");
  cost("--dog-ns", k.costs.watchdogKick, "of a kick of the watchdog");
  time(form,
       Option("--watchdog", "MS",
              "a task that runs for longer without a kick of the watchdog is a violation; the run goes on "
              "(0: no limit)")
           .group(kGroup),
       k.watchdog, kSecond / 1000, 0, 1e6);
  cost("--call-ns", k.costs.kernelCall, "of a call of the kernel");
  cost("--memory-ns", k.costs.memoryCall, "of malloc and free");
  cost("--file-ns", k.costs.fileCall, "of opening a file");
  cost("--save-ns", k.costs.save, "of saving a parameter record");
  number("--heap", o.heapBytes, "bytes of the cards' heap", 1, u64{1} << 40);
  number("--heap-fill", o.heapFill, "byte that fresh memory holds", 0, 255);
  number("--seed", o.seed, "for the spread of the parts' times; the same seed, the same run", 0, 0xFFFF'FFFF);
  repeated(form, o, "--eeprom",
           "N=blank: the calibration EEPROM of slot N was never written: 0xFF throughout, which leaves the "
           "card off the air. Without this and without a file it is a new card's, calibrated in the factory "
           "(repeatable)",
           parseEeprom, kGroup);
  repeated(
      form, o, "--eeprom-cycle",
      "N=MILLISECONDS: write cycle of the calibration EEPROM of slot N, 0 to 1000 (default 5; repeatable)",
      parseEepromCycle, kGroup);
  repeated(form, o, "--lock-time",
           "N=MILLISECONDS: time after which the oscillators of slot N lock, 0 to 60000 (default 0.01; "
           "repeatable)",
           parseLockTime, kGroup);
  form.take(
      Option("--power-cut", "TEXT",
             "N=EDGE or N=@SECONDS: the power goes at that edge of the lines to DAC and EEPROM of slot N, "
             "or at that time. Ends the run; what the EEPROM then holds is kept")
          .group(kGroup),
      [&o](const std::string& text) { parsePowerCut(text, o); });
  form.flag("--any-bitstream",
            "the cards' FPGAs take any bitstream, not only one with length and CRC of its own",
            o.anyBitstream, kGroup);
}

// What depends on other flags.
void complete(Options& o, JobFlags& jobs, const Given& given) {
  constexpr u32 kYear2000 = 946'684'800;
  if (o.slots.empty()) o.slots.push_back(0);
  std::ranges::sort(o.slots);
  o.slots.erase(std::unique(o.slots.begin(), o.slots.end()), o.slots.end());
  o.epoch = given.epoch.value_or(o.fast ? kYear2000 : static_cast<u32>(std::time(nullptr)));
  if (!given.manage && !o.fast) o.manage = {"127.0.0.1", protocol::kDefaultManagementPort};
  o.jobs = jobs.jobs();
  checkTogether(o);
  refuseSharedFiles(o);
  if (o.initFlash) return;
  for (Job& job : o.jobs) prepare(job, o.inputCounts());
}

}  // namespace

CommandLine parseCommandLine(int argc, char** argv) {
  CommandLine line;
  JobFlags jobs;
  Given given;
  Form form("headend", kDescription);
  form.footer(kFooter);
  form.configuration();
  describeCards(form, line.options);
  describeRun(form, line.options, jobs);
  describeServices(form, line.options, given);
  describeSnmp(form, line.options.snmp);
  describeMachine(form, line.options);
  try {
    form.parse({argv + 1, argv + argc});
    complete(line.options, jobs, given);
  } catch (const commands::Help& help) {
    std::cout << help.text << std::flush;
    line.exitCode = std::cout ? kExitDone : kExitFailed;
    if (!std::cout) std::cerr << "headend: the output could not be written\n";
  } catch (const commands::WrongCall& e) {
    std::cerr << e.what() << commands::kHelpAdvice;
    line.exitCode = kExitWrongCall;
  } catch (const std::exception& e) {
    std::cerr << "headend: " << e.what() << '\n';
    line.exitCode = kExitFailed;
  }
  return line;
}

}  // namespace headend

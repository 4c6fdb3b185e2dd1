// The flags of `headend`.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <iostream>
#include <map>
#include <set>

#include "client/datagram.h"
#include "headend/options.h"
#include "headend/vcd_trace.h"

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

Exit codes:
  0  the run went through (failed checks and violations are reported, no more)
  1  a card does not run at the end, an output, a save or an upload failed, or a file cannot be used
  2  wrong call
  3  an interrupt routine waited, allocated, used a file or touched a register: the run was stopped)";

[[noreturn]] void refuse(const std::string& flag, const std::string& text, const std::string& want) {
  throw CLI::ValidationError(flag, "'" + text + "': " + want);
}

// Splits "LEFT=RIGHT"; both must be there.
std::pair<std::string, std::string> splitAssignment(const std::string& flag, const std::string& text,
                                                    const std::string& want) {
  const std::size_t at = text.find('=');
  if (at == std::string::npos || at == 0 || at + 1 == text.size()) refuse(flag, text, want);
  return {text.substr(0, at), text.substr(at + 1)};
}

client::Channel channelOf(const std::string& flag, const std::string& text, const std::string& name) {
  const auto channel = client::parseChannel(name);
  if (!channel) refuse(flag, text, "the channel must be N.P with N from 1 to 6 and P 1 or 2");
  return *channel;
}

// Seconds with a fraction; nothing when the text is none, or does not fit.
std::optional<Nanos> parseSeconds(const std::string& text) {
  double seconds = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  if (error != std::errc() || stop != end || !std::isfinite(seconds) || seconds < 0 || seconds > 1e9)
    return {};
  return std::llround(seconds * 1e9);
}

Options::Psi parsePsi(const std::string& text) {
  const char* want = "want N.P=FILE.ts, or N.P=FILE.ts@SECONDS";
  auto [name, file] = splitAssignment("--psi", text, want);
  Options::Psi psi{.channel = channelOf("--psi", text, name), .file = {}, .at = 0};
  const std::size_t at = file.rfind('@');
  if (at != std::string::npos) {
    // A file may have an @ in its name: only what reads as seconds is taken for a time.
    if (const auto seconds = parseSeconds(file.substr(at + 1))) {
      psi.at = *seconds;
      file.resize(at);
    }
  }
  if (file.empty()) refuse("--psi", text, want);
  psi.file = file;
  return psi;
}

void parseInterval(const std::string& text, Options& options) {
  const char* want = "want N.P.TABLE=TICKS, as 1.2.PAT=100";
  const std::size_t dot = text.find('.', text.find('.') == std::string::npos ? 0 : text.find('.') + 1);
  if (dot == std::string::npos) refuse("--interval", text, want);
  const client::Channel channel = channelOf("--interval", text, text.substr(0, dot));
  try {
    const auto [table, ticks] = client::parseInterval(text.substr(dot + 1));
    options.intervals[channel][table] = ticks;
  } catch (const std::invalid_argument& e) {
    throw CLI::ValidationError("--interval", "'" + text + "': " + e.what());
  }
}

void parseOutput(const std::string& text, Options& options) {
  const auto [name, target] = splitAssignment("--out", text, "want N.P=FILE or N.P=udp://ADDRESS:PORT");
  const client::Channel channel = channelOf("--out", text, name);
  if (!options.outputs.emplace(channel, target).second)
    refuse("--out", text, "this channel has an output already");
}

void parseManage(const std::string& text, Options& options) {
  options.manage.reset();
  if (text == "off") return;
  const std::size_t colon = text.rfind(':');
  std::uint16_t port = 0;
  const char* end = text.data() + text.size();
  const bool hasPort = colon != std::string::npos && colon > 0 && colon + 1 < text.size();
  const auto parsed = std::from_chars(hasPort ? text.data() + colon + 1 : end, end, port);
  if (!hasPort || parsed.ec != std::errc() || parsed.ptr != end) {
    refuse("--manage", text, "want ADDRESS:PORT with a port up to 65535, or off");
  }
  options.manage = {text.substr(0, colon), port};
}

// Two flags that name one file would leave a mixture, or none of the one read. Devices and pipes are for all.
void refuseSharedFiles(const Options& options) {
  namespace fs = std::filesystem;
  std::map<fs::path, std::string> users;
  const auto use = [&](const std::string& flag, const fs::path& file) {
    std::error_code ignored;
    if (file.empty() || (fs::exists(file, ignored) && !fs::is_regular_file(file, ignored))) return;
    const auto [entry, isNew] = users.emplace(fs::weakly_canonical(fs::absolute(file), ignored), flag);
    if (!isNew) refuse(flag, file.string(), "is the file of " + entry->second + " already");
  };
  for (const auto& [channel, target] : options.outputs) {
    if (!target.starts_with("udp://")) use("--out " + client::channelName(channel), target);
  }
  use("--report", options.report);
  use("--log", options.log);
  use("--bus-log", options.busLog);
  use("--trace", options.trace);
  std::set<fs::path> captures;
  for (const Options::Psi& psi : options.psi) captures.insert(psi.file);
  for (const fs::path& capture : captures) use("--psi", capture);
}

void checkTogether(const Options& options) {
  const auto hasCard = [&](const client::Channel& channel) {
    return std::find(options.slots.begin(), options.slots.end(), channel.slot) != options.slots.end();
  };
  const auto demand = [&](const std::string& flag, const client::Channel& channel) {
    if (!hasCard(channel)) {
      refuse(flag, client::channelName(channel),
             "no card in that slot: add --card " + std::to_string(channel.slot + 1));
    }
  };
  for (const Options::Psi& psi : options.psi) demand("--psi", psi.channel);
  for (const auto& [channel, intervals] : options.intervals) demand("--interval", channel);
  for (const auto& [channel, target] : options.outputs) demand("--out", channel);
  for (const std::string& glob : options.traceLines) {
    if (options.trace.empty()) refuse("--trace-lines", glob, "needs --trace FILE.vcd");
    if (!VcdTrace::matches(glob, options.slots))
      refuse("--trace-lines", glob, "no register of the cards has such a name, as cdce925_* or slot1.att_*");
  }
  if (options.fast && !options.duration)
    throw CLI::ValidationError("--fast", "needs --seconds: nothing else would end the run");
}

// Texts as they come; they are turned into options when all are there.
struct Texts {
  std::vector<int> cards;
  std::vector<std::string> psi;
  std::vector<std::string> intervals;
  std::vector<std::string> outputs;
  std::string seconds;
  std::string manage;
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
  app.add_option("--seconds", t.seconds, "end after this much virtual time");
  app.add_flag("--fast", o.fast, "as fast as this machine can; needs --seconds");
  app.add_option(
      "--manage", t.manage,
      "ADDRESS:PORT of the management socket, or off; port 0 takes a free one and says which (default "
      "127.0.0.1:" +
          std::to_string(client::kDefaultManagementPort) +
          ", with --fast off). It has no "
          "authentication: leave it on loopback unless the network is yours");
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
  app.add_flag("--any-bitstream", o.anyBitstream,
               "the cards' FPGAs take any bitstream, not only one with length and CRC of its own")
      ->group(group);
}

void interpret(const Texts& t, Options& o) {
  for (const int card : t.cards) o.slots.push_back(card - 1);
  if (o.slots.empty()) o.slots.push_back(0);
  std::sort(o.slots.begin(), o.slots.end());
  o.slots.erase(std::unique(o.slots.begin(), o.slots.end()), o.slots.end());

  for (const std::string& text : t.psi) o.psi.push_back(parsePsi(text));
  for (const std::string& text : t.intervals) parseInterval(text, o);
  for (const std::string& text : t.outputs) parseOutput(text, o);
  if (!t.seconds.empty()) {
    o.duration = parseSeconds(t.seconds);
    if (!o.duration || *o.duration == 0)
      refuse("--seconds", t.seconds, "want a number of seconds above 0, 1e9 at most");
  }
  if (!t.manage.empty()) {
    parseManage(t.manage, o);
  } else if (!o.fast) {
    o.manage = {"127.0.0.1", client::kDefaultManagementPort};
  }
  o.heapFill = static_cast<u8>(t.heapFill);
  checkTogether(o);
  refuseSharedFiles(o);
}

}  // namespace

CommandLine parseCommandLine(int argc, char** argv) {
  CLI::App app(kDescription, "headend");
  app.footer(kFooter);
  CommandLine line;
  Texts texts;
  addFlags(app, line.options, texts);
  addMachineFlags(app, line.options, texts);
  try {
    app.parse(argc, argv);
    interpret(texts, line.options);
  } catch (const CLI::ParseError& e) {
    const bool help = e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success);
    app.exit(e, std::cout, std::cerr);
    line.exitCode = help ? kExitDone : kExitWrongCall;
  }
  return line;
}

}  // namespace headend

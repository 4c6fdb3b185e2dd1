// The fault model: what can break in a history, how often, from when to when.
//
// A history lasts 2 to 3 virtual seconds and has at least five faults; one that begins with the power-up
// lasts longer by the start, which has half of its faults. Faults begin in the first two thirds, at any
// microsecond.
//
// - Parts of a card, 1 to 4: each of the list of `headend --fault help`, for 1 to 400 ms. A lost
//   configuration of the FPGA is kept one time in four, and does not end.
// - Then 0 to 2 of the following, each with the same chance, and more until there are five:
//   - an input of the source card is lost for 1 to 900 ms;
//   - a sensor measures -20 to 90 degrees for 0.2 to 1.2 s;
//   - the flash has no space, is read-only, reads short, or fails at a rename or midway in a write: from the
//     operation 0 to 11 after any time on, for 1 to 900 ms;
//   - the cards get no memory: from the allocation 0 to 300 after any time on, for 1 to 300 ms;
//   - a client leaves a lock behind after some chunks, damages packets, or writes past the lock (twice the
//     chance);
//   - a flood of 20 to 1500 requests, or of garbage, to a socket;
//   - the time of day jumps by up to a day each way.
// - In half of the histories the power is cut once: at a time, at one of the next 12 operations of the flash
//   (before it, or midway in a write), at one of the next 8000 edges of the lines to DAC and EEPROM, or at
//   one of the next 4000 calls of the kernel. A card without memory for its send lists is started again too.
//   The power returns, and the cards that were written start again.
//
// Beside the faults, 4 to 14 commands of operators and 0 to 3 requests of SNMP managers, on all channels at
// the same time.
#include "campaign/history.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <random>

#include "headend/hardware/faults.h"

namespace campaign {
namespace {

using Kind = Step::Kind;
constexpr Nanos kMicrosecond = kMillisecond / 1000;
constexpr Nanos kTick = 10 * kMillisecond;  // of the system clock

// The distributions of the standard library differ between libraries.
class Draw {
 public:
  explicit Draw(u64 seed) : engine_(seed) {}
  std::int64_t from(std::int64_t least, std::int64_t most) {
    return least + static_cast<std::int64_t>(engine_() % static_cast<u64>(most - least + 1));
  }
  bool oneIn(std::int64_t n) { return from(1, n) == 1; }
  template <typename List>
  const auto& of(const List& list) {
    return *std::next(std::begin(list), from(0, static_cast<std::int64_t>(std::size(list)) - 1));
  }

 private:
  std::mt19937_64 engine_;
};

// {s}: a slot, {c}: a channel, {i}: an input, {t}: a table, {n}: a digit.
constexpr const char* kCommands[] = {
    "var set {s} rfreq 47400{n}",
    "var set {s} rfreq 85800{n}",
    "var set {s} rflevel 10{n}0",
    "var set {s} rflevel 1150",
    "var set {s} symbolrate 6875",
    "var set {s} symbolrate 5000",
    "var set {s} qammode 5",
    "var set {s} qammode 7",
    "var set {s} rfswitch 0",
    "var set {s} rfswitch 1",
    "var set {s} power 0",
    "var set {s} power 15",
    "var get {s} rfreq temperature1 temperature2",
    "var get {s} total_rate1 valid_rate2",
    "psi load {c} files/psi-small.ts",
    "psi load {c} files/psi-full.ts --interval PAT=5{n}",
    "psi load {c} files/two-programmes.ts --force",
    "psi load {c} files/psi-many.ts --force --interval {t}=7{n}",
    "psi clear {c}",
    "psi interval {c} {t}={n}",
    "psi interval {c} PAT=10{n} SDT_C=3{n} NIT_C={n}",
    "psi show {c}",
    "psi ticks {c}",
    "pidmap load {c} files/map.csv",
    "pidmap load {c} files/map-full.csv",
    "pidmap clear {c}",
    "pidmap show {c}",
    "pidmap release {c}",
    "programme add {c} --from {i} --service One",
    "programme add {c} --from {i} --service Two",
    "programme remove {c} One",
    "programme list {c}",
    "cal read {s}",
    "cal write {s} --i 10 0{n} 40 00",
    "cal write {s} --i 10 0f 40 00 --q 0c 0{n} 00 00 --common 00 04 00 00 00",
    "key ok down ok ok up ok cancel",
    "key down ok down ok right up up ok cancel cancel",
    "key ok ok down down ok left down ok",
    "lcd",
    "alarms --history",
    "status",
    "rates",
    "rf",
    "pids {c}",
};
constexpr const char* kTables[] = {"PAT", "PMT", "SDT_C", "SDT_O", "NIT_C", "NIT_O", "BAT", "CAT"};
constexpr const char* kFlashFaults[] = {"no space", "read-only", "short read", "rename fails", "write fails"};
constexpr const char* kUploads[] = {"tables left", "map left", "tables damaged", "store overfull"};
constexpr const char* kFloods[] = {"management", "management garbage", "calibration", "calibration garbage",
                                   "snmp"};
constexpr const char* kCuts[] = {"time", "flash", "flash midway", "edge", "call"};

class Author {
 public:
  Author(u64 seed, const Preparation* only) : draw_(seed) {
    history_.seed = seed;
    const std::int64_t share = draw_.from(0, 99);  // drawn in any case: `only` changes nothing else
    history_.preparation = only != nullptr ? only : chosen(share);
    history_.length = draw_.from(2'000, 3'000) * kMillisecond;
    start_ = history_.preparation->isRunning ? 0 : 900 * kMillisecond * slots();
    history_.length += start_;
  }

  History history() {
    for (auto n = draw_.from(4, 14); n > 0; --n) command();
    for (auto n = draw_.from(0, 3); n > 0; --n) snmp();
    for (auto n = draw_.from(1, 4); n > 0; --n) partFault();
    for (auto n = draw_.from(0, 2); n > 0; --n) someFault();
    if (draw_.oneIn(2)) powerCut();
    while (std::ranges::count_if(history_.steps, &Step::isFault) < 5) someFault();
    std::ranges::stable_sort(history_.steps, {}, &Step::at);
    return history_;
  }

 private:
  static const Preparation* chosen(std::int64_t share) {
    for (const Preparation& each : preparations()) {
      if ((share -= each.share) < 0) return &each;
    }
    return &preparations().front();
  }

  std::int64_t slots() const { return static_cast<std::int64_t>(history_.preparation->slots.size()); }
  int slot() { return draw_.of(history_.preparation->slots); }
  bool hasInputs() const { return !history_.preparation->inputs.empty(); }
  // Of a fault. Half of those of a power-up are there during the start, some of them from its first instant
  // on.
  Nanos time() {
    const bool isStart = start_ > 0 && draw_.oneIn(2);
    if (isStart && draw_.oneIn(3)) return 0;
    return draw_.from(0, (isStart ? start_ : history_.length * 2 / 3) / kMicrosecond) * kMicrosecond;
  }

  Step& add(Kind kind, const std::string& what, Nanos shortest_ms = 0, Nanos longest_ms = 0) {
    Step step{
        .kind = kind, .at = time(), .what = what, .slot = slot(), .port = static_cast<int>(draw_.from(0, 1))};
    step.until = step.at + draw_.from(shortest_ms * 1000, longest_ms * 1000) * kMicrosecond;
    return history_.steps.emplace_back(step);
  }

  void command() {
    std::string text = draw_.of(kCommands);
    if (!hasInputs() && (text.starts_with("programme add") || text.starts_with("pidmap load")))
      text = "psi load {c} files/psi-small.ts";
    Step& step = add(Kind::kCommand, "");
    const auto inputs = static_cast<std::int64_t>(history_.preparation->inputs.size());
    step.what =
        fmt::format(fmt::runtime(text), fmt::arg("s", step.slot + 1),
                    fmt::arg("c", fmt::format("{}.{}", step.slot + 1, step.port + 1)),
                    fmt::arg("i", fmt::format("6.{}", draw_.from(1, std::max<std::int64_t>(1, inputs)))),
                    fmt::arg("t", draw_.of(kTables)), fmt::arg("n", draw_.from(0, 9)));
    step.at = start_ * (draw_.oneIn(4) ? 0 : 1) +
              draw_.from(0, (history_.length - start_) * 3 / 4 / kMicrosecond) * kMicrosecond;
  }

  // Half of them while an operator sets the same card: the agent takes a request at a tick.
  void snmp() {
    Step& step = add(Kind::kSnmp, "");
    step.number = draw_.from(0, static_cast<std::int64_t>(std::size(kMibRows)) - 1);
    const Step asked = step;
    if (draw_.oneIn(2)) return;
    Step& other =
        add(Kind::kCommand, fmt::format("var set {} rfreq {}", asked.slot + 1, draw_.from(474, 850) * 1000));
    other.slot = asked.slot;
    other.at = (asked.at / kTick + 1) * kTick + draw_.from(0, 2000) * kMicrosecond;
  }

  void partFault() {
    const headend::FaultKind* chosen = &draw_.of(headend::faultKinds());
    while (!chosen->ends && !draw_.oneIn(4)) chosen = &draw_.of(headend::faultKinds());
    const headend::FaultKind& kind = *chosen;
    Step& step = add(Kind::kFault, kind.name, 1, 400);
    step.what = fmt::format("{}.{}", step.slot + 1, kind.name);
    if (!kind.ends) step.until = 0;
  }

  void someFault() {
    switch (draw_.from(0, 7)) {
      case 0:
        if (!hasInputs()) return;
        add(Kind::kFault,
            fmt::format("6.{}.{}",
                        draw_.from(1, static_cast<std::int64_t>(history_.preparation->inputs.size())),
                        headend::kInputLost),
            1, 900);
        return;
      case 1: {
        Step& step = add(Kind::kTemperature, draw_.oneIn(2) ? "1" : "2", 200, 1200);
        step.number = draw_.oneIn(2) ? draw_.from(69, 90) : draw_.from(-20, 70);
        return;
      }
      case 2:
        add(Kind::kFlash, draw_.of(kFlashFaults), 1, 900).number = draw_.from(0, 11);
        return;
      case 3: {
        Step& step = add(Kind::kHeap, "", 1, 300);
        step.number = draw_.oneIn(2) ? draw_.from(0, 4) : draw_.from(0, 300);
        if (start_ > 0 && draw_.oneIn(2))
          step.until -= std::exchange(step.at, 0);  // the record, the bitstream
        return;
      }
      case 4:
      case 5:
        add(Kind::kUpload, draw_.of(kUploads)).number = draw_.from(1, 60);
        return;
      case 6:
        add(Kind::kFlood, draw_.of(kFloods)).number = draw_.from(20, 1500);
        return;
      default:
        add(Kind::kClock, "").number = draw_.from(-86'400, 86'400);
    }
  }

  void powerCut() {
    Step& step = add(Kind::kPowerCut, draw_.of(kCuts));
    const auto most = step.what == "edge" ? 8000 : step.what == "call" ? 4000 : 12;
    step.number = draw_.from(1, most);
    if (step.what != "edge") return;
    const Step cut = step;  // there are edges while a calibration is written
    Step& write = add(Kind::kCommand,
                      fmt::format("cal write {} --i 10 0f 40 00 --q 0c 0{} 00 00 --common 00 04 00 00 00",
                                  cut.slot + 1, draw_.from(0, 9)));
    write.at = cut.at + kMicrosecond;
  }

  Draw draw_;
  History history_;
  Nanos start_ = 0;
};

}  // namespace

const std::vector<Preparation>& preparations() {
  static const std::vector<Preparation> all = {
      {.name = "power-up",
       .slots = {0},
       .commands = {"psi load 1.1 files/psi-small.ts"},
       .isRunning = false,
       .share = 12},
      {.name = "power-up of two",
       .slots = {1, 4},
       .inputs = {"four-programmes-cbr.ts"},
       .commands = {"psi load 2.1 files/psi-full.ts", "programme add 5.2 --from 6.1 --service One"},
       .isRunning = false,
       .share = 6},
      {.name = "empty", .slots = {0}, .inputs = {"four-programmes-cbr.ts"}, .commands = {}, .share = 7},
      {.name = "small tables",
       .slots = {2},
       .inputs = {},
       .commands = {"psi load 3.1 files/psi-small.ts", "psi load 3.2 files/psi-small.ts --interval PAT=40"},
       .share = 30},
      {.name = "programmes",
       .slots = {0},
       .inputs = {"four-programmes-cbr.ts", "damaged.ts", "rates.ts"},
       .commands = {"programme add 1.1 --from 6.1 --service One",
                    "programme add 1.1 --from 6.1 --service Two",
                    "programme add 1.2 --from 6.2 --service One"},
       .share = 25},
      {.name = "two cards",
       .slots = {0, 3},
       .inputs = {"rates.ts", "four-programmes-cbr.ts"},
       .commands = {"psi load 1.1 files/psi-full.ts", "programme add 1.2 --from 6.2 --service One",
                    "psi load 4.1 files/psi-many.ts", "programme add 4.2 --from 6.2 --service Two"},
       .share = 15},
      {.name = "six cards",
       .slots = {0, 1, 2, 3, 4, 5},
       .commands = {"psi load 1.1 files/psi-full.ts", "psi load 2.1 files/psi-small.ts",
                    "psi load 3.2 files/psi-full.ts", "psi load 4.1 files/two-programmes.ts",
                    "psi load 5.1 files/psi-small.ts", "psi load 6.2 files/psi-many.ts"},
       .share = 5},
  };
  return all;
}

History History::only(const std::vector<std::size_t>& numbers) const {
  History rest = *this;
  rest.steps.clear();
  for (const std::size_t number : numbers) {
    if (number < steps.size()) rest.steps.push_back(steps[number]);
  }
  return rest;
}

History historyOf(u64 seed, const Preparation* only) {
  return Author(seed, only).history();
}

const char* nameOf(Kind kind) {
  constexpr const char* kNames[] = {"command", "snmp",   "part",  "temperature", "flash",
                                    "memory",  "upload", "flood", "clock",       "power cut"};
  return kNames[static_cast<std::size_t>(kind)];
}

SnmpRequest snmpRequestOf(const Step& step) {
  SnmpRequest request{.row = kMibRows[static_cast<std::size_t>(step.number) % std::size(kMibRows)],
                      .value = {}};
  if (step.kind == Kind::kSnmp && request.row.writable && !request.row.isText)
    request.value = step.at % 2 == 0 ? 666'000 : 6;
  return request;
}

std::string describe(const Step& step) {
  if (step.kind == Kind::kSnmp) {
    const auto [row, value] = snmpRequestOf(step);
    return fmt::format("{:8.6f} s  snmp {} {} of slot {}{}", static_cast<double>(step.at) / 1e9,
                       value ? "set" : "get", fmt::join(row.suffix, "."), step.slot + 1,
                       value ? fmt::format(" to {}", *value) : "");
  }
  std::string text =
      fmt::format("{:8.6f} s  {} {}", static_cast<double>(step.at) / 1e9, nameOf(step.kind), step.what);
  if (step.kind == Kind::kPowerCut || step.kind == Kind::kUpload || step.kind == Kind::kTemperature)
    text += fmt::format(" (slot {}, channel {})", step.slot + 1, step.port + 1);
  if (step.number != 0) text += fmt::format(" {}", step.number);
  if (step.until > step.at) text += fmt::format(", until {:.6f} s", static_cast<double>(step.until) / 1e9);
  return text;
}

}  // namespace campaign

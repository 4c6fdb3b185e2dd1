#include "headend/report.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "hw/ad9775.h"

namespace headend {
namespace {

using Json = nlohmann::ordered_json;

double milliseconds(Nanos ns) {
  return static_cast<double>(ns) / 1e6;
}
double seconds(Nanos ns) {
  return static_cast<double>(ns) / 1e9;
}

// GBK from the panel is for a later decoder: what is no UTF-8 must not end up in a JSON text.
std::string printable(const std::string& text) {
  std::string clean = text;
  for (char& c : clean) {
    if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E) c = '?';
  }
  return clean;
}

Json tables(Headend& headend, int slot, int port) {
  Json all = Json::object();
  const QamCardPara* record = GetQamCardParaFromList(static_cast<u8>(slot));
  const CarouselMonitor::Tables& seen = headend.monitor.tables(slot, port);
  for (const PsiType type : mpeg::kAllTables) {
    const CarouselMonitor::Table& table = seen[type];
    Json entry = {{"set_ticks", record == nullptr ? 0 : record->Interval[port][type]},
                  {"stored", record == nullptr ? 0 : record->pktNum[port][type]},
                  {"posted", table.posted}};
    if (table.intervals > 0) {
      entry["interval_ticks"] = {
          {"min", table.min_ticks},
          {"mean", static_cast<double>(table.sum_ticks) / static_cast<double>(table.intervals)},
          {"max", table.max_ticks}};
    } else {
      entry["interval_ticks"] = nullptr;
    }
    all[mpeg::tableName(type)] = std::move(entry);
  }
  return all;
}

template <typename T>
Json orNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json rates(const RateMeter::Rates& rates) {
  return {{"input", std::llround(rates.input)},
          {"routed", std::llround(rates.routed)},
          {"psi", std::llround(rates.psi)},
          {"null", std::llround(rates.null)},
          {"total", std::llround(rates.total)}};
}

// What the router does for a channel.
Json map(Headend& headend, int slot, int port) {
  PidRouter& router = headend.router;
  const Nanos now = headend.kernel.now();
  Json entry = {{"entries", router.used(slot, port)},
                {"shadowed", router.shadowed(slot, port)},
                {"input_lost", router.inputLost(slot, port, now)},
                {"overflow", headend.mainBoard.overflows(slot, port, now)}};
  if (const auto since = headend.backEnd.lockedSince(BackEnd::Lock::kPidMap, slot, port)) {
    entry["locked_seconds"] = seconds(now - *since);
  }
  return entry;
}

Json sources(Headend& headend) {
  Json all = Json::array();
  for (const int slot : headend.sources.slots()) {
    Json inputs = Json::array();
    for (std::size_t input = 0; input < headend.sources.inputs(slot); ++input) {
      const int port = static_cast<int>(input);
      const PidRouter::InputCounts& counts = *headend.router.input(slot, port);
      inputs.push_back({{"input", input + 1},
                        {"name", headend.sources.nameOf(slot, input)},
                        {"packets", counts.packets},
                        {"damaged", counts.damaged},
                        {"bit_rate", std::llround(headend.rates.input(slot, port))},
                        {"last_seconds", counts.last ? Json(seconds(*counts.last)) : Json(nullptr)}});
    }
    all.push_back({{"slot", slot + 1}, {"inputs", std::move(inputs)}});
  }
  return all;
}

Json channel(Headend& headend, int slot, int port) {
  Multiplexer& output = headend.output(slot, port);
  output.advance(headend.kernel.now());
  const Multiplexer::Counts& counts = output.counts();
  Json entry = {{"bit_rate", output.rate().perSecond()},
                {"packets",
                 {{"total", counts.total()},
                  {"psi", counts.psi},
                  {"routed", counts.routed},
                  {"null", counts.null},
                  {"offered", counts.offered},
                  {"filtered", counts.filtered},
                  {"dropped", counts.dropped}}},
                {"rates", rates(headend.rates.output(slot, port))},
                {"map", map(headend, slot, port)},
                {"rf", rfReport(headend.card(slot).rf(static_cast<std::size_t>(port), headend.kernel.now()))},
                {"tables", tables(headend, slot, port)}};
  if (const auto since = headend.backEnd.lockedSince(BackEnd::Lock::kPsi, slot, port)) {
    entry["locked_seconds"] = seconds(headend.kernel.now() - *since);
  }
  return entry;
}

Json startup(Headend& headend, int slot) {
  const StartupTimeline& timeline = headend.chassis.timeline(slot);
  Json phases = Json::array();
  for (const auto& phase : timeline.phases(headend.kernel.now(), headend.bus.accesses(slot))) {
    phases.push_back({{"phase", phase.name},
                      {"from_ms", milliseconds(phase.from)},
                      {"ms", milliseconds(phase.until - phase.from)},
                      {"bus_accesses", phase.busAccesses}});
  }
  return phases;
}

// What the DAC has taken, what its EEPROM holds for it, and whether that would trouble a real part's port.
Json calibration(Headend& headend, int slot) {
  CardBoard& board = headend.card(slot).board();
  Json dac = Json::array();
  Json eeprom = Json::array();
  for (u8 n = 0; n < kDacRegisters; ++n) {
    dac.push_back(board.dac().reg(n));
    eeprom.push_back(board.eeprom().image(headend.kernel.now())[n]);
  }
  return {{"dac", std::move(dac)},
          {"eeprom", std::move(eeprom)},
          {"dac_port_at_risk", board.dac().portAtRisk()},
          {"edges", board.calibrationEdges()}};
}

Json card(Headend& headend, int slot) {
  const Chassis::Slot& s = headend.chassis.slot(slot);
  Json lcd = Json::array();
  for (const std::string& line : s.lcd) lcd.push_back(printable(line));
  Json entry = {{"slot", slot + 1},
                {"state", protocol::nameOf(headend.state(slot)).name},
                {"lcd", std::move(lcd)},
                {"startup_ms", s.initTook ? Json(milliseconds(*s.initTook)) : Json(nullptr)},
                {"startup", startup(headend, slot)},
                {"fpga_attempts", headend.card(slot).configuration().attempts()},
                {"saves", s.saves},
                {"calibration", calibration(headend, slot)}};
  if (const Observation::ParkedTask* hung = headend.observation.hangingTask(slot)) {
    entry["hung"] = {{"task", hung->task}, {"register", hung->reg}, {"since_seconds", seconds(hung->since)}};
  }
  Json channels = Json::array();
  for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) channels.push_back(channel(headend, slot, port));
  entry["channels"] = std::move(channels);
  return entry;
}

Json lateRequests(const Headend& headend) {
  Json all = Json::array();
  for (const BackEnd::LateRequest& late : headend.backEnd.lateRequests()) {
    Json load = Json::array();
    for (const auto& [name, took] : late.load) load.push_back({{"task", name}, {"ms", milliseconds(took)}});
    all.push_back({{"arrived_seconds", seconds(late.arrived)}, {"load", std::move(load)}});
  }
  return all;
}

Json semaphoreWaits(const Headend& headend) {
  Json all = Json::array();
  for (const Observation::LongWait& wait : headend.observation.longWaits()) {
    all.push_back({{"task", wait.task},
                   {"semaphore", wait.semaphore},
                   {"held_by", wait.holder},
                   {"since_seconds", seconds(wait.since)}});
  }
  return all;
}

Json alarms(const Headend& headend) {
  Json standing = Json::array();
  for (const AlarmRecord& raised : headend.alarms.standing()) {
    const protocol::Alarm alarm = outward(raised).alarm;
    standing.push_back({{"slot", alarm.slot + 1},
                        {"port", alarm.port + 1},
                        {"type", alarm.type},
                        {"happened", alarm.happened},
                        {"en", {{"title", alarm.enTitle}, {"text", alarm.enText}, {"trap", alarm.enTrap}}},
                        {"zh", {{"title", alarm.zhTitle}, {"text", alarm.zhText}, {"trap", alarm.zhTrap}}}});
  }
  return {{"standing", std::move(standing)},
          {"events", headend.alarms.events()},
          {"kept", headend.alarms.file().kept()}};
}

}  // namespace

Json rfReport(const RfOutput& output) {
  return {{"verdict", verdictName(output.verdict)},
          {"on_air", output.verdict == RfOutput::Verdict::kOnAir},
          {"why", output.why},
          {"frequency_khz", orNull(output.frequency_kHz)},
          {"level_dbuv", output.level_dBuV},
          {"symbol_rate_kbd", output.symbolRate_kBd},
          {"clock_kbd", orNull(output.clock_kBd)},
          {"constellation", orNull(constellationName(output))},
          {"bit_rate", output.bitRate}};
}

Json report(Headend& headend) {
  const Kernel& kernel = headend.kernel;
  Json failures = Json::array();
  for (const Observation::FailedCheck& f : headend.observation.failedChecks()) {
    failures.push_back({{"unit", f.unit}, {"line", f.line}, {"text", f.text}});
  }
  Json violations = Json::object();
  for (const auto& [kind, count] : headend.violations.counts()) violations[kind] = count;
  Json cards = Json::array();
  for (const int slot : headend.options.slots) cards.push_back(card(headend, slot));
  return {{"virtual_seconds", seconds(kernel.now())},
          {"aux_hz", kernel.settings().auxHz},
          {"tick_hz", kernel.settings().tickHz},
          {"assertion_failures", std::move(failures)},
          {"protocol_violations", std::move(violations)},
          {"late_requests", lateRequests(headend)},
          {"semaphore_waits", semaphoreWaits(headend)},
          {"heap", {{"used", headend.heap.used()}, {"failures", headend.heap.failures()}}},
          {"alarms", alarms(headend)},
          {"sources", sources(headend)},
          {"cards", std::move(cards)}};
}

std::string reportText(Headend& headend) {
  return report(headend).dump(2) + "\n";
}

void provideStatus(Headend& headend) {
  headend.backEnd.provide(protocol::Operation::kStatus, BackEnd::Target::kChassis,
                          [&headend](const protocol::Request&, base::Bytes& reply) -> u32 {
                            const std::string text = report(headend).dump();
                            reply.assign(text.begin(), text.end());
                            return protocol::kDone;
                          });
}

}  // namespace headend

#include "headend/report.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "commands/status.h"
#include "hw/ad9775.h"

namespace headend {
namespace {

using Json = nlohmann::ordered_json;

template <typename Range, typename Entry>
Json listOf(const Range& range, Entry entryOf) {
  Json all = Json::array();
  for (const auto& element : range) all.push_back(entryOf(element));
  return all;
}

// For the numbers from 0 to below `end`.
template <typename Entry>
Json listBelow(int end, Entry entryOf) {
  Json all = Json::array();
  for (int i = 0; i < end; ++i) all.push_back(entryOf(i));
  return all;
}

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
  const auto inputOf = [&headend](int slot, int port) -> Json {
    const PidRouter::InputCounts& counts = *headend.router.input(slot, port);
    return {{"input", port + 1},
            {"name", headend.sources.nameOf(slot, static_cast<std::size_t>(port))},
            {"packets", counts.packets},
            {"damaged", counts.damaged},
            {"bit_rate", std::llround(headend.rates.input(slot, port))},
            {"last_seconds", counts.last ? Json(seconds(*counts.last)) : Json(nullptr)}};
  };
  return listOf(headend.sources.slots(), [&](int slot) -> Json {
    const int inputs = static_cast<int>(headend.sources.inputs(slot));
    return {{"slot", slot + 1}, {"inputs", listBelow(inputs, [&](int port) { return inputOf(slot, port); })}};
  });
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
  return listOf(timeline.phases(headend.kernel.now(), headend.bus.accesses(slot)),
                [](const StartupTimeline::Phase& phase) -> Json {
                  return {{"phase", phase.name},
                          {"from_ms", milliseconds(phase.from)},
                          {"ms", milliseconds(phase.until - phase.from)},
                          {"bus_accesses", phase.busAccesses}};
                });
}

// What the DAC has taken, what its EEPROM holds for it, and whether that would trouble a real part's port.
Json calibration(Headend& headend, int slot) {
  CardBoard& board = headend.card(slot).board();
  const Eeprom::Image& image = board.eeprom.image(headend.kernel.now());
  return {
      {"dac", listBelow(kDacRegisters, [&board](int n) { return board.dac.reg(static_cast<u8>(n)); })},
      {"eeprom", listBelow(kDacRegisters, [&image](int n) { return image[static_cast<std::size_t>(n)]; })},
      {"dac_port_at_risk", board.dac.portAtRisk()},
      {"edges", board.calibrationEdges()}};
}

Json card(Headend& headend, int slot) {
  const Chassis::Slot& s = headend.chassis.slot(slot);
  Json entry = {{"slot", slot + 1},
                {"state", protocol::nameOf(headend.state(slot)).name},
                {"lcd", listOf(s.lcd, printable)},
                {"startup_ms", s.initTook ? Json(milliseconds(*s.initTook)) : Json(nullptr)},
                {"startup", startup(headend, slot)},
                {"fpga_attempts", headend.card(slot).configuration().attempts()},
                {"saves", s.saves},
                {"calibration", calibration(headend, slot)}};
  if (const Observation::ParkedTask* hung = headend.observation.hangingTask(slot)) {
    entry["hung"] = {{"task", hung->task}, {"register", hung->reg}, {"since_seconds", seconds(hung->since)}};
  }
  entry["channels"] = listBelow(MAX_QAM_OUT_NUM, [&](int port) { return channel(headend, slot, port); });
  return entry;
}

Json lateRequests(const Headend& headend) {
  return listOf(headend.backEnd.lateRequests(), [](const BackEnd::LateRequest& late) -> Json {
    const auto loadOf = [](const auto& load) -> Json {
      return {{"task", load.first}, {"ms", milliseconds(load.second)}};
    };
    return {{"arrived_seconds", seconds(late.arrived)}, {"load", listOf(late.load, loadOf)}};
  });
}

Json semaphoreWait(const Observation::LongWait& wait) {
  return {{"task", wait.task},
          {"semaphore", wait.semaphore},
          {"held_by", wait.holder},
          {"since_seconds", seconds(wait.since)}};
}

Json failedCheck(const Observation::FailedCheck& check) {
  return {{"unit", check.unit}, {"line", check.line}, {"text", check.text}};
}

Json standingAlarm(const AlarmRecord& raised) {
  return commands::alarmJson(outward(raised).alarm);
}

Json command(const Operator::Progress& progress) {
  const auto secondsOf = [](const std::optional<Nanos>& time) {
    return time ? Json(seconds(*time)) : Json();
  };
  return {{"flag", progress.job.flag},
          {"command", progress.job.text},
          {"began_seconds", secondsOf(progress.began)},
          {"ended_seconds", secondsOf(progress.ended)},
          {"output", progress.output},
          {"error", progress.error.empty() ? Json() : Json(progress.error)}};
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
  const Kernel::Settings& settings = headend.kernel.settings();
  // First, because this computes the outputs until now, and so what the inputs have sent.
  Json cards = listOf(headend.options.slots, [&](int slot) { return card(headend, slot); });
  return {{"virtual_seconds", seconds(headend.kernel.now())},
          {"aux_hz", settings.auxHz},
          {"tick_hz", settings.tickHz},
          {"assertion_failures", listOf(headend.observation.failedChecks(), failedCheck)},
          {"protocol_violations", Json(headend.violations.counts())},
          {"late_requests", lateRequests(headend)},
          {"semaphore_waits", listOf(headend.observation.longWaits(), semaphoreWait)},
          {"heap", {{"used", headend.heap.used()}, {"failures", headend.heap.failures()}}},
          {"alarms",
           {{"standing", listOf(headend.alarms.standing(), standingAlarm)},
            {"events", headend.alarms.events()},
            {"kept", headend.alarms.file().kept()}}},
          {"sources", sources(headend)},
          {"cards", std::move(cards)}};
}

std::string reportText(Headend& headend) {
  Json all = report(headend);
  all["commands"] = listOf(headend.automaticOperator.jobs(), command);
  return all.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
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

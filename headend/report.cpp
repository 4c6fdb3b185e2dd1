#include "headend/report.h"

#include <algorithm>
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

template <typename T>
Json orNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}
Json secondsOrNull(const std::optional<Nanos>& time) {
  return time ? Json(seconds(*time)) : Json(nullptr);
}

// GBK from the panel is for a later decoder: what is no UTF-8 must not end up in a JSON text.
std::string printable(std::string text) {
  std::ranges::replace_if(
      text, [](unsigned char c) { return c < 0x20 || c > 0x7E; }, '?');
  return text;
}

Json tables(Headend& headend, int slot, int port) {
  Json all = Json::object();
  const QamCardPara* record = GetQamCardParaFromList(static_cast<u8>(slot));
  const CarouselMonitor::Tables& seen = headend.monitor.tables(slot, port);
  for (const PsiType type : mpeg::kAllTables) {
    const CarouselMonitor::Table& table = seen[type];
    const auto intervals = static_cast<double>(table.intervals);
    const Json ticks = {{"min", table.min_ticks},
                        {"mean", static_cast<double>(table.sum_ticks) / intervals},
                        {"max", table.max_ticks}};
    all[mpeg::tableName(type)] = {{"set_ticks", record == nullptr ? 0 : record->Interval[port][type]},
                                  {"stored", record == nullptr ? 0 : record->pktNum[port][type]},
                                  {"posted", table.posted},
                                  {"interval_ticks", table.intervals > 0 ? ticks : Json(nullptr)}};
  }
  return all;
}

// What the router does for a channel.
Json map(Headend& headend, int slot, int port) {
  PidRouter& router = headend.router;
  const Nanos now = headend.kernel.now();
  Json entry = {{"entries", router.used(slot, port)},
                {"shadowed", router.shadowed(slot, port)},
                {"input_lost", router.inputLost(slot, port, now)},
                {"overflow", headend.mainBoard.overflows(slot, port, now)}};
  if (const auto since = headend.backEnd.lockedSince(qam_back::kPidMapLock, slot, port)) {
    entry["locked_seconds"] = seconds(now - *since);
  }
  return entry;
}

Json sources(Headend& headend) {
  const auto inputOf = [&headend](int slot, int port, const TsInput& input) -> Json {
    const PidRouter::InputCounts& counts = *headend.router.input(slot, port);
    Json disturbances = Json::object();
    for (const auto& [name, count] : input.disturbances()) disturbances[name] = count;
    return {{"input", port + 1},
            {"name", input.name()},
            {"packets", counts.packets},
            {"damaged", counts.damaged},
            {"bit_rate", std::llround(headend.rates.input(slot, port))},
            {"last_seconds", secondsOrNull(counts.last)},
            {"disturbances", disturbances}};
  };
  return listOf(headend.sources.cards(), [&](const auto& entry) -> Json {
    const auto& [slot, card] = entry;
    int port = 0;
    const auto next = [&, slot = slot](const auto& input) { return inputOf(slot, port++, *input); };
    return {{"slot", slot + 1}, {"inputs", listOf(card.inputs, next)}};
  });
}

Json channel(Headend& headend, int slot, int port) {
  Multiplexer& output = headend.output(slot, port);
  output.advance(headend.kernel.now());
  const Multiplexer::Counts& counts = output.counts();
  Json entry = {{"bit_rate", headend.card(slot).configuration().done() ? output.rate().perSecond() : 0},
                {"packets",
                 {{"total", counts.total()},
                  {"psi", counts.psi},
                  {"routed", counts.routed},
                  {"null", counts.null},
                  {"offered", counts.offered},
                  {"filtered", counts.filtered},
                  {"dropped", counts.dropped}}},
                {"rates", ratesReport(headend.rates.output(slot, port))},
                {"map", map(headend, slot, port)},
                {"rf", rfReport(headend.card(slot).rf(static_cast<std::size_t>(port), headend.kernel.now()))},
                {"tables", tables(headend, slot, port)}};
  if (const auto since = headend.backEnd.lockedSince(qam_back::kPsiLock, slot, port)) {
    entry["locked_seconds"] = seconds(headend.kernel.now() - *since);
  }
  return entry;
}

Json startupPhase(const Chassis::Phase& phase) {
  return {{"phase", phase.name},
          {"from_ms", milliseconds(phase.from)},
          {"ms", milliseconds(phase.until - phase.from)},
          {"bus_accesses", phase.busAccesses}};
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
                {"startup", listOf(headend.chassis.startup(slot), startupPhase)},
                {"fpga_attempts", headend.card(slot).configuration().attempts()},
                {"saves", s.saves},
                {"record_kept", s.recordKept()},
                {"calibration", calibration(headend, slot)}};
  if (const Observation::ParkedTask* hung = headend.observation.hangingTask(slot)) {
    entry["hung"] = {{"task", hung->task}, {"register", hung->reg}, {"since_seconds", seconds(hung->since)}};
  }
  entry["channels"] = listBelow(MAX_QAM_OUT_NUM, [&](int port) { return channel(headend, slot, port); });
  return entry;
}

Json lateRequest(const BackEnd::LateRequest& late) {
  const auto loadOf = [](const auto& load) -> Json {
    return {{"task", load.first}, {"ms", milliseconds(load.second)}};
  };
  return {{"arrived_seconds", seconds(late.arrived)}, {"load", listOf(late.load, loadOf)}};
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

Json longestRun(const std::unique_ptr<Task>& task) {
  return {{"task", task->name},
          {"longest_ms", milliseconds(task->stretch.longest)},
          {"longest_poll_ms", milliseconds(task->stretch.longestPoll)}};
}

Json command(const Job& job) {
  return {{"flag", job.flag},
          {"command", job.text},
          {"began_seconds", secondsOrNull(job.began)},
          {"ended_seconds", secondsOrNull(job.ended)},
          {"output", job.output},
          {"error", job.error.empty() ? Json() : Json(job.error)}};
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

Json ratesReport(const RateMeter::Rates& rates) {
  return {{"input", std::llround(rates.input)},
          {"routed", std::llround(rates.routed)},
          {"psi", std::llround(rates.psi)},
          {"null", std::llround(rates.null)},
          {"total", std::llround(rates.total)}};
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
          {"faults", headend.faults.report()},
          {"late_requests", listOf(headend.backEnd.lateRequests(), lateRequest)},
          {"calibration_dropped", headend.sockets.dropped()},
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
  all["watchdog"] = listOf(headend.kernel.tasks(), longestRun);
  all["commands"] = listOf(headend.automaticOperator.jobs(), command);
  return all.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

void provideStatus(Headend& headend) {
  headend.backEnd.provide(protocol::Operation::kStatus, BackEnd::Target::kChassis, {},
                          [&headend](const protocol::Request&, base::Bytes& reply) -> u32 {
                            const std::string text = report(headend).dump();
                            reply.assign(text.begin(), text.end());
                            return protocol::kDone;
                          });
}

}  // namespace headend

#include "headend/headend.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "headend/hardware/file_input.h"
#include "headend/hardware/ts_input.h"
#include "headend/hardware/udp_input.h"
#include "ui/qamMibRows.h"

namespace headend {
namespace {

Panel::Firmware menuFirmware(Headend& headend) {
  return {.card = [&headend](int slot) { return headend.chassis.slot(slot).descriptor; },
          .fault = [&headend](int slot) -> std::optional<protocol::Words> {
            if (headend.runs(slot)) return std::nullopt;
            return protocol::nameOf(headend.state(slot)).words;
          },
          .recordKept = [&headend](int slot) { return headend.chassis.slot(slot).recordKept(); },
          .text = [&headend](int slot, u32 id) { return headend.chassis.readText(slot, id); },
          .alarms = [&headend] { return std::cref(headend.alarms.standing()); },
          .stop = [&headend](const std::string& why) { headend.kernel.fail(why); }};
}

// A card whose configuration failed has no rows.
void openMib(Headend& headend, int slot) {
  const chassis::card& card = *headend.chassis.slot(slot).descriptor;
  if (card.mibRegister == nullptr || !headend.runs(slot)) return;
  std::vector<u32> base = headend.options.snmp.base;
  base.push_back(kMibFirstSlot + static_cast<u32>(slot));
  card.mibRegister(base.data(), static_cast<int>(base.size()));
}

std::string counted(u64 number, const char* one, const char* more) {
  return fmt::format("{} {}", number, number == 1 ? one : more);
}

void describeFile(const Headend& headend, const FileInput& file) {
  const auto& [losses, leading, trailing] = file.survey().damage;
  std::vector<std::string> damage;
  if (losses > 0) damage.push_back(fmt::format("sync lost {}", counted(losses, "time", "times")));
  if (leading > 0)
    damage.push_back(fmt::format("{} before the first packet", counted(leading, "byte", "bytes")));
  if (trailing > 0) damage.push_back(fmt::format("{} behind the last", counted(trailing, "byte", "bytes")));
  if (!damage.empty())
    headend.say(fmt::format("{} is damaged: {}; the rest plays", file.name(), fmt::join(damage, ", ")));
  if (const std::string seam = file.seam(); !seam.empty()) {
    headend.say(fmt::format("{} plays in passes of {:.3f} s; between two passes {}", file.name(),
                            static_cast<double>(file.period_ticks()) / mpeg::kPcrHz, seam));
  }
}

std::unique_ptr<TsInput> openInput(Headend& headend, const Options::Input& input) {
  if (input.address) {
    return std::make_unique<UdpInput>(headend.network, input.address->host, input.address->port,
                                      headend.options.deJitter);
  }
  auto file = std::make_unique<FileInput>(input.file.string(), input.bitRate, 0, headend.say);
  describeFile(headend, *file);
  return file;
}

}  // namespace

Headend::Headend(Options chosen)
    : options(std::move(chosen)),
      log(options.log),
      heap(options.heapBytes, options.heapFill),
      flashLock(options.flash, say),
      flash(options.flash, options.fast ? base::Flush::kLater : base::Flush::kNow),
      observation(kernel, bus, violations, chassis, monitor, log, say),
      kernel(options.kernel, observation),
      network(kernel),
      bus(violations),
      chassis(kernel, bus, flash, say),
      alarms(
          flash, [this] { return options.epoch + static_cast<u32>(kernel.now() / kSecond); }, say),
      statusChecks(kernel, chassis, alarms, [this](int slot) { return state(slot); }),
      panel(kernel, flash, options.menuTimeout, menuFirmware(*this), say),
      backEnd(kernel, network, chassis, monitor, log, [this](int slot) { return state(slot); }),
      faults(kernel, cards, router, backEnd, say),
      sources(kernel, router, backEnd),
      pidCounters(kernel, sources, backEnd,
                  [this](int slot, int port) {
                    return std::ranges::count(options.slots, slot) > 0 && port < MAX_QAM_OUT_NUM
                               ? &output(slot, port)
                               : nullptr;
                  }),
      search(kernel, backEnd, [this](int slot, int port) -> Multiplexer& { return output(slot, port); }),
      shell(kernel, backEnd),
      automaticOperator(kernel, network, chassis, log),
      sockets(network, options.calibrationAge, say),
      eepromFiles(flash, say) {
  installCards();
  openOutputs();
  openInputs();
  connectRouter();
  provideServices();
  checkFlashFiles(options.flash, options.slots, say);
  if (options.snmp.isUsed()) {
    snmp.emplace(
        kernel, network, flash, options.snmp,
        [this](int slot) { return runs(slot) ? chassis.slot(slot).descriptor : nullptr; },
        ChassisTables::Sources{.kernel = kernel,
                               .slots = options.slots,
                               .state = [this](int slot) { return state(slot); },
                               .alarms = alarms,
                               .checks = statusChecks,
                               .rates = rates},
        say);
    alarms.onEvent = [this](const AlarmRecord& event) { snmp->notify(event); };
  }
  setRunning(this);
  startCards();
  automaticOperator.start(options.jobs, options.slots.empty() ? 0 : options.slots.front(),
                          options.inputCounts());
}

protocol::CardState Headend::state(int slot) const {
  using State = protocol::CardState;
  const Chassis::Slot& place = chassis.slot(slot);
  const FpgaConfiguration& part = cards[static_cast<std::size_t>(slot)]->configuration();
  // A card without a bitstream also hangs, at the first bus whose line it waits for; the missing bitstream is
  // the more useful message.
  if (observation.hangingTask(slot) != nullptr)
    return part.attempts() == 0 ? State::kNoBitstream : State::kHung;
  if (!place.initReturned) return place.registrationFailed ? State::kNotRegistered : State::kStarting;
  if (place.descriptor->varPtr == nullptr) return State::kNoRecord;
  if (part.done()) return State::kRunning;
  return part.attempts() == 0 ? State::kNoBitstream : State::kConfigError;
}

void Headend::installCards() {
  if (!options.busLog.empty()) bus.logTo(busLog.emplace("bus log", options.busLog).get());
  if (!options.trace.empty()) trace.emplace(options.trace, options.slots, options.traceLines);
  for (const int slot : options.slots) installCard(slot);
}

void Headend::installCard(int slot) {
  cards[static_cast<std::size_t>(slot)] = std::make_unique<CardFpga>(
      FpgaConfiguration::Settings{.anyBitstream = options.anyBitstream,
                                  .seed = options.seed * MAX_BOARD_NUM + static_cast<unsigned>(slot)},
      violations);
  CardBoard& board = card(slot).board();
  eepromFiles.load(slot, options.blankEeproms.contains(slot), board.eeprom);
  if (const auto cycle = options.eepromCycles.find(slot); cycle != options.eepromCycles.end())
    board.eeprom.writeCycle(cycle->second);
  if (const auto time = options.lockTimes.find(slot); time != options.lockTimes.end()) {
    board.firstOscillator.lockTime(time->second);
    board.secondOscillator.lockTime(time->second);
  }
  bus.attach(slot, card(slot));
  card(slot).onConfiguration([this, slot](bool complete, Nanos /*now*/) {
    if (chassis.slot(slot).initReturned) return;
    if (complete || card(slot).configuration().attempts() == 1)
      chassis.beginPhase(slot, complete ? "settling" : "FPGA configuration");
  });
  card(slot).onRegister([this, slot](u32 offset, u16 value, Nanos now) {
    chassis.accessed(slot, offset);
    if (trace) trace->note(slot, offset, value, now);
  });
}

void Headend::openOutputs() {
  for (const auto& [channel, target] : options.outputs) {
    auto sink = openSink(target);
    card(channel.slot).output(channel.port).setSink(sink.get());
    sinks.emplace(channel, std::move(sink));
  }
}

void Headend::openInputs() {
  for (const auto& [slot, targets] : options.sources) {
    std::vector<std::unique_ptr<TsInput>> inputs;
    for (const Options::Input& target : targets) inputs.push_back(openInput(*this, target));
    sources.plugIn(slot, std::move(inputs));
  }
}

void Headend::connectRouter() {
  bus.attach(mainBoard);
  for (const int slot : options.slots) {
    for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
      Multiplexer& connected = output(slot, port);
      router.connectOutput(slot, port, connected);
      mainBoard.watch(slot, port, connected);
      rates.watchOutput(slot, port, connected);
    }
    card(slot).onInputLost([this, slot](std::size_t channel, Nanos now) {
      return router.inputLost(slot, static_cast<int>(channel), now);
    });
  }
  for (const auto& [slot, source] : sources.cards()) {
    for (int input = 0; input < source.descriptor.in_port_num; ++input) rates.watchInput(slot, input, router);
  }
}

void Headend::provideServices() {
  alarms.provide(backEnd);
  panel.provide(backEnd);
  if (const auto& address = options.manage) backEnd.socket().openToHost(address->host, address->port);
  if (const auto& address = options.calibration)
    sockets.expose(client::kDefaultCalibrationPort, address->host, address->port);
}

void Headend::startCards() {
  for (auto& [slot, source] : sources.cards()) chassis.plugIn(source.descriptor);
  chassis.onInitReturned = [this](int slot) {
    card(slot).configuration().loaderLeft();
    if (!trace) card(slot).onRegister(nullptr);  // no receiver is left
    openMib(*this, slot);
  };
  const auto usesCalibration = [](const Job& job) {
    return job.call->entry->needs == commands::Needs::kCalibration;
  };
  chassis.start(options.slots, options.calibration || std::ranges::any_of(options.jobs, usesCalibration));
  alarms.endAtPowerUp(options.slots);
  chassis.onRecordKept = [this](int slot) {
    const bool kept = chassis.slot(slot).recordKept();
    alarms.setOwn(slot, protocol::kAlarmRecordNotKept, !kept,
                  kept ? protocol::words::kRecordKept : protocol::words::kRecordNotKept);
  };
  statusChecks.start(options.slots, options.statusPeriod, options.snmp.listen.has_value());
  backEnd.start();
  panel.start();
  if (snmp) snmp->start();
}

}  // namespace headend

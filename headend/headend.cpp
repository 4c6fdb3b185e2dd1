#include "headend/headend.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "headend/card_state.h"
#include "headend/flash_folder.h"
#include "headend/hardware/file_input.h"
#include "headend/hardware/ts_input.h"
#include "headend/hardware/udp_input.h"
#include "ui/qamMibRows.h"

namespace headend {
namespace {

MenuEngine::Firmware menuFirmware(Headend& headend) {
  return {.card = [&headend](int slot) { return headend.chassis.slot(slot).descriptor; },
          .fault = [&headend](int slot) -> std::optional<protocol::Words> {
            if (headend.runs(slot)) return std::nullopt;
            return protocol::nameOf(headend.state(slot)).words;
          },
          .text = [&headend](int slot, u32 id) { return headend.chassis.readText(slot, id); },
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

std::unique_ptr<TsInput> openInput(Headend& headend, const Options::Input& input) {
  if (input.address) {
    return std::make_unique<UdpInput>(headend.network, input.address->host, input.address->port,
                                      headend.options.deJitter);
  }
  auto file = std::make_unique<FileInput>(input.file.string(), input.bitRate);
  const auto& [losses, leading, trailing] = file->damage();
  if (losses + leading + trailing > 0) {
    headend.say(
        fmt::format("{} is damaged: sync lost {} times, {} bytes before the first packet and {} behind the "
                    "last; the rest plays",
                    file->name(), losses, leading, trailing));
  }
  return file;
}

}  // namespace

Headend::Headend(Options chosen)
    : options(std::move(chosen)),
      log(options.log),
      heap(options.heapBytes, options.heapFill),
      flash(options.flash, options.fast ? base::Flush::kLater : base::Flush::kNow),
      observation({kernel, bus, chassis, monitor, log}),
      kernel(options.kernel, observation),
      network(kernel),
      bus(violations),
      sources(kernel, router),
      chassis(kernel, bus, flash, log),
      alarms(
          flash, [this] { return options.epoch + static_cast<u32>(kernel.now() / kSecond); },
          [this](const std::string& text) { say(text); }),
      panel(kernel, options.menuTimeout, menuFirmware(*this)),
      backEnd(kernel, network, chassis, monitor, log, [this](int slot) { return state(slot); }),
      search(kernel, [this](int slot, int port) -> Multiplexer& { return output(slot, port); }),
      shell(kernel),
      automaticOperator(kernel, network, chassis, log),
      sockets(network),
      eepromFiles(flash, [this](const std::string& text) { say(text); }),
      busLog(nullptr, std::fclose) {
  requireFlash(options.flash);
  installCards();
  openOutputs();
  openInputs();
  connectRouter();
  provideServices();
  checkParameterFiles(options.flash, options.slots, [this](const std::string& text) { say(text); });
  if (options.snmp.isUsed()) openSnmp();
  setRunning(this);
  startCards();
  automaticOperator.start(options.jobs, options.slots.empty() ? 0 : options.slots.front(),
                          options.inputCounts());
}

Headend::~Headend() {
  setRunning(nullptr);
}

protocol::CardState Headend::state(int slot) const {
  return cardState(chassis.slot(slot), cards[static_cast<std::size_t>(slot)]->configuration(),
                   observation.hangingTask(slot) != nullptr);
}

std::string Headend::calibrationAddress() const {
  return sockets.hostAddress(client::kDefaultCalibrationPort);
}

void Headend::installCards() {
  if (!options.busLog.empty()) {
    busLog.reset(std::fopen(options.busLog.c_str(), "we"));
    if (busLog == nullptr) {
      throw std::runtime_error(
          fmt::format("cannot open bus log {}: {}", options.busLog, std::strerror(errno)));
    }
    bus.logTo(busLog.get());
  }
  if (!options.trace.empty())
    trace = std::make_unique<VcdTrace>(options.trace, options.slots, options.traceLines);
  for (const int slot : options.slots) {
    const FpgaConfiguration::Settings settings{
        .anyBitstream = options.anyBitstream,
        .seed = options.seed * MAX_BOARD_NUM + static_cast<unsigned>(slot)};
    cards[static_cast<std::size_t>(slot)] = std::make_unique<CardFpga>(settings, violations);
    Eeprom& eeprom = card(slot).board().eeprom;
    eepromFiles.load(slot, eeprom);
    if (const auto cycle = options.eepromCycles.find(slot); cycle != options.eepromCycles.end())
      eeprom.writeCycle(cycle->second);
    bus.attach(slot, card(slot));
    card(slot).onConfiguration([this, slot](bool complete, Nanos now) {
      if (!complete && card(slot).configuration().attempts() != 1) return;
      chassis.timeline(slot).begin(complete ? "settling" : "FPGA configuration", now, bus.accesses(slot));
    });
    card(slot).onRegister([this, slot](u32 offset, u16 value, Nanos now) {
      chassis.timeline(slot).reached(offset, now, bus.accesses(slot));
      if (trace != nullptr) trace->note(slot, offset, value, now);
    });
  }
}

void Headend::openSnmp() {
  const Options::Snmp& chosen = options.snmp;
  snmp = std::make_unique<SnmpAgent>(
      kernel, network, flash,
      SnmpAgent::Settings{chosen.listen, chosen.trapSink, chosen.base, chosen.writeCommunity},
      loadSnmpSecrets(chosen.secrets), [this](int slot) { return runs(slot); },
      [this](const std::string& text) { say(text); });
  alarms.onEvent([this](const AlarmRecord& event) { snmp->notify(event); });
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
    for (u32 port = 0; port < targets.size(); ++port) {
      auto& input = inputs.emplace_back(openInput(*this, targets[port]));
      for (const Options::InputLoss& loss : options.inputLosses) {
        if (loss.source != protocol::SourcePort{static_cast<u16>(slot), port}) continue;
        input = std::make_unique<InterruptibleInput>(kernel, std::move(input), loss.at, loss.period);
      }
    }
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
  for (const int slot : sources.slots()) {
    for (std::size_t input = 0; input < sources.inputs(slot); ++input)
      rates.watchInput(slot, static_cast<int>(input), router);
  }
}

void Headend::provideServices() {
  sources.provide(backEnd);
  search.provide(backEnd);
  shell.provide(backEnd);
  alarms.provide(backEnd);
  panel.provide(backEnd);
  if (options.manage) backEnd.socket().openToHost(options.manage->host, options.manage->port);
  if (options.calibration) {
    sockets.expose(client::kDefaultCalibrationPort, options.calibration->host, options.calibration->port);
  }
  if (options.calibration || std::ranges::any_of(options.jobs, &Job::usesCalibration))
    chassis.serveCalibration();
}

void Headend::startCards() {
  for (const int slot : sources.slots()) chassis.plugIn(sources.descriptor(slot));
  chassis.onInitReturned([this](int slot) {
    card(slot).configuration().loaderLeft();
    if (trace == nullptr) card(slot).onRegister(nullptr);  // no receiver is left
    openMib(*this, slot);
  });
  chassis.start(options.slots);
  alarms.endAbsent(options.slots);
  chassis.startStatusChecks(options.slots, options.statusPeriod, [this](int slot) { return runs(slot); });
  backEnd.start();
  panel.menu().start();
  if (snmp != nullptr) snmp->start();
}

}  // namespace headend

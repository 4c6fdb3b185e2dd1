#include "headend/headend.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "headend/firmware/status_tasks.h"
#include "headend/hardware/faults.h"
#include "headend/hardware/file_input.h"
#include "headend/hardware/interruptible_input.h"
#include "headend/hardware/udp_input.h"
#include "headend/kernel/real_time_pace.h"
#include "headend/report.h"
#include "platform/wire.h"
#include "protocol/mib_rows.h"

namespace headend {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBitstream = "K717_QAM/qam.bin";

}  // namespace

Headend::Headend(Options options)
    : options_(std::move(options)),
      log_(options_.log),
      heap_(options_.heapBytes, options_.heapFill),
      flash_(options_.flash, options_.fast ? base::Flush::kLater : base::Flush::kNow),
      kernel_(options_.kernel, *this),
      network_(kernel_),
      bus_(violations_),
      chassis_(kernel_, bus_, flash_, log_),
      alarms_(
          flash_, [this] { return options_.epoch + static_cast<u32>(kernel_.now() / kSecond); },
          [this](const std::string& text) { log_.line(kernel_.now(), "headend", text); }),
      panel_(kernel_, options_.menuTimeout, menuFirmware()),
      backEnd_(kernel_, network_, chassis_, monitor_, log_),
      search_(kernel_, [this](int slot, int port) { return outputOf(slot, port); }),
      operator_(kernel_, network_, chassis_, log_),
      eepromFiles_(options_.flash) {
  if (!fs::is_directory(options_.flash)) {
    throw std::runtime_error(
        fmt::format("there is no flash folder {0}: make one with headend --init-flash --flash {0}",
                    options_.flash.string()));
  }
  installCards();
  openOutputs();
  openInputs();
  connectRouter();
  provideServices();
  if (options_.manage) backEnd_.socket().openToHost(options_.manage->host, options_.manage->port);
  if (options_.calibration) {
    sockets_.expose(client::kDefaultCalibrationPort, options_.calibration->host, options_.calibration->port);
  }
  const bool isCalibrated = std::ranges::any_of(
      options_.jobs, [](const Job& job) { return job.call->entry->needs == commands::Needs::kCalibration; });
  if (options_.calibration || isCalibrated) chassis_.serveCalibration();
  lookAtParameterFiles();
  if (options_.snmp.isUsed()) openSnmp();
  setRunning(this);
  for (const int slot : sources_.slots()) chassis_.plugIn(sources_.descriptor(slot));
  chassis_.start(options_.slots);
  const auto runs = [this](int slot) { return state(slot) == CardState::kRunning; };
  alarms_.endAbsent(options_.slots);
  startStatusTasks(kernel_, chassis_, options_.slots, options_.statusPeriod, runs);
  backEnd_.onRunning(runs);
  backEnd_.start();
  panel_.menu().start();
  if (snmp_ != nullptr) snmp_->start();
  client::InputCounts inputs;
  for (const int slot : sources_.slots())
    inputs[static_cast<u16>(slot)] = static_cast<u32>(sources_.inputs(slot));
  operator_.start(options_.jobs, options_.slots.empty() ? 0 : options_.slots.front(), inputs);
}

Headend::~Headend() {
  setRunning(nullptr);
  if (busLog_ != nullptr) std::fclose(busLog_);
}

void Headend::installCards() {
  if (!options_.busLog.empty()) {
    busLog_ = std::fopen(options_.busLog.c_str(), "we");
    if (busLog_ == nullptr) {
      throw std::runtime_error(
          fmt::format("cannot open bus log {}: {}", options_.busLog, std::strerror(errno)));
    }
    bus_.logTo(busLog_);
  }
  if (!options_.trace.empty())
    trace_ = std::make_unique<VcdTrace>(options_.trace, options_.slots, options_.traceLines);
  for (const int slot : options_.slots) {
    const auto index = static_cast<std::size_t>(slot);
    const FpgaConfiguration::Settings settings{
        .anyBitstream = options_.anyBitstream,
        .seed = options_.seed * MAX_BOARD_NUM + static_cast<unsigned>(slot)};
    cards_[index] = std::make_unique<CardFpga>(settings, violations_);
    ports_[index] = std::make_unique<ConfigPort>(cards_[index]->configuration(), violations_);
    eepromFiles_.load(slot, cards_[index]->board().eeprom());
    if (const auto cycle = options_.eepromCycles.find(slot); cycle != options_.eepromCycles.end()) {
      cards_[index]->board().eeprom().writeCycle(cycle->second);
    }
    bus_.attach(slot, *cards_[index], *ports_[index]);
    cards_[index]->onConfiguration(
        [this, slot](bool complete, Nanos now) { noteConfiguration(slot, complete, now); });
    cards_[index]->onRegister(
        [this, slot](u32 offset, u16 value, Nanos now) { noteRegister(slot, offset, value, now); });
  }
  scheduleFaults();
  scheduleLossOfPower();
  chassis_.onInitReturned([this](int slot) {
    ports_[static_cast<std::size_t>(slot)]->loaderLeft();
    if (trace_ == nullptr) card(slot).onRegister(nullptr);  // no receiver is left
    openMib(slot);
  });
}

void Headend::scheduleFaults() {
  for (const Options::Temperature& t : options_.temperatures) {
    kernel_.at(t.at,
               [this, t] { card(t.slot).board().sensor(t.sensor).temperature(t.celsius, kernel_.now()); });
  }
  for (const Options::Fault& fault : options_.faults) {
    const FaultKind& kind = *findFault(fault.name);
    for (const int slot : options_.slots) {
      if (fault.slot && *fault.slot != slot) continue;
      kernel_.at(fault.at, [this, &kind, slot] {
        log_.line(kernel_.now(), "headend", fmt::format("fault on card {}: {}", slot + 1, kind.text));
        kind.inject(card(slot).board(), kernel_.now());
      });
    }
  }
}

void Headend::openSnmp() {
  const auto say = [this](const std::string& text) { log_.line(kernel_.now(), "headend", text); };
  const Options::Snmp& snmp = options_.snmp;
  const SnmpSecrets secrets = loadSnmpSecrets(snmp.secrets);
  snmp_ = std::make_unique<SnmpAgent>(
      kernel_, network_, flash_,
      SnmpAgent::Settings{snmp.listen, snmp.trapSink, snmp.base, snmp.writeCommunity}, secrets,
      [this](int slot) { return state(slot) == CardState::kRunning; }, say);
  alarms_.onEvent([this](const AlarmRecord& event) { snmp_->notify(event); });
}

// A card whose configuration failed has no rows.
void Headend::openMib(int slot) {
  const chassis::card& card = *chassis_.slot(slot).descriptor;
  if (card.mibRegister == nullptr || state(slot) != CardState::kRunning) return;
  std::vector<u32> base = options_.snmp.base;
  base.push_back(kMibFirstSlot + static_cast<u32>(slot));
  card.mibRegister(base.data(), static_cast<int>(base.size()));
}

void Headend::registerMib(const u32* base, int baseLength, const chassis::variable4* rows, int count,
                          int rowSize) {
  if (snmp_ != nullptr) snmp_->registerRows(base, baseLength, rows, count, rowSize);
}

std::string Headend::calibrationAddress() const {
  return sockets_.hostAddress(client::kDefaultCalibrationPort);
}

void Headend::scheduleLossOfPower() {
  if (!options_.powerCut) return;
  const auto cut = [this] {
    for (const int slot : options_.slots) card(slot).board().cutPower(kernel_.now());
    log_.line(kernel_.now(), "headend", "the power is cut");
    powerCut_ = true;
    kernel_.stop();
  };
  if (options_.powerCut->edge != 0) {
    card(options_.powerCut->slot).board().atEdge(options_.powerCut->edge, cut);
  } else {
    kernel_.at(options_.powerCut->at, cut);
  }
}

// At each tick, for whoever ends this process by force has pulled the plug, and not wiped the EEPROM.
void Headend::keepEeproms() {
  for (const int slot : options_.slots) {
    const std::string error = eepromFiles_.save(slot, card(slot).board().eeprom(), kernel_.now());
    if (error.empty()) continue;
    if (eepromsKept_) log_.line(kernel_.now(), "headend", error);
    eepromsKept_ = false;
  }
}

void Headend::noteConfiguration(int slot, bool complete, Nanos now) {
  StartupTimeline& timeline = chassis_.timeline(slot);
  if (complete) {
    timeline.begin("settling", now, bus_.accesses(slot));
  } else if (cards_[static_cast<std::size_t>(slot)]->configuration().attempts() == 1) {
    timeline.begin("FPGA configuration", now, bus_.accesses(slot));
  }
}

void Headend::noteRegister(int slot, u32 offset, u16 value, Nanos now) {
  chassis_.timeline(slot).reached(offset, now, bus_.accesses(slot));
  if (trace_ != nullptr) trace_->note(slot, offset, value, now);
}

void Headend::openOutputs() {
  for (const auto& [channel, target] : options_.outputs) {
    auto sink = openSink(target);
    cards_[channel.slot]->output(channel.port).setSink(sink.get());
    sinks_.emplace(channel, std::move(sink));
  }
}

void Headend::openInputs() {
  for (const auto& [slot, targets] : options_.sources) {
    std::vector<std::unique_ptr<TsInput>> inputs;
    for (u32 port = 0; port < targets.size(); ++port) {
      auto& input = inputs.emplace_back(openInput(targets[port]));
      for (const Options::InputLoss& loss : options_.inputLosses) {
        if (loss.source != protocol::SourcePort{static_cast<u16>(slot), port}) continue;
        input = std::make_unique<InterruptibleInput>(kernel_, std::move(input), Loss{loss.at, loss.period});
      }
    }
    sources_.plugIn(slot, std::move(inputs));
  }
}

std::unique_ptr<TsInput> Headend::openInput(const Options::Input& input) {
  if (!input.address) {
    auto file = std::make_unique<FileInput>(input.file.string(), input.bitRate);
    const auto& [losses, leading, trailing] = file->damage();
    if (losses + leading + trailing > 0) {
      log_.line(
          kernel_.now(), "headend",
          fmt::format("{} is damaged: sync lost {} times, {} bytes before the first packet and {} behind "
                      "the last; the rest plays",
                      file->name(), losses, leading, trailing));
    }
    return file;
  }
  return std::make_unique<UdpInput>(network_, input.address->host, input.address->port, options_.deJitter);
}

void Headend::connectRouter() {
  bus_.attach(mainBoard_);
  for (const int slot : options_.slots) {
    for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
      Multiplexer& output = *outputOf(slot, port);
      router_.connectOutput(slot, port, output);
      mainBoard_.watch(slot, port, output);
      rates_.watchOutput(slot, port, output);
    }
    card(slot).onInputLost([this, slot](std::size_t channel, Nanos now) {
      return router_.inputLost(slot, static_cast<int>(channel), now);
    });
  }
  for (const int slot : sources_.slots()) {
    for (std::size_t input = 0; input < sources_.inputs(slot); ++input) {
      rates_.watchInput(slot, static_cast<int>(input), router_);
    }
  }
}

Multiplexer* Headend::outputOf(int slot, int port) {
  const auto& found = cards_[static_cast<std::size_t>(slot)];
  return found == nullptr ? nullptr : &found->output(static_cast<std::size_t>(port));
}

// What management software may ask of the chassis itself.
void Headend::provideServices() {
  using protocol::Operation;
  backEnd_.provide(Operation::kStatus, [this](const protocol::Request&, base::Bytes& reply) -> u32 {
    const std::string text = statusText(*this);
    reply.assign(text.begin(), text.end());
    return protocol::kDone;
  });
  backEnd_.provide(Operation::kSourceSections,
                   [this](const protocol::Request& request, base::Bytes& reply) -> u32 {
                     router_.deliverUntil(kernel_.now());
                     return sources_.sections(request, reply);
                   });
  backEnd_.provide(Operation::kRouterMap,
                   [this](const protocol::Request& request, base::Bytes& reply) -> u32 {
                     return routerMap(request, reply);
                   });
  backEnd_.provide(Operation::kSearch, [this](const protocol::Request& request, base::Bytes&) -> u32 {
    return search_.search(request);
  });
  backEnd_.provide(Operation::kSearched, [this](const protocol::Request& request, base::Bytes& reply) -> u32 {
    return search_.searched(request, reply);
  });
  backEnd_.provide(Operation::kCall, [this](const protocol::Request& request, base::Bytes& reply) -> u32 {
    const int slot = request.slot & 0xFF;
    if (slot >= MAX_BOARD_NUM) return protocol::kBadSlotOrPort;
    if (cards_[static_cast<std::size_t>(slot)] == nullptr) return protocol::kNoCard;
    return state(slot) == CardState::kRunning ? shell_.call(request, reply) : protocol::kNotRunning;
  });
  backEnd_.provide(Operation::kAlarms, [this](const protocol::Request& request, base::Bytes& reply) -> u32 {
    return alarms_.answerAlarms(request, reply);
  });
  backEnd_.provide(Operation::kAlarmEvents,
                   [this](const protocol::Request& request, base::Bytes& reply) -> u32 {
                     return alarms_.answerEvents(request, reply);
                   });
  backEnd_.provide(Operation::kLcd, [this](const protocol::Request&, base::Bytes& reply) -> u32 {
    return panel_.show(reply);
  });
  backEnd_.provide(Operation::kKey, [this](const protocol::Request& request, base::Bytes&) -> u32 {
    return panel_.press(request);
  });
  backEnd_.provide(Operation::kCallResult,
                   [this](const protocol::Request& request, base::Bytes& reply) -> u32 {
                     return shell_.result(request, reply);
                   });
}

MenuEngine::Firmware Headend::menuFirmware() {
  return {.card = [this](int slot) { return chassis_.slot(slot).descriptor; },
          .fault = [this](int slot) -> std::optional<protocol::Words> {
            const CardState now = state(slot);
            return now == CardState::kRunning ? std::nullopt : std::optional(protocol::nameOf(now).words);
          },
          .text = [this](int slot, u32 id) { return chassis_.readText(slot, id); },
          .stop = [this](const std::string& why) { kernel_.fail(why); }};
}

u32 Headend::routerMap(const protocol::Request& request, base::Bytes& reply) {
  const int slot = request.slot & 0xFF;
  const int port = static_cast<int>(request.port & 0xFF);
  if (slot >= MAX_BOARD_NUM || port >= MAX_QAM_OUT_NUM) return protocol::kBadSlotOrPort;
  if (outputOf(slot, port) == nullptr) return protocol::kNoCard;
  for (u16 i = 0; i < kPidMapSize; ++i) {
    for (const u16 word : router_.position(slot, port, i)) base::append16(reply, word);
  }
  return protocol::kDone;
}

// What the card will make of its parameter file, said before it does. A file that it cannot open for update
// it takes for missing and replaces with defaults: that is refused here.
void Headend::lookAtParameterFiles() {
  for (const int slot : options_.slots) {
    const fs::path file = options_.flash / "para" / fmt::format("card{}.dat", slot + 1);
    std::error_code ignored;
    if (!fs::is_regular_file(file, ignored)) continue;
    if (::access(file.c_str(), R_OK | W_OK) != 0) {
      throw std::runtime_error(
          fmt::format("parameter file {} cannot be opened for update: {}. The card would take it for missing "
                      "and put defaults in "
                      "its place: make it writable, or move it away",
                      file.string(), std::strerror(errno)));
    }
    std::array<char, 8> head{};
    std::ifstream stream(file, std::ios::binary);
    stream.read(head.data(), head.size());
    const bool ofThisKind = stream.gcount() == head.size() && head[0] == QAM_CARD_TYPE && head[2] == 'd';
    const auto size = fs::file_size(file, ignored);
    if (size < sizeof(QamCardPara)) {
      log_.line(0, "headend",
                fmt::format("{} is short: {} of {} bytes; {}", file.string(), size, sizeof(QamCardPara),
                            ofThisKind ? "the card keeps the rest as its memory came (--heap-fill)"
                                       : "the card takes defaults"));
    }
    if (ofThisKind && head[1] != slot) {
      log_.line(0, "headend",
                fmt::format("{} was made for slot {}; the card takes it all the same", file.string(),
                            static_cast<u8>(head[1]) + 1));
    }
  }
}

// ---- The run ----

int Headend::run(const std::atomic<bool>& interrupted) {
  interrupted_ = &interrupted;
  RealTimePace pace(network_, interrupted);
  if (!options_.fast) kernel_.setPace(&pace);
  if (options_.duration) {
    kernel_.at(*options_.duration, [this] { kernel_.stop(); });
  }
  kernel_.run();
  kernel_.setPace(nullptr);
  finishOutputs();
  return exitCode();
}

void Headend::finishOutputs() {
  keepEeproms();
  for (const int slot : options_.slots) card(slot).advanceOutputs(kernel_.now());
  for (const auto& [channel, sink] : sinks_) sink->flush();
}

int Headend::exitCode() {
  const auto complain = [](const std::string& text) { fmt::print(stderr, "headend: {}\n", text); };
  bool failed = chassis_.saveFailed();
  if (const std::string unsaved = flash_.flush(); !unsaved.empty()) {
    complain(unsaved);
    failed = true;
  }
  for (const auto& [channel, sink] : sinks_) {
    if (sink->error().empty()) continue;
    complain(sink->error());
    failed = true;
  }
  if (options_.powerCut && !powerCut_) {
    complain(fmt::format("--power-cut: it never came; slot {} has seen {} edges", options_.powerCut->slot + 1,
                         card(options_.powerCut->slot).board().calibrationEdges()));
    failed = true;
  }
  if (!alarms_.file().kept()) {
    complain("the alarms' history is not kept: " + alarms_.file().failure());
    failed = true;
  }
  if (!eepromsKept_) {
    complain("a calibration EEPROM could not be kept in the flash folder");
    failed = true;
  }
  for (const std::string& complaint : powerCut_ ? std::vector<std::string>{} : operator_.complaints()) {
    complain(complaint);
    failed = true;
  }
  for (const int slot : powerCut_ ? std::vector<int>{} : options_.slots) {
    if (state(slot) == CardState::kRunning) continue;
    complain(
        fmt::format("the card in slot {} does not run: {}", slot + 1, protocol::nameOf(state(slot)).name));
    failed = true;
  }
  if (busLog_ != nullptr && (std::fflush(busLog_) != 0 || std::ferror(busLog_) != 0)) {
    complain(fmt::format("the bus log {} could not be written whole", options_.busLog));
    failed = true;
  }
  if (trace_ != nullptr && !trace_->finish(kernel_.now())) {
    complain(fmt::format("the trace {} could not be written whole", options_.trace));
    failed = true;
  }
  if (!log_.complete()) {
    complain(fmt::format("the log {} could not be written whole", options_.log));
    failed = true;
  }
  if (!kernel_.fatalError().empty()) {
    complain(kernel_.fatalError());
    return kExitStopped;
  }
  return failed ? kExitFailed : kExitDone;
}

Headend::CardState Headend::state(int slot) const {
  const Chassis::Slot& s = chassis_.slot(slot);
  const auto hangs = [slot](const ParkedTask& p) { return p.still && p.slot == slot; };
  const FpgaConfiguration& part = cards_[static_cast<std::size_t>(slot)]->configuration();
  // A card without a bitstream also hangs, at the first bus whose line it waits for; the missing bitstream is
  // the more useful message.
  if (std::any_of(parkedTasks_.begin(), parkedTasks_.end(), hangs)) {
    return part.attempts() == 0 ? CardState::kNoBitstream : CardState::kHung;
  }
  if (!s.initReturned) return s.registrationFailed ? CardState::kNotRegistered : CardState::kStarting;
  if (s.descriptor->varPtr == nullptr) return CardState::kNoRecord;
  if (part.done()) return CardState::kRunning;
  return part.attempts() == 0 ? CardState::kNoBitstream : CardState::kConfigError;
}

// ---- What the kernel tells ----

void Headend::auxiliaryClock() {
  chassis_.auxiliaryClock();
  if (sinks_.empty() && options_.sources.empty()) return;
  for (const int slot : options_.slots) card(slot).advanceOutputs(kernel_.now());
}

void Headend::systemClock() {
  if (*interrupted_) kernel_.stop();
  if (options_.fast && (options_.manage || options_.calibration || options_.snmp.listen))
    network_.pollHost(0);
  keepEeproms();
  rates_.update(kernel_.now());
  if (onTick_) onTick_();
}

void Headend::queueCreated(os::MsgQ* queue, const Task* by) {
  if (by == nullptr || by->slot < 0 || chassis_.slot(by->slot).initReturned) return;
  monitor_.queueCreated(queue, by->slot);
  chassis_.timeline(by->slot).begin("PSI queue and lists", kernel_.now(), bus_.accesses(by->slot));
}

void Headend::messageSent(os::MsgQ* queue, std::span<const char> message) {
  monitor_.posted(queue, message, kernel_.auxTicks());
}

void Headend::taskParked(const Task& task) {
  ParkedTask parked{.task = task.name,
                    .slot = bus_.slotOf(task.polled),
                    .reg = bus_.registerName(task.polled),
                    .since = task.polledSince};
  log_.line(
      kernel_.now(), "headend",
      fmt::format(
          "{} has polled {} since {:.6f} s and reads {}; it is set aside until that changes (on a chassis "
          "everything of lower priority would stand still)",
          parked.task, parked.reg, static_cast<double>(parked.since) / 1e9, task.polledValue));
  parkedTasks_.push_back(std::move(parked));
}

void Headend::taskReleased(const Task& task) {
  for (ParkedTask& parked : parkedTasks_) {
    if (parked.task == task.name) parked.still = false;
  }
  log_.line(kernel_.now(), "headend", fmt::format("{} goes on: its register has changed", task.name));
}

void Headend::semaphoreLong(const os::Semaphore& semaphore, const Task& task) {
  const char* holder = semaphore.owner != nullptr ? semaphore.owner->name.c_str() : "nobody";
  longWaits_.push_back({task.name, semaphore.name, holder, task.waitsSince});
  const LongWait& wait = longWaits_.back();
  log_.line(kernel_.now(), "headend",
            fmt::format("{} has waited for {} for more than ten seconds; {} holds it", wait.task,
                        wait.semaphore, wait.holder));
}

// ---- What the module says ----

void Headend::checkFailed(const char* text, const char* unit, int line) {
  assertionFailures_.push_back({unit, line, text});
  const std::string who = kernel_.current() != nullptr ? kernel_.current()->name : "chassis";
  log_.line(kernel_.now(), who, fmt::format("check failed: {} ({}, line {})", text, unit, line));
}

// Said at once: the card does not test every allocation, and this may be the run's last line.
void Headend::heapExhausted(std::size_t size) {
  log_.line(kernel_.now(), "headend",
            fmt::format("the heap (--heap {}) has no {} bytes left for {}", options_.heapBytes, size,
                        kernel_.current() != nullptr ? kernel_.current()->name : "the chassis"));
}

void Headend::debugPrint(const char* format, std::va_list args) {
  std::array<char, 512> text{};
  std::vsnprintf(text.data(), text.size(), format, args);
  const std::string who = kernel_.inInterrupt()          ? "interrupt"
                          : kernel_.current() != nullptr ? kernel_.current()->name
                                                         : "chassis";
  log_.line(kernel_.now(), who, text.data());
  shell_.printed(kernel_.current(), text.data());
}

// ---- The flash folder ----

void initFlash(const fs::path& folder) {
  if (fs::exists(folder / kBitstream)) {
    throw std::runtime_error(
        fmt::format("{} has a bitstream already: remove it first to make a new one", folder.string()));
  }
  std::error_code error;
  for (const char* below : {"para", "K717_QAM"}) {
    fs::create_directories(folder / below, error);
    if (error)
      throw std::runtime_error(fmt::format("cannot make {}: {}", (folder / below).string(), error.message()));
  }
  const std::string failure =
      Flash(folder).replace(fmt::format("/tffs0/{}", kBitstream), makeSampleBitstream());
  if (!failure.empty()) throw std::runtime_error(failure);
}

}  // namespace headend

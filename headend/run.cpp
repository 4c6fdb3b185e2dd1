// A run of a headend: the end that the options plan, the clocks' work, and the exit code.
#include <fmt/format.h>

#include "headend/headend.h"
#include "headend/kernel/network.h"

namespace headend {
namespace {

void scheduleFaults(Headend& headend) {
  Kernel& kernel = headend.kernel;
  for (const Options::Temperature& t : headend.options.temperatures) {
    kernel.at(t.at, [&headend, t] {
      headend.card(t.slot).board().sensor(t.sensor).temperature(t.celsius, headend.kernel.now());
    });
  }
  for (const Options::Fault& fault : headend.options.faults) headend.faults.add(fault);
}

// Sets `isCut` when the power is cut, which also ends the run.
void scheduleLossOfPower(Headend& headend, bool& isCut) {
  const std::optional<Options::PowerCut>& planned = headend.options.powerCut;
  if (!planned) return;
  const auto cut = [&headend, &isCut] {
    for (const int slot : headend.options.slots) headend.card(slot).board().cutPower(headend.kernel.now());
    headend.say("the power is cut");
    isCut = true;
    headend.kernel.stop();
  };
  if (planned->edge != 0) {
    headend.card(planned->slot).board().atEdge(planned->edge, cut);
  } else {
    headend.kernel.at(planned->at, cut);
  }
}

void advanceOutputs(Headend& headend) {
  for (const int slot : headend.options.slots) headend.card(slot).advanceOutputs(headend.kernel.now());
}

void doTheClocksWork(Headend& headend, const std::atomic<bool>& interrupted) {
  headend.observation.onAuxiliaryClock = [&headend] {
    headend.chassis.auxiliaryClock();
    if (!headend.sinks.empty() || !headend.options.sources.empty()) advanceOutputs(headend);
  };
  const Options& options = headend.options;
  const bool polls =
      options.fast && (options.manage || options.calibration || options.snmp.listen || options.snmp.inform);
  headend.observation.onSystemClock = [&headend, &interrupted, polls] {
    if (interrupted) headend.kernel.stop();
    if (polls) headend.network.pollHost(0);
    headend.eepromFiles.save(headend.kernel.now());  // at each tick: the process may be killed
    headend.rates.update(headend.kernel.now());
    headend.pidCounters.update(headend.kernel.now());
    headend.onTick();
  };
}

// What has failed, one text each. After a power cut the cards and the operator have not failed.
std::vector<std::string> failures(Headend& headend, bool powerCut) {
  std::vector<std::string> all;
  const auto add = [&all](bool failed, const std::string& text) {
    if (failed) all.push_back(text);
  };
  const auto addFile = [&add](bool failed, const char* what, const std::string& file) {
    add(failed, fmt::format("the {} {} could not be written whole", what, file));
  };
  const Options& options = headend.options;
  const std::string unsaved = headend.flash.flush();
  add(!unsaved.empty(), unsaved);
  for (const auto& [channel, sink] : headend.sinks) add(!sink->error().empty(), sink->error());
  if (options.powerCut && !powerCut) {
    add(true, fmt::format("--power-cut: it never came; slot {} has seen {} edges", options.powerCut->slot + 1,
                          headend.card(options.powerCut->slot).board().calibrationEdges()));
  }
  const AlarmFile& alarms = headend.alarms.file();
  add(!alarms.kept(), "the alarms' history is not kept: " + alarms.failure());
  add(!headend.eepromFiles.kept(), "a calibration EEPROM could not be kept in the flash folder");
  if (!powerCut) {
    std::ranges::copy(headend.automaticOperator.complaints(), std::back_inserter(all));
    for (const int slot : options.slots) {
      const Chassis::Slot& place = headend.chassis.slot(slot);
      add(!place.recordKept(),
          fmt::format("the record of the card in slot {} is not kept: {}", slot + 1, place.saveError));
      add(!headend.runs(slot), fmt::format("the card in slot {} does not run: {}", slot + 1,
                                           protocol::nameOf(headend.state(slot)).words.english));
    }
  }
  addFile(headend.busLog && !headend.busLog->complete(), "bus log", options.busLog);
  addFile(headend.trace && !headend.trace->finish(headend.kernel.now()), "trace", options.trace);
  addFile(!headend.log.complete(), "log", options.log);
  return all;
}

}  // namespace

int run(Headend& headend, const std::atomic<bool>& interrupted) {
  Kernel& kernel = headend.kernel;
  bool powerCut = false;
  scheduleFaults(headend);
  scheduleLossOfPower(headend, powerCut);
  if (headend.options.duration) kernel.at(*headend.options.duration, [&kernel] { kernel.stop(); });
  doTheClocksWork(headend, interrupted);
  RealTimePace pace(headend.network, interrupted);
  if (!headend.options.fast) kernel.setPace(&pace);
  kernel.run();
  kernel.setPace(nullptr);

  headend.eepromFiles.save(kernel.now());
  advanceOutputs(headend);
  for (const auto& [channel, sink] : headend.sinks) sink->flush();

  std::vector<std::string> failed = failures(headend, powerCut);
  const std::string& fatal = kernel.fatalError();
  if (!fatal.empty()) failed.push_back(fatal);
  for (const std::string& text : failed) fmt::print(stderr, "headend: {}\n", text);
  if (!fatal.empty()) return kExitStopped;
  return failed.empty() ? kExitDone : kExitFailed;
}

}  // namespace headend

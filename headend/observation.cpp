#include "headend/observation.h"

#include <fmt/format.h>

#include <algorithm>

namespace headend {

void Observation::checkFailed(const char* text, const char* unit, int line) {
  failedChecks_.push_back({unit, line, text});
  log_.line(kernel_.now(), kernel_.runningName(),
            fmt::format("check failed: {} ({}, line {})", text, unit, line));
}

const Observation::ParkedTask* Observation::hangingTask(int slot) const {
  const auto hangs = [slot](const ParkedTask& parked) { return parked.still && parked.slot == slot; };
  const auto found = std::ranges::find_if(parkedTasks_, hangs);
  return found == parkedTasks_.end() ? nullptr : &*found;
}

void Observation::queueCreated(os::MsgQ* queue, const Task* by) {
  if (by == nullptr || by->slot < 0 || chassis_.slot(by->slot).initReturned) return;
  monitor_.queueCreated(queue, by->slot);
  chassis_.beginPhase(by->slot, "PSI queue and lists");
}

void Observation::messageSent(os::MsgQ* queue, std::span<const char> message) {
  monitor_.posted(queue, message, kernel_.auxTicks());
}

void Observation::taskParked(const Task& task) {
  parkedTasks_.push_back(
      {task.name, bus_.slotOf(task.polled), bus_.registerName(task.polled), task.polledSince});
  const ParkedTask& parked = parkedTasks_.back();
  say_(
      fmt::format("{} has polled {} since {:.6f} s and reads {}; it is set aside until that changes (on a "
                  "chassis no task of lower priority would run)",
                  parked.task, parked.reg, static_cast<double>(parked.since) / 1e9, task.polledValue));
}

void Observation::taskReleased(const Task& task) {
  for (ParkedTask& parked : parkedTasks_) {
    if (parked.task == task.name) parked.still = false;
  }
  say_(fmt::format("{} goes on: its register has changed", task.name));
}

void Observation::semaphoreLong(const os::Semaphore& semaphore, const Task& task) {
  const char* holder = semaphore.owner != nullptr ? semaphore.owner->name.c_str() : "nobody";
  longWaits_.push_back({task.name, semaphore.name, holder, task.waitsSince});
  say_(fmt::format("{} has waited for {} for more than ten seconds; {} holds it", task.name, semaphore.name,
                   holder));
}

// The violation has the names, so that the report shows which task it was, and where.
void Observation::watchdogLate(const Task& task) {
  const bool hasRegister = task.stretch.lastRegister != nullptr;
  const std::string reg = hasRegister ? bus_.registerName(task.stretch.lastRegister) : "no register";
  violations_.count(fmt::format("watchdog_not_kicked ({}, {})", task.name, reg));
  say_(fmt::format("{} has run for {:.3f} s without a kick of the watchdog; it has accessed {}{}", task.name,
                   static_cast<double>(task.stretch.time) / 1e9, reg, hasRegister ? " last" : ""));
}

// A channel that takes no packet, and a serial clock that is held low: the chassis is to restart then.
bool Observation::onlyWatchdogEnds(const volatile void* reg) {
  const std::string name = bus_.registerName(reg);
  return name.find("PsiRdy") != std::string::npos || name.ends_with("scl") || name.ends_with("SCL");
}

}  // namespace headend

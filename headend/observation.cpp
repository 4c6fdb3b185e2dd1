#include "headend/observation.h"

#include <fmt/format.h>

#include <algorithm>

namespace headend {

void Observation::say(const std::string& text) {
  parts_.log.line(parts_.kernel.now(), "headend", text);
}

void Observation::checkFailed(const char* text, const char* unit, int line) {
  failedChecks_.push_back({unit, line, text});
  parts_.log.line(parts_.kernel.now(), parts_.kernel.runningName(),
                  fmt::format("check failed: {} ({}, line {})", text, unit, line));
}

const Observation::ParkedTask* Observation::hangingTask(int slot) const {
  const auto hangs = [slot](const ParkedTask& parked) { return parked.still && parked.slot == slot; };
  const auto found = std::ranges::find_if(parkedTasks_, hangs);
  return found == parkedTasks_.end() ? nullptr : &*found;
}

void Observation::queueCreated(os::MsgQ* queue, const Task* by) {
  if (by == nullptr || by->slot < 0 || parts_.chassis.slot(by->slot).initReturned) return;
  parts_.monitor.queueCreated(queue, by->slot);
  parts_.chassis.timeline(by->slot).begin("PSI queue and lists", parts_.kernel.now(),
                                          parts_.bus.accesses(by->slot));
}

void Observation::messageSent(os::MsgQ* queue, std::span<const char> message) {
  parts_.monitor.posted(queue, message, parts_.kernel.auxTicks());
}

void Observation::taskParked(const Task& task) {
  const ParkedTask& parked = parkedTasks_.emplace_back(ParkedTask{.task = task.name,
                                                                  .slot = parts_.bus.slotOf(task.polled),
                                                                  .reg = parts_.bus.registerName(task.polled),
                                                                  .since = task.polledSince});
  say(
      fmt::format("{} has polled {} since {:.6f} s and reads {}; it is set aside until that changes (on a "
                  "chassis everything of lower priority would stand still)",
                  parked.task, parked.reg, static_cast<double>(parked.since) / 1e9, task.polledValue));
}

void Observation::taskReleased(const Task& task) {
  for (ParkedTask& parked : parkedTasks_) {
    if (parked.task == task.name) parked.still = false;
  }
  say(fmt::format("{} goes on: its register has changed", task.name));
}

void Observation::semaphoreLong(const os::Semaphore& semaphore, const Task& task) {
  const char* holder = semaphore.owner != nullptr ? semaphore.owner->name.c_str() : "nobody";
  longWaits_.push_back({task.name, semaphore.name, holder, task.waitsSince});
  say(fmt::format("{} has waited for {} for more than ten seconds; {} holds it", task.name, semaphore.name,
                  holder));
}

std::uint16_t Observation::peek(const volatile void* reg) {
  return parts_.bus.peek(reg, parts_.kernel.now());
}

}  // namespace headend

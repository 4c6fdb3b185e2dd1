// A kernel with nothing on it, whose tasks a test brings. What happens is kept, each event with its time in
// ms.
#pragma once

#include <fmt/format.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "headend/kernel/network.h"

namespace test {

using headend::Kernel;
using headend::kSecond;
using headend::Nanos;

constexpr Nanos kMs = 1'000'000;

// Kernel calls that take no time, so that what is measured is the clocks', and no watchdog.
inline Kernel::Settings freeCalls(int tickHz = 100, int auxHz = 1000) {
  Kernel::Settings settings{.tickHz = tickHz, .auxHz = auxHz, .costs = {}, .watchdog = 0};
  settings.costs.kernelCall = settings.costs.watchdogKick = 0;
  return settings;
}

using Story = std::vector<std::string>;

struct Rig final : headend::KernelObserver {
  explicit Rig(const Kernel::Settings& settings = {}) : kernel(settings, *this) {}

  void runUntil(Nanos end) {
    kernel.at(end, [this] { kernel.stop(); });
    kernel.run();
  }
  void note(std::string text) { story.push_back(std::move(text)); }
  void tell(const std::string& what) {
    note(fmt::format("{}@{}", what, static_cast<double>(kernel.now()) / 1e6));
  }

  void auxiliaryClock() override { onAux(); }
  void systemClock() override { onTick(); }
  void taskParked(const headend::Task& task) override { tell(task.name + " parked"); }
  void taskReleased(const headend::Task& task) override { tell(task.name + " released"); }
  void semaphoreLong(const os::Semaphore& semaphore, const headend::Task& task) override {
    tell(task.name + " waits for " + semaphore.name + " of " + semaphore.owner->name);
  }
  void watchdogLate(const headend::Task& task) override { tell(task.name + " not kicked"); }
  bool onlyWatchdogEnds(const volatile void* reg) override { return reg == endless; }
  std::uint16_t peek(const volatile void* reg) override {
    return *static_cast<const volatile std::uint16_t*>(reg);
  }

  Story story;
  const volatile void* endless = nullptr;  // the register whose polls only the watchdog ends
  std::function<void()> onAux = [] {}, onTick = [] {};
  Kernel kernel;
};

}  // namespace test

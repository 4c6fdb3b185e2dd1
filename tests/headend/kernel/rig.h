// A kernel with nothing on it, which writes down what happens: for tests that bring tasks of their own.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "headend/kernel/kernel.h"

namespace test {

using headend::Kernel;
using headend::kSecond;
using headend::Nanos;

constexpr Nanos kMs = 1'000'000;

// Kernel calls that take no time, so that what is measured is the clocks'.
inline Kernel::Settings freeCalls(int tickHz = 100, int auxHz = 1000) {
  Kernel::Settings settings{.tickHz = tickHz, .auxHz = auxHz, .costs = {}};
  settings.costs.kernelCall = 0;
  return settings;
}

class Rig final : public headend::KernelObserver {
 public:
  explicit Rig(const Kernel::Settings& settings = {}) : kernel(settings, *this) {}

  void task(const char* name, int priority, std::function<void()> body) {
    kernel.spawn(name, priority, std::move(body));
  }
  void runUntil(Nanos end) {
    kernel.at(end, [this] { kernel.stop(); });
    kernel.run();
  }
  void note(std::string text) { story.push_back(std::move(text)); }
  std::uint16_t poll(const std::uint16_t& reg, Nanos cost = 100) {
    kernel.spend(cost);
    const std::uint16_t value = reg;
    kernel.notePolling(&reg, value);
    return value;
  }

  void auxiliaryClock() override {
    if (onAux) onAux();
  }
  void systemClock() override {
    if (onTick) onTick();
  }
  void taskParked(const headend::Task& task) override { parked.emplace_back(task.name, kernel.now()); }
  void taskReleased(const headend::Task& task) override { released.emplace_back(task.name, kernel.now()); }
  void semaphoreLong(const os::Semaphore& semaphore, const headend::Task& task) override {
    note(task.name + " waits for " + semaphore.name + " of " + semaphore.owner->name);
  }
  std::uint16_t peek(const volatile void* reg) override {
    return *static_cast<const volatile std::uint16_t*>(reg);
  }

  std::vector<std::string> story;
  std::vector<std::pair<std::string, Nanos>> parked;
  std::vector<std::pair<std::string, Nanos>> released;
  std::function<void()> onAux;
  std::function<void()> onTick;
  Kernel kernel;
};

using Story = std::vector<std::string>;

}  // namespace test

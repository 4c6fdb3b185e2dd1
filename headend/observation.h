// Records the events of a run that the kernel and the module report: tasks that poll a register in vain, long
// waits, failed checks, the use of the send queues. For the log, the report and the states of the cards.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "headend/firmware/carousel_monitor.h"
#include "headend/firmware/chassis.h"

namespace headend {

class Observation final : public KernelObserver {
 public:
  struct FailedCheck {
    std::string unit;
    int line = 0;
    std::string text;
  };
  struct ParkedTask {
    std::string task;
    int slot = -1;
    std::string reg;
    Nanos since = 0;
    bool still = true;
  };
  struct LongWait {  // for a semaphore
    std::string task;
    std::string semaphore;
    std::string holder;
    Nanos since = 0;
  };

  // The parts of the same headend. They are used only when the kernel runs.
  Observation(Kernel& kernel, Bus& bus, Violations& violations, Chassis& chassis, CarouselMonitor& monitor,
              Log& log, const Say& say)
      : kernel_(kernel),
        bus_(bus),
        violations_(violations),
        chassis_(chassis),
        monitor_(monitor),
        log_(log),
        say_(say) {}

  // Called once per tick of each clock.
  std::function<void()> onAuxiliaryClock = [] {};
  std::function<void()> onSystemClock = [] {};

  // A check of the module has failed (platform/check.h).
  void checkFailed(const char* text, const char* unit, int line);

  const std::vector<FailedCheck>& failedChecks() const { return failedChecks_; }
  const std::vector<ParkedTask>& parkedTasks() const { return parkedTasks_; }
  const std::vector<LongWait>& longWaits() const { return longWaits_; }
  // The task that polls a register of this slot's card in vain now; null if there is none.
  const ParkedTask* hangingTask(int slot) const;

 private:
  void auxiliaryClock() override { onAuxiliaryClock(); }
  void systemClock() override { onSystemClock(); }
  void queueCreated(os::MsgQ* queue, const Task* by) override;
  void messageSent(os::MsgQ* queue, std::span<const char> message) override;
  void taskParked(const Task& task) override;
  void taskReleased(const Task& task) override;
  void semaphoreLong(const os::Semaphore& semaphore, const Task& task) override;
  void watchdogLate(const Task& task) override;
  bool onlyWatchdogEnds(const volatile void* reg) override;
  std::uint16_t peek(const volatile void* reg) override { return bus_.peek(reg, kernel_.now()); }

  Kernel& kernel_;
  Bus& bus_;
  Violations& violations_;
  Chassis& chassis_;
  CarouselMonitor& monitor_;
  Log& log_;
  const Say& say_;
  std::vector<FailedCheck> failedChecks_;
  std::vector<ParkedTask> parkedTasks_;
  std::vector<LongWait> longWaits_;
};

}  // namespace headend
